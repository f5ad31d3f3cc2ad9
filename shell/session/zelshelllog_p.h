// SPDX-License-Identifier: MIT
#ifndef ZELSHELLLOG_P_H
#define ZELSHELLLOG_P_H

#include <QString>
#include <QStringList>

// What of a peer's text goes to the log, as functions of the text alone; any thread.

/// The text with control characters spelled out: a log is read on terminals, and line by line.
QString zelHarmless(const QString &text);

/// What a log line shows of a statement or a handshake: its beginning, when it is long.
QString zelLogged(const QString &text);

/// Whether a line looks as if it had a password in it.
bool zelBearsPassword(const QString &line);
/// The same line up to where that would stand.
QString zelWithoutPassword(const QString &line);
/// The words of a handshake; a password may have become several of them.
QString zelWithoutPassword(QStringList words);

#endif
