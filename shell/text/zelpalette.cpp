// SPDX-License-Identifier: MIT
#include "zelpalette.h"

#include <QByteArray>

bool ZELPalette::isOn()
{
    return qgetenv("NO_COLOR").isEmpty() && qgetenv("TERM") != "dumb";
}

QString ZELPalette::paint(Colour colour, const QString &text)
{
    if (!isOn() || text.isEmpty())
        return text;
    return QStringLiteral("\033[%1m").arg(int(colour)) + text + QLatin1String("\033[0m");
}
