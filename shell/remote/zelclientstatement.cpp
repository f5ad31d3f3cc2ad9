// SPDX-License-Identifier: MIT
#include "zelarguments.h"
#include "zelclientstatement_p.h"

#include <QStringList>
#include <algorithm>

namespace {

const QString tag = QStringLiteral("UFJPVE9DT0w9WkVMX1NIRUxM");

bool isLiteral(const QString &word)
{
    bool isNumber = false;
    word.toDouble(&isNumber);
    return isNumber || QStringLiteral("\"'`([{").contains(word.at(0));
}

QString refusalOf(const QString &line)
{
    if (line.isEmpty())
        return QStringLiteral("empty statement");
    const auto separates = [](QChar c) { return c == QLatin1Char('\n') || c == QLatin1Char(';') || c.isNull(); };
    if (std::any_of(line.begin(), line.end(), separates))
        return QStringLiteral("more than one statement");
    // An open quote would take the mark for packets into its text, and the answer would never be recognised.
    const QStringList words = ZELArguments::CommandSplit(line + QLatin1Char(' ') + tag, true, true);
    if (words.size() < 2)
        return QStringLiteral("no command");
    return words.last() == tag ? QString() : QStringLiteral("unfinished quote or bracket");
}

void number(ZELClientStatement &statement, const QString &word, int from, quint64 number)
{
    const int at = statement.line.indexOf(word, from);
    if (word.contains(QLatin1Char('#'))) {
        statement.key = word.section(QLatin1Char('#'), 0, 1);
        statement.numbered = true;
    } else if (at >= 0 && !isLiteral(word) && !word.startsWith(QLatin1Char('$'))) {
        const QString mark = QLatin1Char('#') + QString::number(number);
        statement.line.insert(at + word.size(), mark);
        statement.key = word + mark;
        statement.numbered = true;
    }
}

/// The text between some pair that it does not hold itself; the host has no escape character.
QString quoted(const QString &text)
{
    static const char *const pairs[] = {"\"\"", "''", "()", "[]", "{}"};
    for (const char *pair : pairs) {
        const QLatin1Char open(pair[0]), close(pair[1]);
        if (!text.contains(open) && !text.contains(close))
            return open + text + close;
    }
    return {};
}

} // namespace

ZELClientStatement zelNumberStatement(const QString &text, quint64 n)
{
    ZELClientStatement result;
    QString line = text.trimmed();
    // The host ignores a tab in a line that is not edited; the words would grow together.
    line.replace(QLatin1Char('\t'), QLatin1Char(' ')).remove(QLatin1Char('\r'));
    if (line.endsWith(QLatin1Char('&'))) {
        result.background = true;
        line = line.chopped(1).trimmed();
    }
    result.refusal = refusalOf(line);
    if (!result.refusal.isEmpty())
        return result;
    result.line = line;
    const QStringList words = ZELArguments::CommandSplit(line, true, true);
    const bool isAssignment = words.size() > 2 && words[1] == QLatin1String("=");
    if (!words[0].startsWith(QLatin1Char('$')))
        number(result, words[0], 0, n);
    else if (isAssignment)
        number(result, words[2], line.indexOf(QLatin1Char('=')) + 1, n);
    else if (words.size() == 1)
        result.key = words[0];
    return result;
}

QByteArray zelTaggedLine(const QString &line, bool background)
{
    return (line + QLatin1Char(' ') + tag + (background ? QStringLiteral(" &\n") : QStringLiteral("\n"))).toUtf8();
}

QByteArray zelHandshakeLine(const QString &user, const QString &password, const QString &key, int columns)
{
    QString line = columns < 0 ? QStringLiteral("--nt") : QString();
    const auto add = [&line](const QString &option, const QString &value) {
        if (!value.isEmpty())
            line += QLatin1Char(' ') + option + QLatin1Char(' ') + value;
    };
    const QString name = quoted(user), word = quoted(password);
    if (name.isEmpty() || word.isEmpty() || (user + password).contains(QLatin1Char('\n')))
        return {};
    if (columns > 0)
        add(QStringLiteral("--columns"), QString::number(columns));
    add(QStringLiteral("--user"), user.isEmpty() ? user : name);
    add(QStringLiteral("--password"), password.isEmpty() ? password : word);
    add(QStringLiteral("--key"), key);
    return line.toUtf8() + '\n';
}
