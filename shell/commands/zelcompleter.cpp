// SPDX-License-Identifier: MIT
#include "zelcompleter_p.h"

#include "zelarguments.h"
#include "zelguard_p.h"

#include <QMap>
#include <algorithm>

namespace {

constexpr int unknownWidth = 128;
constexpr int columnGap = 4;

using Candidates = QMap<QString, ZELShellCommandEntry>;

QString mainName()
{
    return QStringLiteral("Main");
}

bool isQuote(QChar c)
{
    return c == QLatin1Char('"') || c == QLatin1Char('\'');
}

bool isSeparator(QChar c)
{
    return c == QLatin1Char('/') || c == QLatin1Char('\\');
}

QString coloured(const ZELShellCommandEntry &entry)
{
    switch (entry.type) {
    case ZELShellCommandTree::Execute:
        return QLatin1String("\033[33m") + entry.name + QLatin1String("\033[0m");
    case ZELShellCommandTree::File:
        return QLatin1String("\033[34m") + entry.name + QLatin1String("\033[0m");
    default:
        return entry.name;
    }
}

/// The word to complete: directories to walk, and the beginning of a name in the last of them.
struct Word
{
    QStringList directories;
    QString prefix;
    bool absolute = false;
    bool bare = true; ///< no path was typed
    bool first = false; ///< the statement's command word
    bool quoted = false; ///< a quote stands before it
};

/// The last word of \a line; nothing where the line does not end in it as it would be split, as behind a quote.
std::optional<Word> lastWord(const QString &line)
{
    const QString statement = line.mid(line.lastIndexOf(QLatin1Char(';')) + 1);
    const QString text = statement.mid(statement.indexOf(QLatin1Char('=')) + 1);
    const QStringList words = ZELArguments::CommandSplit(text, false, true);
    if (words.isEmpty() || !text.endsWith(words.last()))
        return std::nullopt;
    const QString &last = words.last();
    QString normal = last;
    normal.replace(QLatin1Char('\\'), QLatin1Char('/'));
    Word word;
    word.absolute = isSeparator(line.at(0)) || isSeparator(last.at(0));
    word.bare = !normal.contains(QLatin1Char('/'));
    word.first = words.size() == 1;
    word.quoted = text.size() > last.size() && isQuote(text.at(text.size() - last.size() - 1));
    word.prefix = normal.mid(normal.lastIndexOf(QLatin1Char('/')) + 1);
    if (!word.bare)
        word.directories = normal.left(normal.lastIndexOf(QLatin1Char('/'))).split(QLatin1Char('/'));
    if (!word.directories.isEmpty() && word.directories.first() == QLatin1String("."))
        word.directories.removeFirst();
    word.directories.removeAll(QString());
    return word;
}

/// What stands in the word's directory; nothing when a piece of its path is missing.
std::optional<ZELListing> reached(const Word &word, const ZELCompletionScope &scope)
{
    const QStringList &pieces = word.directories;
    const bool namesMain = !pieces.isEmpty() && pieces.first() == mainName();
    if (word.absolute) {
        const bool alias = namesMain && !scope.fromRoot({mainName()}, QString());
        return scope.fromRoot(pieces.mid(alias ? 1 : 0), word.prefix);
    }
    if (!scope.aboveTree)
        return scope.fromCurrent(pieces, word.prefix);
    if (pieces.isEmpty())
        return ZELListing{{mainName(), ZELShellCommandTree::Directory}};
    return namesMain ? scope.fromRoot(pieces.mid(1), word.prefix) : std::nullopt;
}

/// The names that begin with the prefix, each once: what stands first counts.
Candidates beginningWith(const QString &prefix, const ZELListing &entries)
{
    Candidates found;
    for (const ZELShellCommandEntry &entry : entries)
        if (entry.name.startsWith(prefix) && !found.contains(entry.name))
            found.insert(entry.name, entry);
    return found;
}

/// In the order in which the dispatcher would find them.
Candidates candidates(const Word &word, const ZELCompletionScope &scope)
{
    const std::optional<ZELListing> children = reached(word, scope);
    if (!children || (word.first && word.quoted)) // which is a text and no command
        return {};
    ZELListing all;
    std::copy_if(children->cbegin(), children->cend(), std::back_inserter(all),
        [&](const auto &entry) { return zelCanBeTyped(entry.name, word.quoted); });
    if (word.bare)
        all += scope.systemCommands();
    if (word.bare && word.first)
        for (const char *name : {"ls", "cd", "reinit", "sys", "exit", "quit"})
            all.append({QLatin1String(name), ZELShellCommandTree::System_Execute});
    if (word.bare && word.first)
        for (const QString &name : scope.runnable)
            all.append({name, ZELShellCommandTree::System_Execute});
    return beginningWith(word.prefix, all);
}

/// The words of the last statement up to the end of the line, quotes kept; none where that is no word's end.
QStringList wordsOf(const QString &line)
{
    const QString statement = line.mid(line.lastIndexOf(QLatin1Char(';')) + 1);
    QStringList words = ZELArguments::CommandSplit(statement, true, true);
    if (words.isEmpty() || !statement.endsWith(words.last()))
        return {};
    const bool assigns
        = words.size() > 2 && words.at(1) == QLatin1String("=") && words.first().startsWith(QLatin1Char('$'));
    return assigns ? words.mid(2) : words;
}

/// What a command says of its last word; nothing where names of the tree are meant.
std::optional<ZELWordCandidates> saidByCommand(const QString &line, const ZELCompletionScope &scope)
{
    const QStringList words = scope.words ? wordsOf(line) : QStringList();
    return words.isEmpty() ? std::nullopt : scope.words(words);
}

/// What all names begin with: of sorted names, what the first and the last have in common.
QString commonPrefix(const QString &first, const QString &last)
{
    const auto end = std::mismatch(first.cbegin(), first.cend(), last.cbegin(), last.cend()).first;
    QString common = first.left(static_cast<int>(end - first.cbegin()));
    if (common.size() < first.size() && !common.isEmpty() && common.at(common.size() - 1).isHighSurrogate())
        common.chop(1);
    return common;
}

ZELCompletion completionOf(const QString &prefix, const ZELListing &found, int width)
{
    if (found.isEmpty())
        return {};
    ZELCompletion completion;
    completion.insertion = commonPrefix(found.first().name, found.last().name).mid(prefix.size());
    if (found.size() > 1)
        completion.listing = zelPaintColumns(found, width);
    else if (found.first().type == ZELShellCommandTree::Directory)
        completion.insertion += QLatin1Char('/');
    return completion;
}

} // namespace

