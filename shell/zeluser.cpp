// SPDX-License-Identifier: MIT
#include "zeluser.h"
#include "zelguard_p.h"

#include <QDebug>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QThread>
#include <QVector>
#include <algorithm>
#include <atomic>
#include <mutex>

namespace {

struct Registry
{
    std::mutex database; ///< held for one whole operation, so that a check and the login that rests on it are one step
    std::mutex state; ///< guards the list and the fields of all records; never held during a statement
    QList<ZELUser> users;
};

// Never destroyed: users may log out from destructors that run after main().
Registry &registry()
{
    static auto *all = new Registry;
    return *all;
}

bool isInMemory(const QString &name)
{
    return name.isEmpty() || name.contains(QLatin1String(":memory:")) || name.contains(QLatin1String("mode=memory"));
}

/// One operation on the database: the right to it, and the calling thread's own connection.
class Access
{
public:
    explicit Access(const QSqlDatabase &db)
        : m_lock(registry().database)
    {
        if (!db.isValid() || db.driver()->thread() == QThread::currentThread())
            m_db = db;
        else if (isInMemory(db.databaseName()))
            qWarning("ZELUser: an in-memory database serves only the thread that opened it");
        else
            openClone(db);
    }
    ~Access()
    {
        m_db = QSqlDatabase();
        if (!m_cloneName.isEmpty())
            QSqlDatabase::removeDatabase(m_cloneName);
    }
    Access(const Access &) = delete;
    Access &operator=(const Access &) = delete;

    /// A query that fails when there is no connection; Qt would take the application's default one instead.
    QSqlQuery query() const { return m_db.isValid() ? QSqlQuery(m_db) : QSqlQuery(static_cast<QSqlResult *>(nullptr)); }

private:
    void openClone(const QSqlDatabase &db)
    {
        static std::atomic<quint64> number{0};
        m_cloneName = QStringLiteral("ZELUser clone %1").arg(++number);
        m_db = QSqlDatabase::cloneDatabase(db, m_cloneName);
        QStringList options = m_db.connectOptions().split(QLatin1Char(';'), Qt::SkipEmptyParts);
        // The first of two equal options would be overruled, so a value that the host chose stands.
        options.prepend(QStringLiteral("QSQLITE_BUSY_TIMEOUT=30000"));
        m_db.setConnectOptions(options.join(QLatin1Char(';')));
        m_db.open();
    }

    ZELCriticalSection m_section; ///< a kill must tear neither the lock nor the database engine
    std::lock_guard<std::mutex> m_lock;
    QString m_cloneName;
    QSqlDatabase m_db;
};

// A lone surrogate counts too: the database engine takes the code unit behind it for its other half, and with it the
// closing quote of the statement. The two last code units it would store as another character.
bool fitsStatement(const QString &text)
{
    static const QVector<QChar> refused{QLatin1Char('\''), QChar(QChar::Null), QChar(0xfffe), QChar(0xffff)};
    const auto isRefused = [](QChar c) { return refused.contains(c); };
    return text.isValidUtf16() && std::none_of(text.begin(), text.end(), isRefused);
}

bool fitsTableName(const QString &name)
{
    // Every connection reads the names of all tables; a few huge ones would slow down everybody's login.
    constexpr int longest = 255;
    const auto isPart = [](QChar c) {
        return c.unicode() >= 128 || c.isLetterOrNumber() || c == QLatin1Char('_') || c == QLatin1Char('$');
    };
    // The engine reads over a leading byte order mark: the history would be that of another name.
    static const QString notFirst = QStringLiteral("0123456789$\uFEFF");
    return !name.isEmpty() && name.size() <= longest && !notFirst.contains(name.at(0)) && fitsStatement(name)
        && std::all_of(name.begin(), name.end(), isPart);
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
    bool createUserTable(const Access &access);
    bool login(const Access &access, bool mayCreate);
    bool checkAccount(const QString &storedPassword);
    bool createAccount(const Access &access, bool mayCreate);
    bool select(const Access &access, const QString &columns, QVariantList &row);
    bool enter(const Access &access, const QUuid &id);
    void takeTerminalId(const Access &access, const QUuid &id);
    void updateLoginInfo(const Access &access);
    void updateList();
    bool createHistory(const Access &access);
    void appendToHistory(const Access &access);
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
    const Access access(db);
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

bool ZELUserPrivate::createUserTable(const Access &access)
{
    QSqlQuery query = access.query();
    if (query.exec(QStringLiteral("create table if not exists ZELUser([Id] integer PRIMARY KEY autoincrement,"
                                  "[Uid] GUID,[UserName] text,[Password] text)")))
        return true;
    debugLine(QStringLiteral("Error : Failed to creat table 'ZELUser'"), query);
    return fail(QStringLiteral("Error : Failed to creat table 'ZELUser' "));
}

bool ZELUserPrivate::login(const Access &access, bool mayCreate)
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
bool ZELUserPrivate::select(const Access &access, const QString &columns, QVariantList &row)
{
    const QString statement = QStringLiteral("select %1 from ZELUser where [UserName] == '%2'");
    QSqlQuery query = access.query();
    if (fitsStatement(userName) && query.exec(statement.arg(columns, userName)) && query.next()) {
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

bool ZELUserPrivate::createAccount(const Access &access, bool mayCreate)
{
    if (!mayCreate)
        return failLoudly(QStringLiteral("Error : user name error"));
    const QUuid id = QUuid::createUuid();
    const QString pass = get(&ZELUserPrivate::password);
    const QString statement = QStringLiteral("insert into ZELUser([Uid],[UserName],[Password]) values('%1','%2','%3')");
    QSqlQuery query = access.query();
    if (fitsStatement(pass) && query.exec(statement.arg(id.toString(), userName, pass)))
        return enter(access, id);
    debugLine(QStringLiteral("Error : Failed to create data from 'ZELUser'"), query);
    return fail(sqlExecError);
}

bool ZELUserPrivate::enter(const Access &access, const QUuid &id)
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
void ZELUserPrivate::takeTerminalId(const Access &access, const QUuid &id)
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

void ZELUserPrivate::updateLoginInfo(const Access &access)
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

bool ZELUserPrivate::createHistory(const Access &access)
{
    QSqlQuery query = access.query();
    const QString create = QStringLiteral("create table if not exists %1([Id] integer PRIMARY KEY autoincrement,"
                                          "[Time] DATETIME,[IsLogin] BOOLEAN)");
    if (!fitsTableName(userName) || !query.exec(create.arg(table()))) {
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

void ZELUserPrivate::appendToHistory(const Access &access)
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
    const Access access(db);
    QSqlQuery query = access.query();
    if (!fitsTableName(userName) || !query.exec(statement.arg(table(), isLogin))) {
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
    const Access access(d->db);
    return d->login(access, true);
}

void ZELUser::logout()
{
    const Access access(d->db);
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
    const Access access(d->db);
    QSqlQuery query = access.query();
    if (fitsStatement(password) && query.exec(statement.arg(password, uid().toString()))) {
        d->set(&ZELUserPrivate::password, password);
        return true;
    }
    debugLine(QStringLiteral("Error : Failed to update data to 'ZELUser'"), query);
    return d->fail(sqlExecError);
}

void ZELUser::updateLoginInfo()
{
    const Access access(d->db);
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
