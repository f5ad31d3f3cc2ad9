// SPDX-License-Identifier: MIT
#include "zeluser.h"
#include "zelguard_p.h"
#include "zeluseraccess_p.h"

#include <QDebug>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <algorithm>
#include <mutex>

namespace {

struct Registry
{
    std::mutex state; ///< guards the list and the fields of all records; never held during a statement
    QList<ZELUser> users;
};

// Never destroyed: users may log out from destructors that run after main().
Registry &registry()
{
    static auto *all = new Registry;
    return *all;
}

void debugLine(const QString &line, const QSqlQuery &query)
{
    qDebug().noquote() << line << query.lastError().text();
}

const QString sqlExecError = QStringLiteral("Error : sql exec error");
const QString timeFormat = QStringLiteral("yyyy-MM-dd hh:mm:ss");

} // namespace

class ZELUserPrivate : public QSharedData
{
public:
    QString userName;
    QString password;
    QUuid uid;
    QUuid tid;
    QString errorString;
    QSqlDatabase db;
    bool isLogin = false;
    int autoLoginCount = 1;

    bool fail(const QString &error);
    bool failLoudly(const QString &error);
    void open(const QString &name, const QString &pass, const QSqlDatabase &database, bool mayCreate, const QUuid &id);
    bool createUserTable(const ZELUserAccess &access);
    bool login(const ZELUserAccess &access, bool mayCreate);
    bool checkAccount(const QString &storedPassword);
    bool createAccount(const ZELUserAccess &access, bool mayCreate);
    bool select(const ZELUserAccess &access, const QString &columns, QVariantList &row);
    bool enter(const ZELUserAccess &access, const QUuid &id);
    void takeTerminalId(const ZELUserAccess &access, const QUuid &id);
    void updateLoginInfo(const ZELUserAccess &access);
    void updateList();
    bool createHistory(const ZELUserAccess &access);
    void appendToHistory(const ZELUserAccess &access);
    QDateTime lastTime(const QString &isLogin, const QString &error);

    QString table() const { return userName + QStringLiteral("_LoginInfo"); }
    template <class T>
    void set(T ZELUserPrivate::*field, const T &value)
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(registry().state);
        this->*field = value;
    }
    template <class T>
    T get(T ZELUserPrivate::*field) const
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(registry().state);
        return this->*field;
    }
    /// For use under the state lock.
    template <class Condition>
    static ZELUser find(Condition &&condition);
};

bool ZELUserPrivate::fail(const QString &error)
{
    set(&ZELUserPrivate::errorString, error);
    return false;
}

bool ZELUserPrivate::failLoudly(const QString &error)
{
    qDebug().noquote() << error;
    return fail(error);
}

void ZELUserPrivate::open(
    const QString &name, const QString &pass, const QSqlDatabase &database, bool mayCreate, const QUuid &id)
{
    if (name.isEmpty())
        return;
    userName = name.simplified();
    password = pass;
    db = database;
    if (!db.isOpen())
        return;
    const ZELUserAccess access(db);
    if (!createUserTable(access))
        return;
    if (ZELUser::getUserByName(userName).isLogin()) {
        qDebug("Error : User is login by another device");
        fail(QStringLiteral("Error : User is logined by another device"));
        return;
    }
    if (login(access, mayCreate) && !id.isNull())
        takeTerminalId(access, id);
}

bool ZELUserPrivate::createUserTable(const ZELUserAccess &access)
{
    QSqlQuery query = access.query();
    if (query.exec(QStringLiteral("create table if not exists ZELUser([Id] integer PRIMARY KEY autoincrement,"
                                  "[Uid] GUID,[UserName] text,[Password] text)")))
        return true;
    debugLine(QStringLiteral("Error : Failed to creat table 'ZELUser'"), query);
    return fail(QStringLiteral("Error : Failed to creat table 'ZELUser' "));
}

bool ZELUserPrivate::login(const ZELUserAccess &access, bool mayCreate)
{
    fail(QString());
    if (get(&ZELUserPrivate::isLogin))
        return false;
    if (userName.isEmpty())
        return failLoudly(QStringLiteral("Error : user name error"));
    QVariantList row;
    if (!select(access, QStringLiteral("count(*)"), row))
        return false;
    if (row.first().toInt() == 0)
        return createAccount(access, mayCreate);
    if (!select(access, QStringLiteral("*"), row) || !checkAccount(row.value(3).toString()))
        return false;
    return enter(access, row.value(1).toUuid());
}

// The query must not outlive this: while it reads, a write of this connection fails at once when another process
// writes, instead of waiting for its turn.
bool ZELUserPrivate::select(const ZELUserAccess &access, const QString &columns, QVariantList &row)
{
    const QString statement = QStringLiteral("select %1 from ZELUser where [UserName] == '%2'");
    QSqlQuery query = access.query();
    if (zelFitsStatement(userName) && query.exec(statement.arg(columns, userName)) && query.next()) {
        row.clear();
        for (int column = 0; column < query.record().count(); ++column)
            row += query.value(column);
        return true;
    }
    debugLine(QStringLiteral("Error : Failed to select data from 'ZELUser'"), query);
    return fail(sqlExecError);
}

