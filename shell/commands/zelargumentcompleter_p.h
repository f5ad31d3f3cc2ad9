// SPDX-License-Identifier: MIT
#ifndef ZELARGUMENTCOMPLETER_P_H
#define ZELARGUMENTCOMPLETER_P_H

#include "zelcommandsignature_p.h"
#include "zelcompleter_p.h"

/**
 * What the last of a statement's words, quotes kept, may be as a word of a typed command: its options, choices, truth
 * values, files of the machine, or what the host's function says, which is called in a try frame with a time limit.
 * Nothing where names of the tree are meant. Called without locks, on the session's thread.
 */
std::optional<ZELWordCandidates> zelCompleteArgument(const ZELCommandSignature &signature, const QStringList &words);

/// Files and directories of the machine whose names begin with the last piece of the path.
ZELWordCandidates zelFileCandidates(const QString &typed);

/// The words as entries of a listing without colours, without those that could not be typed.
ZELListing zelPlainEntries(const QStringList &words, const QString &prefix);

#endif
