// SPDX-License-Identifier: MIT
#include "arguments.h"

#include <QLocale>

void print(const ZELArguments &args, const QString &text)
{
    args.debug().noquote() << text;
}

QVariant refuse(ZELArguments &args, const QString &why)
{
    args.setProtoclState("EXECUTE_ERROR");
    args.setErrorString(why);
    return {};
}

static QString argumentCount(int least, int most)
{
    if (most == 0)
        return "no arguments";
    const QString range = least == most ? QString::number(most)
        : most == INT_MAX               ? QStringLiteral("at least %1").arg(least)
                                        : QStringLiteral("%1 to %2").arg(least).arg(most);
    return range + (least == 1 && (most == 1 || most == INT_MAX) ? " argument" : " arguments");
}

bool takes(ZELArguments &args, int least, int most)
{
    const int given = args.ArgumentsLength();
    if (given >= least && given <= most)
        return true;
    const QString name = args.getExecName();
    refuse(args,
        QStringLiteral("%1: takes %2, not %3; '%1 -h' tells more").arg(name, argumentCount(least, most)).arg(given));
    return false;
}

bool takesNumber(ZELArguments &args, int index, const char *name, int least, int most, int *value)
{
    bool ok = false;
    *value = unquoted(args[index]).toInt(&ok);
    if (ok && *value >= least && *value <= most)
        return true;
    refuse(args,
        QStringLiteral("%1: %2 must be a whole number from %3 to %4, not %5")
            .arg(args.getExecName(), name)
            .arg(least)
            .arg(most)
            .arg(args[index]));
    return false;
}

QString unquoted(const QString &token)
{
    const bool quoted
        = token.size() >= 2 && token.front() == token.back() && (token.front() == '"' || token.front() == '\'');
    return quoted ? token.mid(1, token.size() - 2) : token;
}

QString inBytes(qint64 bytes)
{
    return QLocale::c().formattedDataSize(bytes, 1);
}
