// SPDX-License-Identifier: MIT
#include "zelcompleter_p.h"

#include "zelarguments.h"
#include "zelguard_p.h"

#include <QMap>
#include <algorithm>

namespace {

constexpr int unknownWidth = 128;
constexpr int columnGap = 4;

using Candidates = QMap<QString, ZELShellCommandTree::ZELShellCommandType>;

QString mainName()
{
    return QStringLiteral("Main");
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
        const bool alias = namesMain && !scope.fromRoot({mainName()});
        return scope.fromRoot(pieces.mid(alias ? 1 : 0));
    }
    if (!scope.aboveTree)
        return scope.fromCurrent(pieces);
    if (pieces.isEmpty())
        return ZELListing{{mainName(), ZELShellCommandTree::Directory}};
    return namesMain ? scope.fromRoot(pieces.mid(1)) : std::nullopt;
}

/// The names that begin with the word, each once: what the dispatcher would find first counts.
Candidates candidates(const Word &word, const ZELCompletionScope &scope)
{
    const std::optional<ZELListing> children = reached(word, scope);
    if (!children)
        return {};
    ZELListing all = *children;
    if (word.bare)
        all += scope.systemCommands();
    if (word.bare && word.first)
        for (const char *name : {"ls", "cd", "reinit", "sys", "exit", "quit"})
            all.append({QLatin1String(name), ZELShellCommandTree::System_Execute});
    Candidates found;
    for (const ZELShellCommandEntry &entry : qAsConst(all))
        if (entry.name.startsWith(word.prefix) && !found.contains(entry.name))
            found.insert(entry.name, entry.type);
    return found;
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

} // namespace

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

ZELCompletionScope ZELCompletionScope::ofTrees(
    ZELShellCommandTree *mainRoot, ZELShellCommandTree *current, ZELShellCommandTree *systemRoot)
{
    const auto readerFrom = [](ZELShellCommandTree *start) -> Reader {
        return [start](const QStringList &directories) -> std::optional<ZELListing> {
            const ZELCriticalSection section; // a jump over the pin would keep its node for ever
            const auto pin = ZELShellCommandPin::walk(start, directories);
            if (!pin || pin.command())
                return std::nullopt;
            return ZELShellCommandTreePrivate::snapshot(pin.node());
        };
    };
    ZELCompletionScope scope;
    scope.fromRoot = readerFrom(mainRoot);
    scope.fromCurrent = readerFrom(current);
    scope.systemCommands = [systemRoot] { return ZELShellCommandTreePrivate::snapshot(systemRoot); };
    scope.aboveTree = !current;
    return scope;
}

ZELCompletion zelComplete(const QString &line, const ZELCompletionScope &scope, int width)
{
    const std::optional<Word> word = lastWord(line);
    const Candidates found = word ? candidates(*word, scope) : Candidates();
    if (found.isEmpty())
        return {};
    ZELCompletion completion;
    completion.insertion = commonPrefix(found.firstKey(), found.lastKey()).mid(word->prefix.size());
    if (found.size() == 1) {
        if (found.first() == ZELShellCommandTree::Directory)
            completion.insertion += QLatin1Char('/');
        return completion;
    }
    ZELListing listing;
    for (auto it = found.cbegin(); it != found.cend(); ++it)
        listing.append({it.key(), it.value()});
    completion.listing = zelPaintColumns(listing, width);
    return completion;
}
