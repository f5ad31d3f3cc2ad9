// SPDX-License-Identifier: MIT
#include "zelscript_p.h"

#include "zelcommandsplit_p.h"
#include "zelguard_p.h"

#include <QRegularExpression>
#include <algorithm>

namespace {

constexpr int deepest = 256;

/// Null for what opens nothing.
QChar closerOf(QChar opener)
{
    const int kind = QStringLiteral("\"'`([{").indexOf(opener);
    return kind < 0 ? QChar() : QStringLiteral("\"'`)]}").at(kind);
}

bool isQuote(QChar c)
{
    return QStringLiteral("\"'`").contains(c);
}

QRegularExpressionMatch assignmentIn(const QString &line)
{
    ZELCriticalSection section; // the pattern is kept, and locks itself
    static const QRegularExpression pattern(
        QStringLiteral("^(\\$[^\\s=(]+)\\s*=\\s*(\\(.*\\))$"), QRegularExpression::DotMatchesEverythingOption);
    return pattern.match(line);
}

class Parser
{
public:
    Parser(const QString &text, ZELScriptError *error)
        : m_text(text)
        , m_error(error)
    {
    }

    ZELScriptBody script() { return block(false); }
    bool failedAtEnd() const { return m_failedAt >= m_text.size(); }

private:
    using Step = ZELScriptStep;

    // Places and characters.

    bool atEnd() const { return m_at >= m_text.size(); }
    QChar here() const { return atEnd() ? QChar() : m_text.at(m_at); }
    bool fail(int at, const QString &expected)
    {
        if (m_failedAt >= 0)
            return false;
        m_failedAt = at;
        m_error->line = m_text.leftRef(at).count(QLatin1Char('\n')) + 1;
        m_error->column = at == 0 ? 1 : at - m_text.lastIndexOf(QLatin1Char('\n'), at - 1);
        m_error->expected = expected;
        return false;
    }
    int lineNow()
    {
        m_line += m_text.midRef(m_counted, m_at - m_counted).count(QLatin1Char('\n'));
        m_counted = m_at;
        return m_line;
    }
    void skipBlanks()
    {
        while (!atEnd() && here() != QLatin1Char('\n') && here().isSpace())
            ++m_at;
    }
    /// Blanks, line feeds and comments; between statements ";", too.
    void skipLines(bool semicolons)
    {
        while (!atEnd()) {
            if (here() == QLatin1Char('#')) {
                const int end = m_text.indexOf(QLatin1Char('\n'), m_at);
                m_at = end < 0 ? m_text.size() : end;
            } else if (here().isSpace() || (semicolons && here() == QLatin1Char(';'))) {
                ++m_at;
            } else {
                return;
            }
        }
    }
    bool expect(char c)
    {
        skipLines(false);
        if (here() != QLatin1Char(c))
            return fail(m_at, QString(QLatin1Char('\'')) + QLatin1Char(c) + QLatin1Char('\''));
        ++m_at;
        return true;
    }
    QString wordAhead() const
    {
        int end = m_at;
        while (end < m_text.size() && m_text.at(end).isLetter())
            ++end;
        return m_text.mid(m_at, end - m_at);
    }
    bool takeWord(const char *word)
    {
        if (wordAhead() != QLatin1String(word))
            return false;
        m_at += int(qstrlen(word));
        return true;
    }
    QString name()
    {
        skipBlanks();
        const int from = m_at;
        while (!atEnd() && (here().isLetterOrNumber() || QStringLiteral("_$").contains(here())))
            ++m_at;
        return m_text.mid(from, m_at - from);
    }

    /// Behind the end of the group that begins here; nothing, with the error, when it has none.
    bool skipGroup()
    {
        const QChar opener = here(), closer = closerOf(opener);
        const int from = m_at++;
        for (int depth = 1; !atEnd(); ++m_at) {
            if (here() == closer && --depth == 0)
                return ++m_at > from;
            if (here() == opener)
                ++depth;
        }
        return fail(m_at, QLatin1Char('\'') + closer + QLatin1Char('\''));
    }
    /// The text between "(" and the ")" that ends it, where quotes count.
    bool inBrackets(QString *inner, int *at)
    {
        if (!expect('('))
            return false;
        *at = m_at;
        m_semicolons.clear();
        for (int depth = 1; !atEnd(); ++m_at) {
            if (here() == QLatin1Char('('))
                ++depth;
            else if (here() == QLatin1Char(';') && depth == 1)
                m_semicolons += m_at;
            else if (here() == QLatin1Char(')') && --depth == 0)
                break;
            else if (isQuote(here())) {
                if (!skipGroup())
                    return false;
                --m_at;
            }
        }
        *inner = m_text.mid(*at, m_at - *at);
        return expect(')');
    }

    // Blocks and steps.