bool ZELUserPrivate::checkAccount(const QString &storedPassword)
{
    if (storedPassword == get(&ZELUserPrivate::password))
        return true;
    return failLoudly(QStringLiteral("Error : password error"));
}

bool ZELUserPrivate::createAccount(const ZELUserAccess &access, bool mayCreate)
{
    if (!mayCreate)
        return failLoudly(QStringLiteral("Error : user name error"));
    const QUuid id = QUuid::createUuid();
    const QString pass = get(&ZELUserPrivate::password);
    const QString statement = QStringLiteral("insert into ZELUser([Uid],[UserName],[Password]) values('%1','%2','%3')");
    QSqlQuery query = access.query();
    if (zelFitsStatement(pass) && query.exec(statement.arg(id.toString(), userName, pass)))
        return enter(access, id);
    debugLine(QStringLiteral("Error : Failed to create data from 'ZELUser'"), query);
    return fail(sqlExecError);
}

bool ZELUserPrivate::enter(const ZELUserAccess &access, const QUuid &id)
{
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(registry().state);
        uid = id;
        isLogin = true;
        // Without a holder left from an earlier login, autologout() would count past its end.
        autoLoginCount = std::max(autoLoginCount, 1);
    }
    updateLoginInfo(access);
    return true;
}

// Not the id of another login or account: whoever asks for the user of that id would be given this one.
void ZELUserPrivate::takeTerminalId(const ZELUserAccess &access, const QUuid &id)
{
    // However the host that made the row wrote it: in capitals, without braces.
    const QString statement
        = QStringLiteral("select count(*) from ZELUser where [Uid] like '%%1%' and [UserName] != '%2'");
    QSqlQuery query = access.query();
    const bool isFree = query.exec(statement.arg(id.toString(QUuid::WithoutBraces), userName)) && query.next()
        && query.value(0).toInt() == 0;
    if (isFree && !ZELUser::getUser(id).isLogin())
        set(&ZELUserPrivate::tid, id);
}

void ZELUserPrivate::updateLoginInfo(const ZELUserAccess &access)
{
    updateList();
    if (createHistory(access))
        appendToHistory(access);
}

void ZELUserPrivate::updateList()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(registry().state);
    QList<ZELUser> &users = registry().users;
    const auto mine = std::find_if(users.begin(), users.end(), [this](const ZELUser &user) { return user.d == this; });
    if (isLogin && mine == users.end())
        users.append(ZELUser(this));
    else if (!isLogin && mine != users.end())
        users.erase(mine);
}

bool ZELUserPrivate::createHistory(const ZELUserAccess &access)
{
    QSqlQuery query = access.query();
    const QString create = QStringLiteral("create table if not exists %1([Id] integer PRIMARY KEY autoincrement,"
                                          "[Time] DATETIME,[IsLogin] BOOLEAN)");
    if (!zelFitsTableName(userName) || !query.exec(create.arg(table()))) {
        debugLine(QStringLiteral("Error : Failed to creat table '%1'").arg(table()), query);
        return false;
    }
    // The blanks and "till" belong to the statement as existing databases have it.
    QString trigger = QStringLiteral("create trigger if not exists delete_user_till insert on %1 "
                                     "when(select count(*) from %1) > 10000 \nbegin\n"
                                     "delete from %1 where [Id] in (select [Id] from %1 order by [Id] "
                                     "limit (select count(*)-9000 from %1)); \nend");
    if (query.exec(trigger.replace(QLatin1String("%1"), table())))
        return true;
    debugLine(QStringLiteral("Error : Failed to create trigger to '%ZELUser%_LoginInfo'"), query);
    return fail(QStringLiteral("Error : Failed to create trigger to '%ZELUser%_LoginInfo'"));
}

void ZELUserPrivate::appendToHistory(const ZELUserAccess &access)
{
    const QString statement = QStringLiteral("insert into %1([Time],[IsLogin]) values('%2','%3')");
    const QString flag = get(&ZELUserPrivate::isLogin) ? QStringLiteral("1") : QStringLiteral("0");
    QSqlQuery query = access.query();
    if (query.exec(statement.arg(table(), QDateTime::currentDateTime().toString(timeFormat), flag)))
        qDebug("Login : Success");
    else
        debugLine(QStringLiteral("Error : Failed to insert data to '%ZELUser%_LoginInfo'"), query);
}

QDateTime ZELUserPrivate::lastTime(const QString &isLogin, const QString &error)
{
    const QString statement = QStringLiteral("select * from %1 where [IsLogin] = '%2' order by [Id] desc");
    const ZELUserAccess access(db);
    QSqlQuery query = access.query();
    if (!zelFitsTableName(userName) || !query.exec(statement.arg(table(), isLogin))) {
        debugLine(error, query);
        fail(error);
        return {};
    }
    return query.next() ? QDateTime::fromString(query.value(1).toString(), timeFormat) : QDateTime();
}

