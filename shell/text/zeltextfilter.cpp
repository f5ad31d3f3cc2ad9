// SPDX-License-Identifier: MIT
#include "zeltextfilter_p.h"

#include <QQueue>
#include <QStack>

namespace {

// "tail" holds that many lines at most.
const int mostLines = 100000;

class Containing : public ZELTextFilter
{
public:
    Containing(const QString &text, bool wanted)
        : m_text(text)
        , m_wanted(wanted)
    {
    }
    QString line(const QString &text) override { return text.contains(m_text) == m_wanted ? text : QString(); }

private:
    const QString m_text;
    const bool m_wanted;
};

class Begin : public ZELTextFilter
{
public:
    explicit Begin(const QString &text)
        : m_text(text)
    {
    }
    QString line(const QString &text) override
    {
        m_found = m_found || text.contains(m_text);
        return m_found ? text : QString();
    }

private:
    const QString m_text;
    bool m_found = false;
};

class Count : public ZELTextFilter
{
public:
    QString line(const QString &) override
    {
        ++m_lines;
        return QString();
    }
    QString end() override { return QString::number(m_lines) + QLatin1String("\r\n"); }

private:
    qint64 m_lines = 0;
};

class Head : public ZELTextFilter
{
public:
    explicit Head(int lines)
        : m_left(lines)
    {
    }
    QString line(const QString &text) override { return m_left > 0 && m_left-- ? text : QString(); }

private:
    int m_left;
};

class Tail : public ZELTextFilter
{
public:
    explicit Tail(int lines)
        : m_most(lines)
    {
    }
    QString line(const QString &text) override
    {
        m_lines.enqueue(text);
        if (m_lines.size() > m_most)
            m_lines.dequeue();
        return QString();
    }
    QString end() override { return QStringList(m_lines).join(QString()); }

private:
    const int m_most;
    QQueue<QString> m_lines;
};

/// Changes nothing; the session pages what comes of the chain.
class More : public ZELTextFilter
{
public:
    QString line(const QString &text) override { return text; }
};

std::unique_ptr<ZELTextFilter> makeWithText(const QStringList &words, QString *problem)
{
    const QString &name = words.first();
    if (words.size() != 2) {
        *problem = name + QLatin1String(": takes one text, in quotes if it has blanks");
        return nullptr;
    }
    if (name == QLatin1String("begin"))
        return std::make_unique<Begin>(words.at(1));
    return std::make_unique<Containing>(words.at(1), name == QLatin1String("include"));
}

std::unique_ptr<ZELTextFilter> makeWithCount(const QStringList &words, QString *problem)
{
    bool isNumber = words.size() == 1;
    const int lines = words.size() == 2 ? words.at(1).toInt(&isNumber) : 10;
    if (!isNumber || lines < 0 || lines > mostLines) {
        *problem = QStringLiteral("%1: takes a number of lines from 0 to %2").arg(words.first()).arg(mostLines);
        return nullptr;
    }
    if (words.first() == QLatin1String("head"))
        return std::make_unique<Head>(lines);
    return std::make_unique<Tail>(lines);
}

std::unique_ptr<ZELTextFilter> makeBare(const QStringList &words, QString *problem)
{
    if (words.size() != 1) {
        *problem = words.first() + QLatin1String(": takes nothing");
        return nullptr;
    }
    if (words.first() == QLatin1String("count"))
        return std::make_unique<Count>();
    return std::make_unique<More>();
}

} // namespace

std::unique_ptr<ZELTextFilter> ZELTextFilter::make(const QStringList &words, QString *problem)
{
    const QStringList names{QStringLiteral("include"), QStringLiteral("exclude"), QStringLiteral("begin"),
        QStringLiteral("head"), QStringLiteral("tail"), QStringLiteral("count"), QStringLiteral("more")};
    const int index = names.indexOf(words.value(0));
    if (index < 0) {
        *problem
            = QStringLiteral("there is no filter '%1', only %2").arg(words.value(0), names.join(QLatin1String(", ")));
        return nullptr;
    }
    return index < 3 ? makeWithText(words, problem)
        : index < 5  ? makeWithCount(words, problem)
                     : makeBare(words, problem);
}

QString ZELTextFilterChain::run(const QString &line, size_t from)
{
    QString text = line;
    for (size_t i = from; i < m_filters.size() && !text.isEmpty(); ++i)
        text = m_filters[i]->line(text);
    return text;
}

QString ZELTextFilterChain::pass(const QString &text)
{
    QString passed;
    int from = 0;
    for (int end = text.indexOf(QLatin1Char('\n')); end >= 0; end = text.indexOf(QLatin1Char('\n'), from)) {
        passed += run(m_partial + text.mid(from, end + 1 - from), 0);
        m_partial.clear();
        from = end + 1;
    }
    m_partial += text.mid(from);
    return passed;
}

QString ZELTextFilterChain::end()
{
    QString passed = m_partial.isEmpty() ? QString() : run(m_partial, 0);
    m_partial.clear();
    for (size_t i = 0; i < m_filters.size(); ++i) {
        const QString left = m_filters[i]->end();
        int from = 0;
        while (from < left.size()) {
            int end = left.indexOf(QLatin1Char('\n'), from);
            end = end < 0 ? left.size() : end + 1;
            passed += run(left.mid(from, end - from), i + 1);
            from = end;
        }
    }
    return passed;
}

namespace {

/// Follows quotes and brackets as the splitter of words does.
class Groups
{
public:
    /// True for a character outside of all groups.
    bool isOutside(QChar c)
    {
        const QString openers = QStringLiteral("\"'`([{");
        const QString closers = QStringLiteral("\"'`)]}");
        if (m_closer.isNull()) {
            const int at = openers.indexOf(c);
            if (at >= 0) {
                m_opener = c;
                m_closer = closers.at(at);
                m_depth = 1;
            }
            return at < 0;
        }
        if (c == m_closer)
            --m_depth;
        else if (c == m_opener)
            ++m_depth;
        if (m_depth == 0)
            m_closer = QChar();
        return false;
    }

private:
    QChar m_opener;
    QChar m_closer;
    int m_depth = 0;
};

bool isBlank(QChar c)
{
    return c == QLatin1Char(' ') || c == QLatin1Char('\t');
}

} // namespace

QStringList zelSplitAtBars(const QString &statement)
{
    QStringList parts;
    Groups groups;
    int from = 0;
    for (int i = 0; i < statement.size(); ++i) {
        const bool outside = groups.isOutside(statement.at(i));
        const bool isBar = outside && statement.at(i) == QLatin1Char('|') && i > 0 && isBlank(statement.at(i - 1))
            && i + 1 < statement.size() && isBlank(statement.at(i + 1));
        if (!isBar)
            continue;
        parts += statement.mid(from, i - from);
        from = i + 1;
    }
    parts += statement.mid(from);
    return parts;
}
