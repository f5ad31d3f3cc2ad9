// SPDX-License-Identifier: MIT
#ifndef USERCOMMANDS_H
#define USERCOMMANDS_H

#include <QObject>
#include <QSqlDatabase>
#include <QVariant>
#include <zelarguments.h>

class CommandBook;

/**
 * Who is here: system/whoami, system/users, system/passwd and system/adduser, over the accounts of one database.
 *
 * The database is opened by the main thread; ZELUser sees to it that the sessions' threads do not touch that
 * connection.
 */
class UserCommands : public QObject
{
    Q_OBJECT
public:
    UserCommands(CommandBook &book, const QSqlDatabase &database, QObject *parent = nullptr);

    /// Opens the SQLite file, which is made when missing; invalid, with a line on standard error, when that fails.
    static QSqlDatabase open(const QString &file);

public Q_SLOTS:
    QVariant whoami(ZELArguments args);
    QVariant users(ZELArguments args);
    QVariant passwd(ZELArguments args);
    QVariant adduser(ZELArguments args);

private:
    QSqlDatabase m_database;
};

#endif