template <class Condition>
ZELUser ZELUserPrivate::find(Condition &&condition)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(registry().state);
    const QList<ZELUser> &users = registry().users;
    const auto found
        = std::find_if(users.begin(), users.end(), [&](const ZELUser &user) { return condition(*user.d); });
    return found == users.end() ? ZELUser() : *found;
}

ZELUser::ZELUser()
    : d(new ZELUserPrivate)
{
}

ZELUser::ZELUser(ZELUserPrivate *record)
    : d(record)
{
}

ZELUser::ZELUser(const QString &name, const QString &password, QSqlDatabase db)
    : ZELUser()
{
    d->open(name, password, db, true, QUuid());
}

ZELUser::ZELUser(const ZELUser &other) = default;
ZELUser &ZELUser::operator=(const ZELUser &other) = default;
ZELUser::~ZELUser() = default;

bool ZELUser::operator==(const ZELUser &other) const
{
    return d == other.d || (uid() == other.uid() && userName() == other.userName());
}

bool ZELUser::operator!=(const ZELUser &other) const
{
    return !(*this == other);
}

bool ZELUser::login()
{
    const ZELUserAccess access(d->db);
    return d->login(access, true);
}

void ZELUser::logout()
{
    const ZELUserAccess access(d->db);
    if (!isLogin())
        return;
    d->set(&ZELUserPrivate::isLogin, false);
    d->updateLoginInfo(access);
}

void ZELUser::autologin()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(registry().state);
    ++d->autoLoginCount;
}

void ZELUser::autologout()
{
    ZELCriticalSection section;
    std::unique_lock<std::mutex> lock(registry().state);
    const bool last = --d->autoLoginCount == 0;
    lock.unlock();
    if (last)
        logout();
}

bool ZELUser::setPassword(const QString &password)
{
    if (!isLogin())
        return d->fail(QStringLiteral("Error : not login"));
    const QString statement = QStringLiteral("update ZELUser set [Password] = '%1' where [Uid] = '%2' ");
    const ZELUserAccess access(d->db);
    QSqlQuery query = access.query();
    if (zelFitsStatement(password) && query.exec(statement.arg(password, uid().toString()))) {
        d->set(&ZELUserPrivate::password, password);
        return true;
    }
    debugLine(QStringLiteral("Error : Failed to update data to 'ZELUser'"), query);
    return d->fail(sqlExecError);
}

void ZELUser::updateLoginInfo()
{
    const ZELUserAccess access(d->db);
    d->updateLoginInfo(access);
}

bool ZELUser::isLogin() const
{
    return d->get(&ZELUserPrivate::isLogin);
}

QString ZELUser::userName() const
{
    return d->userName;
}

QString ZELUser::password() const
{
    return d->get(&ZELUserPrivate::password);
}

QUuid ZELUser::uid() const
{
    return d->get(&ZELUserPrivate::uid);
}

QUuid ZELUser::tid() const
{
    return d->get(&ZELUserPrivate::tid);
}

QString ZELUser::getErrorString()
{
    return d->get(&ZELUserPrivate::errorString);
}

ZELUser ZELUser::getUserByName(const QString &name)
{
    return ZELUserPrivate::find([&](const ZELUserPrivate &user) { return user.userName == name; });
}

ZELUser ZELUser::getUser(QUuid id)
{
    // A null id is what a malformed key becomes; it must not find a user whose row has a malformed one.
    return id.isNull() ? ZELUser()
                       : ZELUserPrivate::find([&](const ZELUserPrivate &u) { return u.uid == id || u.tid == id; });
}

ZELUser ZELUser::loginByUid(const QString &name, const QString &password, QSqlDatabase db, QUuid tid)
{
    const ZELUser known = getUser(tid);
    if (known.isLogin())
        return known;
    const ZELUser user(name, password, db);
    if (!user.isLogin())
        return ZELUser();
    user.d->set(&ZELUserPrivate::tid, tid);
    return user;
}

ZELUser ZELUser::loginAs(const QString &name, const QString &password, QSqlDatabase db, QUuid tid, bool mayCreate)
{
    ZELUser user;
    user.d->open(name, password, db, mayCreate, tid);
    return user;
}

QList<ZELUser> ZELUser::loggedIn()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(registry().state);
    return registry().users;
}

QDateTime ZELUser::getLastLoginTime(const ZELUser &user)
{
    return user.d->lastTime(QStringLiteral("1"), QStringLiteral("Error : Failed to creat table '%ZELUser%_LoginInfo'"));
}

QDateTime ZELUser::getLastLogoutTime(const ZELUser &user)
{
    return user.d->lastTime(QStringLiteral("0"), QStringLiteral("Error : Failed to find table 'ZELUser'"));
}
