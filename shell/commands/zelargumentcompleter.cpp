// SPDX-License-Identifier: MIT
#include "zelargumentcompleter_p.h"

#include "zelguard_p.h"

#include <QDir>

namespace {

using Parameter = ZELCommandParameter;

// People wait for it, and the session reads nothing meanwhile.
const int completerLimitMs = 200;

ZELWordCandidates optionNames(const ZELCommandSignature &signature, const QStringList &words)
{
    QStringList names;
    for (const Parameter &parameter : signature.parameters) {
        const bool isGiven
            = std::any_of(words.begin(), words.end() - 1, [&](const QString &word) { return parameter.hasName(word); });
        if (parameter.isOption && (parameter.type.isList || !isGiven))
            names += parameter.names;
    }
    return {words.last(), zelPlainEntries(names, words.last())};
}

/// What the host's function answers; nothing when it fails or takes too long. Kept on the heap: a jump out of the
/// function loses what its stack holds.
QStringList askHost(const Parameter &parameter, const QStringList &words, const QString &typed)
{
    const auto answer = std::make_shared<QStringList>();
    ZELFrame frame;
    frame->timeoutMs = completerLimitMs;
    const auto ask = [&] { *answer = parameter.completer({parameter.name(), typed, words.mid(0, words.size() - 1)}); };
    return zelGuard(frame.get(), ask) == 0 ? *answer : QStringList();
}

/// An "=" is the word before the value of an option, or nothing is typed of that yet.
QString typedPart(const QString &word)
{
    return word == QLatin1String("=") ? QString() : word;
}

} // namespace

ZELWordCandidates zelFileCandidates(const QString &typed)
{
    const int cut = typed.lastIndexOf(QLatin1Char('/')) + 1;
    ZELWordCandidates found;
    found.prefix = typed.mid(cut);
    const QDir directory(cut == 0 ? QStringLiteral(".") : typed.left(cut));
    for (const QFileInfo &file : directory.entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot))
        for (ZELShellCommandEntry entry : zelPlainEntries({file.fileName()}, found.prefix)) {
            entry.type = file.isDir() ? ZELShellCommandTree::Directory : ZELShellCommandTree::File;
            found.entries.append(entry);
        }
    return found;
}

ZELListing zelPlainEntries(const QStringList &words, const QString &prefix)
{
    ZELListing entries;
    for (const QString &word : words)
        if (word.startsWith(prefix) && ZELArguments::CommandSplit(word, true, true) == QStringList(word))
            entries.append({word, ZELShellCommandTree::System_Execute});
    return entries;
}

std::optional<ZELWordCandidates> zelCompleteArgument(const ZELCommandSignature &signature, const QStringList &words)
{
    const QString typed = typedPart(words.last());
    const bool isOption = typed.startsWith(QLatin1Char('-')) && signature.hasOptions()
        && !words.mid(1, words.size() - 2).contains(QLatin1String("--"));
    const Parameter *parameter = signature.parameterOf(words);
    if (!parameter)
        return isOption ? optionNames(signature, words) : ZELWordCandidates{typed, {}};
    if (parameter->completer)
        return ZELWordCandidates{typed, zelPlainEntries(askHost(*parameter, words, typed), typed)};
    switch (parameter->completion) {
    case Parameter::Completion::Tree:
        return std::nullopt;
    case Parameter::Completion::Files:
        return zelFileCandidates(typed);
    case Parameter::Completion::None:
        break;
    }
    return ZELWordCandidates{typed, zelPlainEntries(parameter->words(), typed)};
}
