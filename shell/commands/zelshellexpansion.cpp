// SPDX-License-Identifier: MIT
#include "zelshellexpansion_p.h"

#include "zelarguments_p.h"
#include "zelcommandsplit_p.h"

namespace {

const QLatin1Char dollar('$');
const QLatin1String equals("=");

bool isBetween(const QString &word, char open, char close)
{
    return word.startsWith(QLatin1Char(open)) && word.endsWith(QLatin1Char(close));
}

} // namespace

QString zelExpandWord(const QString &word, const ZELVariableLookup &lookup)
{
    if (word.startsWith(dollar))
        return lookup(word);
    if (word.size() < 2 || !isBetween(word, '"', '"'))
        return word;
    QString result = word;
    for (const QString &inner : zelSplitCommandLine(word.mid(1, word.size() - 2), true, true)) {
        if (inner.startsWith(dollar))
            result.replace(inner, lookup(inner));
    }
    return result;
}

ZELStatementKind zelStatementKind(const QStringList &words)
{
    if (words.isEmpty() || !words.first().startsWith(dollar))
        return ZELStatementKind::Command;
    if (words.size() == 1)
        return ZELStatementKind::Query;
    return words.at(1) == equals ? ZELStatementKind::Assignment : ZELStatementKind::Indirect;
}

bool zelIsNumber(const QString &word)
{
    bool isNumber = false;
    word.toDouble(&isNumber);
    // toDouble() also takes "inf" and "nan".
    return isNumber && (word.back().isDigit() || word.back() == QLatin1Char('.'));
}

bool zelIsQuoted(const QString &word)
{
    return isBetween(word, '\'', '\'') || isBetween(word, '"', '"') || isBetween(word, '(', ')')
        || isBetween(word, '{', '}') || isBetween(word, '[', ']');
}

QString zelUnquoted(const QString &word)
{
    return word.size() > 1 && zelIsQuoted(word) ? word.mid(1, word.size() - 2) : word;
}

ZELCommandWord::ZELCommandWord(const QString &word)
    : name(word)
{
    if (zelIsQuoted(word) || !word.contains(QLatin1Char('#')))
        return;
    const QStringList pieces = word.split(QLatin1Char('#'));
    name = pieces.at(0);
    index = pieces.at(1);
}

QString zelWithoutTag(const QString &input, const QString &tag)
{
    const int from = input.indexOf(tag);
    if (from < 0)
        return input;
    int to = from + tag.size();
    for (int padding = 0; padding < 2 && to < input.size() && input.at(to) == equals; ++padding)
        ++to;
    QString rest = input;
    return rest.remove(from, to - from).trimmed();
}

QStringList zelStatements(const QString &code)
{
    QStringList result;
    QString plain = code;
    for (const QString &piece : plain.replace(QLatin1Char('\n'), QLatin1Char(';')).split(QLatin1Char(';'))) {
        if (!piece.trimmed().isEmpty())
            result += piece;
    }
    return result;
}
