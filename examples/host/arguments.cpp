// SPDX-License-Identifier: MIT
#include "arguments.h"

#include <QLocale>

void print(const ZELArguments &args, const QString &text)
{
    args.debug().noquote() << text;
}

void refuse(const ZELArguments &args, const QString &why)
{
    args.setProtoclState("EXECUTE_ERROR");
    args.setErrorString(why);
}

QString inBytes(qint64 bytes)
{
    return QLocale::c().formattedDataSize(bytes, 1);
}
