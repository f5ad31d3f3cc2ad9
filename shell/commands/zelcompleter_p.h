// SPDX-License-Identifier: MIT
#ifndef ZELCOMPLETER_P_H
#define ZELCOMPLETER_P_H

#include "zelshellcommandtree_p.h"

#include <QString>
#include <QStringList>
#include <QVector>
#include <functional>
#include <optional>

/// Names with the node types that decide their colours, as ZELShellCommandTreePrivate::snapshot() gives them.
using ZELListing = QVector<ZELShellCommandEntry>;

/**
 * Paints \a entries in columns, in the order given, for a terminal of \a width columns (0 or less: unknown, 128).
 *
 * A column is four blanks wider than the longest name; there is at least one. The colour stands around the name, the
 * padding behind it, none behind the last name of a row. A line feed ends each row; no entries give one line feed.
 * Application commands are yellow, files blue, everything else is plain.
 */
QString zelPaintColumns(const ZELListing &entries, int width);

/// What a word may be, and how much of it is typed already.
struct ZELWordCandidates
{
    QString prefix;
    ZELListing entries; ///< those that do not begin with it count for nothing
};

/**
 * What a completion may look at, as plain functions, so that it holds no lock and needs no tree.
 *
 * A reader walks the directories named by its argument, none of them empty, and returns what the last one holds;
 * nothing when one of them is missing or no directory. Names that do not begin with the prefix may be left out.
 */
struct ZELCompletionScope
{
    using Reader = std::function<std::optional<ZELListing>(const QStringList &directories, const QString &prefix)>;

    Reader fromRoot; ///< from the main root
    Reader fromCurrent; ///< from the session's directory; above the tree it is not asked
    std::function<ZELListing()> systemCommands;
    QStringList runnable; ///< what else a statement may begin with
    bool aboveTree = false; ///< the session stands above "Main"
    /// What a statement's last word may be, by all of its words with their quotes; nothing where names of the tree
    /// complete it. May be empty.
    std::function<std::optional<ZELWordCandidates>(const QStringList &words)> words;

    /// The scope of a session on living trees; \a current is null above the tree. The trees must outlive the scope.
    static ZELCompletionScope ofTrees(ZELShellCommandTree *mainRoot, ZELShellCommandTree *current,
        ZELShellCommandTree *systemRoot, const ZELCommandAudience &audience = {});
};

/// What the last word of a line may be, with what of it is typed; no entries when that is not known.
ZELWordCandidates zelCandidates(const QString &line, const ZELCompletionScope &scope);

/// What Tab does to a line: both texts are empty when nothing begins with the word typed.
struct ZELCompletion
{
    QString insertion; ///< to be added to the end of the line
    QString listing; ///< painted candidates, when there are several; each row ends in a line feed
};

/**
 * Completes the last word of \a line, a command or a path, for a terminal of \a width columns.
 *
 * The word belongs to the last statement, behind its first "="; a word that is quoted to its end is left alone.
 * Several candidates are listed, sorted by name, and what they have in common is inserted; a single one is inserted
 * whole, with "/" behind a directory. Built-ins and system commands complete a word without a path only.
 *
 *     const ZELCompletion found = zelComplete(editor.text(), scope, width);
 *     if (!found.listing.isEmpty())
 *         write("\n" + found.listing), printPrompt(), editor.redraw();
 *     editor.append(found.insertion);
 */
ZELCompletion zelComplete(const QString &line, const ZELCompletionScope &scope, int width);

/// Whether a name of the tree arrives as it is when it is typed, between quotes or as a plain word.
bool zelCanBeTyped(const QString &name, bool isQuoted);

#endif
