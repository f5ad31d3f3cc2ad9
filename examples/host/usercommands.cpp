// SPDX-License-Identifier: MIT
#include "usercommands.h"

#include "arguments.h"
#include "commandbook.h"

#include <QDateTime>
#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>
#include <cstdio>
#include <zelshellbase.h>
#include <zeluser.h>

UserCommands::UserCommands(CommandBook &book, const QSqlDatabase &database, QObject *parent)
    : QObject(parent)
    , m_database(database)
{
    const auto shared = CommandBook::Shared;
    book.add("system/whoami", "the user of this session", this, SLOT(whoami(ZELArguments)), shared);
    book.add("system/users", "who is logged in, and since when", this, SLOT(users(ZELArguments)), shared);
    book.add("system/passwd OLD NEW", "changes your password", this, SLOT(passwd(ZELArguments)), shared);
    book.add(
        "system/adduser NAME PASSWORD", "makes an account (terminal only)", this, SLOT(adduser(ZELArguments)), shared);
}

QSqlDatabase UserCommands::open(const QString &file)
{
    QSqlDatabase database = QSqlDatabase::addDatabase("QSQLITE");
    database.setDatabaseName(file);
    const bool isOpen = database.open();
    QSqlQuery query(database);
    // Opening does not look into the file yet.
    if (isOpen && query.exec("select count(*) from sqlite_master"))
        return database;
    const QSqlError error = isOpen ? query.lastError() : database.lastError();
    std::fprintf(stderr, "zelhost: %s: %s\n", qPrintable(file), qPrintable(error.databaseText()));
    return {};
}

static const QString accountExists = "there is an account of that name";

static QString reasonOf(ZELUser &user)
{
    const QString error = user.getErrorString();
    if (error == "Error : password error" || error == "Error : User is logined by another device")
        return accountExists;
    return error == "Error : sql exec error" ? "that cannot be stored" : error;
}

QVariant UserCommands::whoami(ZELArguments args)
{
    if (!takes(args, 0, 0))
        return {};
    const ZELUser user = ZELUser::getUser(args.getUuid());
    print(args, user.isLogin() ? user.userName() : QStringLiteral("nobody has logged in here"));
    return {};
}

/// Names are whatever somebody logged in as; an escape sequence must not reach the terminal of another.
static QString harmless(QString name)
{
    for (QChar &c : name)
        c = c.isPrint() || c.isSurrogate() ? c : QLatin1Char('?');
    return name;
}

QVariant UserCommands::users(ZELArguments args)
{
    if (!takes(args, 0, 0))
        return {};
    QStringList lines;
    for (const ZELUser &user : ZELUser::loggedIn()) {
        const QDateTime since = ZELUser::getLastLoginTime(user);
        lines += harmless(user.userName()).leftJustified(20) + "  "
            + (since.isValid() ? since.toString("yyyy-MM-dd hh:mm:ss") : "-");
    }
    print(args, lines.isEmpty() ? QStringLiteral("nobody is logged in") : lines.join("\r\n"));
    return {};
}

QVariant UserCommands::passwd(ZELArguments args)
{
    if (!takes(args, 2, 2))
        return {};
    ZELUser user = ZELUser::getUser(args.getUuid());
    if (!user.isLogin())
        return refuse(args, "system/passwd: nobody has logged in here");
    if (user.password() != unquoted(args[1]))
        return refuse(args, "system/passwd: the old password is another one");
    if (!user.setPassword(unquoted(args[2])))
        return refuse(args, "system/passwd: " + reasonOf(user));
    print(args, "password changed");
    return {};
}

QVariant UserCommands::adduser(ZELArguments args)
{
    if (!takes(args, 2, 2))
        return {};
    auto *session = qobject_cast<ZELShellBase *>(args.Sender());
    if (!session || !session->IsMain())
        return refuse(args, "system/adduser: only on the board's terminal");
    const QString name = unquoted(args[1]), password = unquoted(args[2]);
    ZELUser known = ZELUser::loginAs(name, password, m_database, QUuid(), false);
    const bool exists = known.isLogin();
    known.autologout();
    // The first login of a name makes its account.
    ZELUser user = exists ? ZELUser() : ZELUser(name, password, m_database);
    if (!user.isLogin())
        return refuse(args, "system/adduser: " + (exists ? accountExists : reasonOf(user)));
    user.autologout();
    print(args, "account of " + user.userName() + " made");
    return {};
}
