// SPDX-License-Identifier: MIT
#ifndef ZELCOMMANDHELP_P_H
#define ZELCOMMANDHELP_P_H

#include "zelshellcommandtree_p.h"

#include <QJsonObject>
#include <QString>

// What a tree says of itself: texts with "\r\n" between their lines, none behind the last, and JSON for programs. The
// nodes are held by the caller; any thread.

/// "board/pump/start": what is typed from the main root, without "Main" or "Sys".
QString zelTypedPath(ZELShellCommandTree *node);

/// "Usage: board/pump/start number [speed]".
QString zelUsageLine(ZELShellCommandTree *node);

/// A command's usage, what it does, its arguments and options.
QString zelCommandHelp(ZELShellCommandTree *node);

/// A directory's summary, its directories and its commands by their groups, as far as the audience may see them.
QString zelDirectoryHelp(ZELShellCommandTree *node, const ZELCommandAudience &audience);

/// {"commands": [...], "directories": [...]} of a command, or of everything below a directory.
QJsonObject zelHelpJson(const QVector<ZELShellCommandTree *> &nodes, const ZELCommandAudience &audience);

#endif
