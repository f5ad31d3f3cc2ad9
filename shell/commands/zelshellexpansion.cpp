// SPDX-License-Identifier: MIT
#include "zelshellexpansion_p.h"

#include "zelarguments_p.h"
#include "zelcommandsplit_p.h"

#include <QSet>
#include <algorithm>
#include <vector>

namespace {

const QLatin1Char dollar('$');
const QLatin1String equals("=");
const int longestInner = 1024;

bool isBetween(const QString &word, char open, char close)
{
    return word.startsWith(QLatin1Char(open)) && word.endsWith(QLatin1Char(close));
}

bool endsWord(QChar c)
{
    return c.isSpace() || QStringLiteral(",;=\"'`()[]{}").contains(c);
}

/// The variables among the words between double quotes, to be found wherever they stand in the text.
class Variables
{
public:
    Variables(const QStringList &words, const ZELVariableLookup &lookup);
    bool isEmpty() const { return m_sorted.empty(); }
    /// The text with all of them replaced in one pass, cut soon after it has become longer than that.
    QString replacedIn(const QString &text, int longest) const;

private:
    struct Variable
    {
        QString name;
        QString value;
        int order = 0; ///< the first of the words wins
        int prefix = -1; ///< the longest other name that this one begins with
        int winner = 0; ///< the first among this one and those that it begins with
    };
    const Variable *beginning(const QStringRef &text) const;

    std::vector<Variable> m_sorted; ///< by name: the names that a text begins with are near one another
};

Variables::Variables(const QStringList &words, const ZELVariableLookup &lookup)
{
    QSet<QString> known;
    for (const QString &word : words) {
        if (!word.startsWith(dollar) || known.contains(word))
            continue;
        known.insert(word);
        m_sorted.push_back({word, lookup(word), known.size()});
    }
    std::sort(m_sorted.begin(), m_sorted.end(), [](const auto &a, const auto &b) { return a.name < b.name; });
    for (int i = 0; i < int(m_sorted.size()); ++i) {
        int prefix = i - 1;
        while (prefix >= 0 && !m_sorted[i].name.startsWith(m_sorted[prefix].name))
            prefix = m_sorted[prefix].prefix;
        m_sorted[i].prefix = prefix;
        m_sorted[i].winner = i;
        if (prefix >= 0 && m_sorted[m_sorted[prefix].winner].order < m_sorted[i].order)
            m_sorted[i].winner = m_sorted[prefix].winner;
    }
}

const Variables::Variable *Variables::beginning(const QStringRef &text) const
{
    const auto isBefore = [](const QStringRef &a, const Variable &b) { return a < b.name; };
    int at = int(std::upper_bound(m_sorted.begin(), m_sorted.end(), text, isBefore) - m_sorted.begin()) - 1;
    while (at >= 0 && !text.startsWith(m_sorted[at].name))
        at = m_sorted[at].prefix;
    return at < 0 ? nullptr : &m_sorted[m_sorted[at].winner];
}

QString Variables::replacedIn(const QString &text, int longest) const
{
    QString result;
    int done = 0;
    for (int at = text.indexOf(dollar); at >= 0 && result.size() <= longest; at = text.indexOf(dollar, at)) {
        // Inside of another word only so far: whoever makes words of "$" alone is not to be waited for.
        const bool isWord = at == 0 || endsWord(text.at(at - 1));
        const Variable *const found = beginning(text.midRef(at, isWord ? -1 : longestInner));
        if (found) {
            result += text.midRef(done, at - done) + found->value;
            done = at + found->name.size();
        }
        at = found ? done : at + 1;
    }
    return result + text.midRef(done);
}

} // namespace

QString zelExpandWord(const QString &word, const ZELVariableLookup &lookup, int longest)
{
    if (word.startsWith(dollar))
        return lookup(word);
    if (word.size() < 2 || !isBetween(word, '"', '"') || !word.contains(dollar))
        return word;
    const Variables variables(zelSplitCommandLine(word.mid(1, word.size() - 2), true, true), lookup);
    return variables.isEmpty() ? word : variables.replacedIn(word, longest);
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