    ZELScriptBody block(bool inBraces)
    {
        auto found = std::make_shared<ZELScriptBlock>();
        for (;;) {
            skipLines(true);
            if (inBraces && here() == QLatin1Char('}') && ++m_at)
                return found;
            if (atEnd())
                return inBraces && !fail(m_at, QStringLiteral("'}'")) ? nullptr : found;
            Step step;
            step.line = lineNow();
            if (!readStep(step, inBraces))
                return nullptr;
            found->steps.append(step);
        }
    }
    bool readBody(Step &step)
    {
        if (++m_depth > deepest)
            return fail(m_at, QStringLiteral("less nesting"));
        if (!expect('{'))
            return false;
        step.body = block(true);
        --m_depth;
        return step.body != nullptr;
    }
    bool readLoop(Step &step)
    {
        ++m_loops;
        const bool good = readBody(step);
        --m_loops;
        return good;
    }

    bool readStep(Step &step, bool inBraces)
    {
        const QString word = wordAhead();
        if (word == QLatin1String("if") && opens(2))
            return (m_at += 2), readIf(step);
        if (word == QLatin1String("while") && opens(5))
            return (m_at += 5), readWhile(step);
        if (word == QLatin1String("for") && (opens(3) || opens(3, '$')))
            return (m_at += 3), opens(0) ? readFor(step) : readForEach(step);
        const QStringRef blank = m_text.midRef(m_at + 8, 1);
        if (word == QLatin1String("function") && (blank == QLatin1String(" ") || blank == QLatin1String("\t")))
            return (m_at += 8), readFunction(step);
        return readLine(step, inBraces);
    }
    bool opens(int behind, char c = '(') const
    {
        int at = m_at + behind;
        while (at < m_text.size() && m_text.at(at).isSpace())
            ++at;
        return at < m_text.size() && m_text.at(at) == QLatin1Char(c);
    }

    bool readIf(Step &step)
    {
        step.kind = Step::If;
        if (!readCondition(step.value) || !readBody(step))
            return false;
        const int back = m_at;
        skipLines(false);
        if (takeWord("elseif"))
            return readElseIf(step);
        if (takeWord("else")) {
            Step other;
            if (!readBody(other))
                return false;
            step.otherwise = other.body;
        } else {
            m_at = back;
        }
        return true;
    }
    bool readElseIf(Step &step)
    {
        Step other;
        other.line = lineNow();
        if (++m_depth > deepest)
            return fail(m_at, QStringLiteral("less nesting"));
        if (!readIf(other))
            return false;
        --m_depth;
        step.otherwise = std::make_shared<ZELScriptBlock>(ZELScriptBlock{{other}});
        return true;
    }
    bool readWhile(Step &step)
    {
        step.kind = Step::While;
        return readCondition(step.value) && readLoop(step);
    }
    bool readFor(Step &step)
    {
        QString header;
        int at = 0;
        if (!inBrackets(&header, &at))
            return false;
        if (m_semicolons.size() != 2)
            return fail(at, QStringLiteral("'START; CONDITION; STEP'"));
        const int second = m_semicolons.at(0) + 1, third = m_semicolons.at(1) + 1;
        Step loop = step, start = step;
        loop.kind = Step::While;
        auto behind = std::make_shared<Step>(step);
        if (!readSmall(m_text.mid(at, second - 1 - at), at, start)
            || !setCondition(m_text.mid(second, third - 1 - second), second, loop.value)
            || !readSmall(header.mid(third - at), third, *behind))
            return false;
        loop.behind = behind;
        if (!readLoop(loop))
            return false;
        step.kind = Step::Block;
        step.body = std::make_shared<ZELScriptBlock>(ZELScriptBlock{{start, loop}});
        return true;
    }
    bool readForEach(Step &step)
    {
        step.kind = Step::ForEach;
        step.name = name();
        skipBlanks();
        if (step.name.size() < 2 || !takeWord("in"))
            return fail(m_at, QStringLiteral("'$NAME in (WORDS)'"));
        QString words;
        int at = 0;
        if (!inBrackets(&words, &at))
            return false;
        step.words = zelSplitCommandLine(words, true, true);
        return readLoop(step);
    }
    bool readFunction(Step &step)
    {
        step.kind = Step::Function;
        const int at = m_at;
        step.name = name();
        if (step.name.isEmpty() || step.name.contains(QLatin1Char('$')))
            return fail(at, QStringLiteral("a name"));
        QString parameters;
        int from = 0;
        if (!inBrackets(&parameters, &from))
            return false;
        step.words = zelSplitCommandLine(parameters, true, true);
        for (const QString &word : qAsConst(step.words))
            if (word.size() < 2 || !word.startsWith(QLatin1Char('$')))
                return fail(from, QStringLiteral("'$NAME' for each parameter"));
        const int loops = std::exchange(m_loops, 0);
        const bool good = readBody(step);
        m_loops = loops;
        return good;
    }

    // Lines.

