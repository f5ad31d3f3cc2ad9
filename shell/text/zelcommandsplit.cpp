// SPDX-License-Identifier: MIT
#include "zelcommandsplit_p.h"

#include <algorithm>

namespace {
enum Class : char { Dropped, Word, Separator, Quote, Bracket, Equals };

struct Classes
{
    constexpr Classes()
    {
        for (char c = 'a'; c <= 'z'; ++c)
            of[int(c)] = of[c - 'a' + 'A'] = Word;
        set("0123456789\\!#$%&*+-./:<>?@^_|~", Word);
        set(" ,;\t\n\r", Separator);
        set("\"'`", Quote);
        set("([{", Bracket);
        set("=", Equals);
    }
    constexpr void set(const char *characters, Class c)
    {
        for (; *characters; ++characters)
            of[int(*characters)] = c;
    }
    Class of[256] = {};
};
constexpr Classes classes;

Class classOf(QChar c)
{
    return classes.of[uchar(c.toLatin1())];
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
    bool isOpen() const { return m_inGroup || m_depth > 0; }

private:
    void outside(char plain, Class kind);
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
    int m_depth = 0; ///< open brackets; only those of the outermost one's kind nest
};

QStringList Splitter::split(const QString &line)
{
    m_word.reserve(line.size()); // one buffer for all words; it keeps its room when it is emptied
    for (auto at = line.cbegin(); at != line.cend();) {
        const auto text = at;
        at = std::find_if(at, line.cend(), [](QChar c) { return classOf(c) != Word; });
        m_word.append(text, int(at - text));
        if (at == line.cend())
            break;
        const QChar c = *at++;
        if (m_inGroup || m_depth > 0)
            inside(c, c.toLatin1());
        else
            outside(c.toLatin1(), classOf(c));
    }
    flush();
    return m_words;
}

void Splitter::outside(char plain, Class kind)
{
    switch (kind) {
    case Separator:
        flush();
        break;
    case Quote:
        open(plain);
        break;
    case Bracket:
        ++m_depth;
        open(plain);
        break;
    case Equals:
        flush();
        m_words.append(QStringLiteral("="));
        break;
    case Word:
    case Dropped:
        break;
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
        ++m_depth;
    m_word.append(c);
}

void Splitter::close(QChar c)
{
    if (m_depth > 0 && --m_depth > 0) {
        m_word.append(c);
        return;
    }
    if (m_keepQuote) {
        if (m_dropEmptyQuoted && m_word.size() == 1)
            m_word.resize(0);
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
    m_words.append(QString(m_word.constData(), m_word.size()));
    m_word.resize(0);
}
} // namespace

bool zelIsOpenText(const QString &text)
{
    Splitter splitter(false, false);
    splitter.split(text);
    return splitter.isOpen();
}

QStringList zelSplitCommandLine(const QString &line, bool keepQuote, bool dropEmptyQuoted)
{
    return Splitter(keepQuote, dropEmptyQuoted).split(line);
}
