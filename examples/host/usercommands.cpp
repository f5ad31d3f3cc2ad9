// SPDX-License-Identifier: MIT
#include "arguments.h"
#include "families.h"

#include <QDateTime>
#include <QFile>
#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zelshellserver.h>
#include <zeluser.h>
#include <zeluserroles.h>

/// The passwords in it are nobody else's to read, whatever the process lets others read.
static void keepToOwner(const QString &file)
{
    const int descriptor = open(QFile::encodeName(file).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0)
        return;
    fchmod(descriptor, 0600);
    close(descriptor);
}

QSqlDatabase openUsers(const QString &file)
{
    if (!file.startsWith(':'))
        keepToOwner(file);
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

static void whoami(const ZELArguments &args)
{
    const ZELUser user = ZELUser::getUser(args.getUuid());
    print(args, user.isLogin() ? user.userName() : QStringLiteral("nobody has logged in here"));
}

/// Names are whatever somebody logged in as; an escape sequence must not reach the terminal of another.
static QString harmless(QString name)
{
    for (QChar &c : name)
        c = c.isPrint() || c.isSurrogate() ? c : QLatin1Char('?');
    return name;
}

static void users(const ZELArguments &args)
{
    QStringList lines;
    for (const ZELUser &user : ZELUser::loggedIn()) {
        const QDateTime since = ZELUser::getLastLoginTime(user);
        lines += harmless(user.userName()).leftJustified(20) + "  "
            + (since.isValid() ? since.toString("yyyy-MM-dd hh:mm:ss") : "-");
    }
    print(args, lines.isEmpty() ? QStringLiteral("nobody is logged in") : lines.join("\r\n"));
}

static void passwd(const ZELArguments &args, const QString &before, const QString &password)
{
    ZELUser user = ZELUser::getUser(args.getUuid());
    if (!user.isLogin())
        return refuse(args, "system/passwd: nobody has logged in here");
    if (user.password() != before)
        return refuse(args, "system/passwd: the old password is another one");
    if (!user.setPassword(password))
        return refuse(args, "system/passwd: " + reasonOf(user));
    print(args, "password changed");
}

/// Who logs in by hand types it without quotes: what is not one word then would be another name.
static bool isOneWord(const QString &text)
{
    return ZELArguments::CommandSplit(text, true, true) == QStringList(text);
}

static void adduser(
    const ZELArguments &args, const QSqlDatabase &database, const QString &name, const QString &password)
{
    if (!isOneWord(name) || !isOneWord(password))
        return refuse(args,
            "system/adduser: a name and a password are one word each, of ASCII letters, digits and signs, without "
            "= , ; quotes and brackets");
    ZELUser known = ZELUser::loginAs(name, password, database, QUuid(), false);
    const bool exists = known.isLogin();
    known.autologout();
    // The first login of a name makes its account.
    ZELUser user = exists ? ZELUser() : ZELUser(name, password, database);
    if (!user.isLogin())
        return refuse(args, "system/adduser: " + (exists ? accountExists : reasonOf(user)));
    user.autologout();
    print(args, "account of " + user.userName() + " made");
}

static void roles(const ZELArguments &args, const QSqlDatabase &database, const QString &name, const QStringList &roles)
{
    if (!roles.isEmpty() && !ZELUserRoles::setRoles(database, name, roles))
        return refuse(args, "system/roles: that cannot be stored");
    print(args, harmless(name) + ": " + harmless(ZELUserRoles::roles(database, name).join(' ')));
}

void addUserCommands(ZELShellServer &server, const QSqlDatabase &database)
{
    server.command("system", "whoami", whoami).multiRun().help("the user of this session");
    server.command("system", "users", users).multiRun().help("who is logged in, and since when");
    server.command("system", "passwd", passwd).multiRun().help("changes your password").argument("old").argument("new");
    server
        .command("system", "adduser",
            [database](const ZELArguments &args, const QString &name, const QString &password) {
                adduser(args, database, name, password);
            })
        .multiRun()
        .role("admin")
        .help("makes an account")
        .argument("name")
        .argument("password");
    server
        .command("system", "roles",
            [database](const ZELArguments &args, const QString &name, const QStringList &names) {
                roles(args, database, name, names);
            })
        .multiRun()
        .role("admin")
        .help("tells or sets a user's roles, from the next login on")
        .argument("user")
        .argument("role");
}