    bool readLine(Step &step, bool inBraces)
    {
        const int from = m_at;
        for (; !atEnd() && here() != QLatin1Char('\n') && here() != QLatin1Char(';'); ++m_at) {
            if (inBraces && here() == QLatin1Char('}'))
                break;
            if (closerOf(here()).isNull())
                continue;
            if (!skipGroup())
                return false;
            --m_at;
        }
        return setStatement(m_text.mid(from, m_at - from), from, step);
    }
    bool setStatement(const QString &text, int at, Step &step)
    {
        const QString line = text.trimmed();
        const bool isBreak = line == QLatin1String("break"), isContinue = line == QLatin1String("continue");
        if ((isBreak || isContinue) && m_loops == 0)
            return fail(at, QStringLiteral("a loop around '") + line + QLatin1Char('\''));
        step.value.statement = line;
        if (isBreak || isContinue)
            step.kind = isBreak ? Step::Break : Step::Continue;
        else if (line == QLatin1String("return") || line.startsWith(QLatin1String("return ")))
            setReturn(line.mid(6).trimmed(), step);
        else if (line.startsWith(QLatin1String("onerror ")))
            return setOnError(line.mid(8).trimmed(), at, step);
        else
            return setAssignment(line, at, step);
        return true;
    }
    static ZELScriptExpression::Pointer expressionOf(const QString &text)
    {
        int offset = 0;
        QString expected;
        return ZELScriptExpression::parse(text, &offset, &expected);
    }
    static bool beginsExpression(const QString &text, const char *signs)
    {
        const QString begin = text.trimmed().left(1);
        return !begin.isEmpty() && (begin.at(0).isDigit() || QLatin1String(signs).contains(begin));
    }
    static void setReturn(const QString &text, Step &step)
    {
        step.kind = Step::Return;
        step.value = {text.isEmpty() ? nullptr : expressionOf(text), text};
    }
    bool setOnError(const QString &what, int at, Step &step)
    {
        step.kind = Step::OnError;
        step.name = what;
        const bool good = what == QLatin1String("continue") || what == QLatin1String("stop");
        return good || fail(at, QStringLiteral("'onerror continue' or 'onerror stop'"));
    }
    /// "$x = (EXPRESSION)"; what else stands behind "=" is as it would be typed.
    bool setAssignment(const QString &line, int at, Step &step)
    {
        const auto match = assignmentIn(line);
        if (!match.hasMatch())
            return true;
        const QString text = match.captured(2);
        step.value.expression = expressionOf(text);
        if (!step.value.expression)
            return !beginsExpression(text.mid(1), "\"'(!-$")
                || setExpression(text, at + match.capturedStart(2), step.value);
        step.kind = Step::Assign;
        step.name = match.captured(1);
        return true;
    }
    /// What stands in the head of a "for": nothing, or an assignment whose value needs no brackets.
    bool readSmall(const QString &text, int at, Step &step)
    {
        const int equals = text.indexOf(QLatin1Char('='));
        if (text.trimmed().isEmpty()) {
            step.kind = Step::Block;
            step.body = std::make_shared<ZELScriptBlock>();
            return true;
        }
        step.name = text.left(equals).trimmed();
        if (equals < 0 || step.name.size() < 2 || !step.name.startsWith(QLatin1Char('$')))
            return fail(at, QStringLiteral("'$NAME = VALUE'"));
        step.kind = Step::Assign;
        return setExpression(text.mid(equals + 1), at + equals + 1, step.value);
    }
    bool setExpression(const QString &text, int at, ZELScriptValue &value)
    {
        int offset = 0;
        QString expected;
        value.expression = ZELScriptExpression::parse(text, &offset, &expected);
        return value.expression || fail(at + offset, expected);
    }
    bool readCondition(ZELScriptValue &value)
    {
        QString text;
        int at = 0;
        return inBrackets(&text, &at) && setCondition(text, at, value);
    }
    /// What begins as an expression has to be one; a variable may also stand for a command.
    bool setCondition(const QString &text, int at, ZELScriptValue &value)
    {
        value.statement = text.trimmed();
        if (value.statement.isEmpty())
            return fail(at, QStringLiteral("a condition"));
        value.expression = expressionOf(text);
        if (value.expression || !beginsExpression(text, "\"'(!-"))
            return true;
        return setExpression(text, at, value);
    }

    const QString &m_text;
    ZELScriptError *const m_error;
    int m_at = 0;
    int m_failedAt = -1;
    int m_counted = 0; ///< up to where the line feeds were counted
    int m_line = 1;
    int m_depth = 0;
    int m_loops = 0;
    QVector<int> m_semicolons; ///< of the brackets that were read last, outside of inner ones
};

} // namespace

ZELScriptBody zelParseScript(const QString &text, ZELScriptError *error)
{
    return Parser(text, error).script();
}

bool zelBeginsScriptBlock(const QString &text)
{
    ZELCriticalSection section; // the pattern is kept, and locks itself
    static const QRegularExpression head(
        QStringLiteral("^\\s*(if\\s*\\(|while\\s*\\(|for\\s*[($]|function\\s+\\w+\\s*\\()"));
    return head.match(text).hasMatch();
}

bool zelIsOpenScript(const QString &text)
{
    ZELScriptError error;
    Parser parser(text, &error);
    return !parser.script() && parser.failedAtEnd();
}
