// SPDX-License-Identifier: MIT
#ifndef FAMILIES_H
#define FAMILIES_H

#include <QSqlDatabase>

class ZELShellServer;

/*
 * The families of commands, a directory each, beside this file. A function of each registers its commands; these say
 * what may be typed, and make help, completion and errors of it.
 */

void addSystemCommands(ZELShellServer &server); ///< how the board is doing, read from the kernel when asked
void addNetworkCommands(ZELShellServer &server); ///< the interfaces of the board and their addresses
void addStorageCommands(ZELShellServer &server); ///< what is mounted and how full it is
void addTextCommands(ZELShellServer &server); ///< the smallest commands there are
void addLogCommands(ZELShellServer &server); ///< writes on every output channel that a command has
void addJobCommands(ZELShellServer &server); ///< take their time, for background runs, kills and time limits
/// Everything that can go wrong inside a command. Each ends as an error of its own execution; the host and the other
/// sessions live on. None owns anything on its stack where it is abandoned, since no destructor runs on that way.
void addFaultCommands(ZELShellServer &server);
/// Who is here, over the accounts of the database. ZELUser sees to it that the sessions' threads do not touch that
/// connection.
void addUserCommands(ZELShellServer &server, const QSqlDatabase &database);

/// Opens the SQLite file, which is made when missing; invalid, with a line on standard error, when that fails.
QSqlDatabase openUsers(const QString &file);

#endif
