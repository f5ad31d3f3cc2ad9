// SPDX-License-Identifier: MIT
#ifndef ZELCOMMANDSPLIT_P_H
#define ZELCOMMANDSPLIT_P_H

#include <QStringList>

/// The words of a line, as ZELArguments::CommandSplit() describes them. Linear in the length of the line.
QStringList zelSplitCommandLine(const QString &line, bool keepQuote, bool dropEmptyQuoted);

/// Whether a quote or bracket of the text is still open at its end.
bool zelIsOpenText(const QString &text);

#endif