bool zelCanBeTyped(const QString &name, bool isQuoted)
{
    if (name.contains(QLatin1Char(';')))
        return false; // ends the statement, wherever it stands
    if (isQuoted)
        return std::none_of(name.cbegin(), name.cend(), isQuote);
    return ZELArguments::CommandSplit(name, true, true) == QStringList(name);
}

QString zelPaintColumns(const ZELListing &entries, int width)
{
    int longest = 0;
    for (const ZELShellCommandEntry &entry : entries)
        longest = std::max(longest, entry.name.size());
    const int column = longest + columnGap;
    const int columns = std::max(1, (width > 0 ? width : unknownWidth) / column);
    QString text;
    for (int i = 0; i < entries.size(); ++i) {
        const ZELShellCommandEntry &entry = entries.at(i);
        const bool lastOfRow = i % columns == columns - 1 || i == entries.size() - 1;
        text += coloured(entry);
        text += lastOfRow ? QStringLiteral("\n") : QString(column - entry.name.size(), QLatin1Char(' '));
    }
    return text.isEmpty() ? QStringLiteral("\n") : text;
}

ZELCompletionScope ZELCompletionScope::ofTrees(ZELShellCommandTree *mainRoot, ZELShellCommandTree *current,
    ZELShellCommandTree *systemRoot, const ZELCommandAudience &audience)
{
    const auto readerFrom = [audience](ZELShellCommandTree *start) -> Reader {
        return [start, audience](const QStringList &directories, const QString &prefix) -> std::optional<ZELListing> {
            const ZELCriticalSection section; // a jump over the pin would keep its node for ever
            const auto pin = ZELShellCommandPin::walk(start, directories);
            if (!pin || pin.command())
                return std::nullopt;
            return ZELShellCommandTreePrivate::visible(pin.node(), audience, prefix);
        };
    };
    ZELCompletionScope scope;
    scope.fromRoot = readerFrom(mainRoot);
    scope.fromCurrent = readerFrom(current);
    scope.systemCommands = [systemRoot, audience] { return ZELShellCommandTreePrivate::visible(systemRoot, audience); };
    scope.aboveTree = !current;
    return scope;
}

ZELWordCandidates zelCandidates(const QString &line, const ZELCompletionScope &scope)
{
    if (const auto said = saidByCommand(line, scope))
        return {said->prefix, beginningWith(said->prefix, said->entries).values().toVector()};
    const std::optional<Word> word = lastWord(line);
    return word ? ZELWordCandidates{word->prefix, candidates(*word, scope).values().toVector()} : ZELWordCandidates();
}

ZELCompletion zelComplete(const QString &line, const ZELCompletionScope &scope, int width)
{
    const ZELWordCandidates found = zelCandidates(line, scope);
    return completionOf(found.prefix, found.entries, width);
}
