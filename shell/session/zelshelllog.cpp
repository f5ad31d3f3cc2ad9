// SPDX-License-Identifier: MIT
#include "zelshelllog_p.h"

#include "zelguard_p.h"

#include <QRegularExpression>
#include <algorithm>

namespace {

const QString hidden = QStringLiteral("***");

bool isControl(QChar c)
{
    return c.category() == QChar::Other_Control || c == QChar::LineSeparator || c == QChar::ParagraphSeparator;
}

/// The words that a password stands behind.
QRegularExpressionMatch secretIn(const QString &line)
{
    ZELCriticalSection section; // the pattern is kept, and locks itself
    static const QRegularExpression secret(QStringLiteral("--?pass(word|wd)?\\b|\\b(passwd|adduser|password)\\b"),
        QRegularExpression::CaseInsensitiveOption);
    return secret.match(line);
}

bool isHandshakeOption(const QString &word)
{
    const QStringList options = {QStringLiteral("--nt"), QStringLiteral("--user"), QStringLiteral("--key"),
        QStringLiteral("--columns"), QStringLiteral("--rows")};
    return options.contains(word);
}

} // namespace

QString zelHarmless(const QString &text)
{
    if (std::none_of(text.cbegin(), text.cend(), isControl))
        return text;
    QString result;
    for (const QChar c : text) {
        if (isControl(c))
            result += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
        else
            result += c;
    }
    return result;
}

QString zelLogged(const QString &text)
{
    const int longest = 500;
    return text.size() <= longest ? text : text.left(longest) + QLatin1String("...");
}

bool zelBearsPassword(const QString &line)
{
    return secretIn(line).hasMatch();
}

QString zelWithoutPassword(const QString &line)
{
    const int end = secretIn(line).capturedEnd();
    return end < 0 || end == line.size() ? line : line.left(end) + QLatin1Char(' ') + hidden;
}

QString zelWithoutPassword(QStringList words)
{
    bool inPassword = false;
    for (QString &word : words) {
        const bool begins = word == QLatin1String("--password");
        if (begins || isHandshakeOption(word))
            inPassword = begins;
        else if (inPassword && word != QLatin1String("=")) // somebody's mistake
            word = hidden;
    }
    return words.join(QLatin1Char(' '));
}
