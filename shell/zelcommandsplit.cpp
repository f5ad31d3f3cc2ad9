// SPDX-License-Identifier: MIT
#include "zelarguments_p.h"

#include <QStack>
#include <string.h>

namespace {
bool isWordCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')
        || (c && strchr("\\!#$%&*+-./:<>?@^_|~", c));
}

bool isOneOf(const char *set, char c)
{
    return c && strchr(set, c);
}

char closerOf(char opener)
{
    switch (opener) {
    case '(':
        return ')';
    case '[':
        return ']';
    case '{':
        return '}';
    default:
        return opener; // quotes
    }
}

class Splitter
{
public:
    Splitter(bool keepQuote, bool dropEmptyQuoted)
        : m_keepQuote(keepQuote)
        , m_dropEmptyQuoted(dropEmptyQuoted)
    {
    }
    QStringList split(const QString &line);

private:
    void outside(QChar c, char plain);
    void inside(QChar c, char plain);
    void open(char opener);
    void close(QChar c);
    void flush();

    const bool m_keepQuote;
    const bool m_dropEmptyQuoted;
    QStringList m_words;
    QString m_word;
    bool m_inGroup = false;
    char m_opener = 0;
    char m_closer = 0;
    QStack<char> m_brackets;
};

QStringList Splitter::split(const QString &line)
{
    for (const QChar c : line) {
        const char plain = c.toLatin1();
        if (isWordCharacter(plain))
            m_word.append(c);
        else if (m_inGroup || !m_brackets.isEmpty())
            inside(c, plain);
        else
            outside(c, plain);
    }
    flush();
    return m_words;
}

void Splitter::outside(QChar c, char plain)
{
    if (isOneOf(" ,;\t\n\r", plain)) {
        flush();
    } else if (isOneOf("\"'`", plain)) {
        open(plain);
    } else if (isOneOf("([{", plain)) {
        m_brackets.push(plain);
        open(plain);
    } else if (plain == '=') {
        flush();
        m_words.append(QString(c));
    }
}

void Splitter::open(char opener)
{
    flush();
    if (m_keepQuote)
        m_word.append(QLatin1Char(opener));
    m_opener = opener;
    m_closer = closerOf(opener);
    m_inGroup = true;
}

void Splitter::inside(QChar c, char plain)
{
    if (plain == m_closer) {
        close(c);
        return;
    }
    if (plain == m_opener)
        m_brackets.push(plain);
    m_word.append(c);
}

void Splitter::close(QChar c)
{
    // A backtick takes a bracket off as well, though it put none on.
    if (m_closer != '"' && m_closer != '\'' && !m_brackets.isEmpty())
        m_brackets.pop();
    if (!m_brackets.isEmpty()) {
        m_word.append(c);
        return;
    }
    if (m_keepQuote) {
        if (m_dropEmptyQuoted && m_word.size() == 1)
            m_word.clear();
        else
            m_word.append(c);
    }
    flush();
    m_inGroup = false;
}

void Splitter::flush()
{
    if (m_word.isEmpty())
        return;
    m_words.append(m_word);
    m_word.clear();
}
} // namespace

QStringList zelSplitCommandLine(const QString &line, bool keepQuote, bool dropEmptyQuoted)
{
    return Splitter(keepQuote, dropEmptyQuoted).split(line);
}
