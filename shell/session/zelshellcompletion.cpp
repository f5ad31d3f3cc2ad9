// SPDX-License-Identifier: MIT
// What Tab may look at in a session.
#include "zelargumentcompleter_p.h"
#include "zelshell_p.h"
#include "zelshellcommand_p.h"
#include "zelshellexpansion_p.h"
#include "zelshellserverstate_p.h"

namespace {

using Node = ZELShellCommandTree;

ZELWordCandidates jobNumbers(const ZELShellPrivate &session, const QString &typed)
{
    QStringList numbers;
    for (const auto &job : session.jobs.running())
        numbers += QString::number(job->number);
    return {typed, zelPlainEntries(numbers, typed)};
}

/// The directories, for "cd", or all that can be listed, for "ls"; nothing when none of them begins with the word.
std::optional<ZELWordCandidates> listable(const ZELShellPrivate &session, const QString &word, bool onlyDirectories)
{
    const bool isQuoted = word.startsWith(QLatin1Char('"')) || word.startsWith(QLatin1Char('\''));
    const QString typed = isQuoted ? word.mid(1) : word;
    const int cut = typed.lastIndexOf(QLatin1Char('/')) + 1;
    const auto place = session.directories.place(cut == 0 ? QStringLiteral(".") : typed.left(cut));
    const ZELCriticalSection section; // a jump over the pin would keep its node for ever
    const auto pin = ZELShellCommandPin::walk(place.start, place.pieces);
    ZELWordCandidates found{typed.mid(cut), {}};
    for (const ZELShellCommandEntry &entry :
        ZELShellCommandTreePrivate::visible(pin.node(), session.audience(), found.prefix))
        if (entry.name.startsWith(found.prefix) && zelCanBeTyped(entry.name, isQuoted)
            && (!onlyDirectories || entry.type == Node::Directory))
            found.entries.append(entry);
    return found.entries.isEmpty() ? std::nullopt : std::make_optional(found);
}

/// The description lives as long as the pointer, also when the command is unregistered meanwhile.
std::shared_ptr<const ZELTypedCommand> typedCommand(const ZELShellPrivate &session, const QString &word, bool *isKill)
{
    const ZELCriticalSection section;
    const ZELShellCommandPin pin = session.resolve(ZELCommandWord(word).name);
    ZELShellCommand *command = pin.command();
    *isKill = command && pin.node()->CommandType() == Node::System_Execute
        && pin.node()->objectName() == QLatin1String("kill");
    return command && session.hasRoleFor(command) ? ZELShellCommandPrivate::get(command)->typed : nullptr;
}

/// The words of "dostring".
ZELWordCandidates ofScripts(const QStringList &words)
{
    if (words.at(words.size() - 2) == QLatin1String("--file"))
        return zelFileCandidates(words.last());
    const QStringList options{QStringLiteral("--file"), QStringLiteral("--string")};
    return {words.last(), words.size() == 2 ? zelPlainEntries(options, words.last()) : ZELListing()};
}

std::optional<ZELWordCandidates> candidatesFor(const ZELShellPrivate &session, const QStringList &words)
{
    const QString &first = words.first();
    const QString &last = words.last();
    if (last.startsWith(QLatin1Char('$')))
        return ZELWordCandidates{last, zelPlainEntries(session.environment.names(), last)};
    if (words.size() == 1)
        return std::nullopt;
    if (first == QLatin1String("dostring") && !session.resolve(first))
        return ofScripts(words);
    bool isKill = false;
    const auto typed = typedCommand(session, first, &isKill);
    if (typed)
        return zelCompleteArgument(typed->signature, words);
    if (isKill)
        return jobNumbers(session, last);
    if (first == QLatin1String("cd") || first == QLatin1String("ls"))
        return listable(session, last, first == QLatin1String("cd"));
    return std::nullopt;
}

} // namespace

ZELCompletionScope ZELShellPrivate::completionScope() const
{
    ZELCompletionScope scope
        = ZELCompletionScope::ofTrees(server->mainRoot(), directories.current(), server->systemRoot(), audience());
    scope.words = [this](const QStringList &words) { return candidatesFor(*this, words); };
    if (hasPrompt) // the plain keys offer what they always did
        scope.runnable = functions.names() << QStringLiteral("dostring");
    return scope;
}
