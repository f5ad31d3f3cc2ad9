// SPDX-License-Identifier: MIT
#include "quiet.h"
#include "table.h"
#include "threads.h"
#include "userdatabase.h"
#include "zeluser.h"

#include <QSqlError>
#include <QSqlQuery>
#include <QtTest>
#include <atomic>
#include <thread>

using Snapshot = QMap<QString, QStringList>;

class tst_ZELUser : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { dropDebugMessages(); }

    void init()
    {
        m_users = std::make_unique<UserDatabase>();
        m_db = m_users->database;
        QSqlQuery(m_db).exec("pragma synchronous = off");
    }

    void cleanup()
    {
        for (ZELUser user : ZELUser::loggedIn())
            user.logout();
        QVERIFY(ZELUser::loggedIn().isEmpty());
        m_db = QSqlDatabase();
        m_users.reset();
    }

    void unknownNameMakesAnAccount()
    {
        ZELUser user("  bob \t the  builder ", "pw", m_db);
        QVERIFY2(user.isLogin(), qPrintable(user.getErrorString()));
        QCOMPARE(user.userName(), QString("bob the builder"));
        QVERIFY(!user.uid().isNull());
        QCOMPARE(rowOf("bob the builder", 1), user.uid().toString());
        QCOMPARE(ZELUser::getUser(user.uid()), user);
        QVERIFY(!user.login());

        const QUuid first = user.uid();
        user.logout();
        QVERIFY(!ZELUser::getUserByName("bob the builder").isLogin());
        ZELUser again("bob the builder", "pw", m_db);
        QVERIFY(again.isLogin());
        QCOMPARE(again.uid(), first);
    }

    void refusals()
    {
        ZELUser bob("bob", "pw", m_db);
        for (const char *name : {"bob", " bob  "}) {
            ZELUser second(name, "pw", m_db);
            QVERIFY(!second.isLogin());
            QCOMPARE(second.getErrorString(), QString("Error : User is logined by another device"));
            QVERIFY(second != bob);
        }
        QVERIFY(bob.isLogin());
        bob.logout();
        const Snapshot before = snapshot();
        ZELUser wrong("bob", "PW", m_db);
        QVERIFY(!wrong.isLogin());
        QCOMPARE(wrong.getErrorString(), QString("Error : password error"));
        ZELUser unknown = ZELUser::loginAs("eve", "pw", m_db, QUuid(), false);
        QCOMPARE(unknown.getErrorString(), QString("Error : user name error"));
        ZELUser blank("   ", "pw", m_db);
        QCOMPARE(blank.getErrorString(), QString("Error : user name error"));
        QCOMPARE(snapshot(), before);
        const QUuid tid = QUuid::createUuid();
        QVERIFY(ZELUser::loginAs("bob", "pw", m_db, tid, false).isLogin());
        QVERIFY(ZELUser::getUser(tid).isLogin());
    }

    void emptyAndWithoutDatabase()
    {
        // A default connection that works must not be taken for the one that is missing.
        QSqlDatabase other = QSqlDatabase::addDatabase("QSQLITE");
        other.setDatabaseName(":memory:");
        QVERIFY(other.open());
        ZELUser first("bob", "pw", other);
        first.logout();
        ZELUser user("bob", "pw", QSqlDatabase());
        QVERIFY(!user.isLogin());
        QVERIFY(!user.login());
        QCOMPARE(user.getErrorString(), QString("Error : sql exec error"));
        QVERIFY(!ZELUser::getLastLoginTime(user).isValid());
        other.close();
        ZELUser closed("bob", "pw", other);
        QVERIFY(!closed.isLogin());
        first = user = closed = ZELUser();
        other = QSqlDatabase();
        QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);

        ZELUser empty("", "", m_db);
        QCOMPARE(empty, ZELUser());
        QVERIFY(!empty.login());
        empty.logout();
        QVERIFY(!ZELUser::getUser(QUuid()).isLogin());
        QVERIFY(snapshot().isEmpty());
    }

    void sharedByItsHolders()
    {
        ZELUser user("bob", "pw", m_db);
        ZELUser copy = user;
        user.autologin();
        copy.autologin();
        user.autologout();
        copy.autologout();
        QVERIFY(user.isLogin());
        ZELUser::getUserByName("bob").autologout();
        QVERIFY(!user.isLogin() && !copy.isLogin());
        QVERIFY(user.login());
        copy.autologout();
        QVERIFY2(!user.isLogin(), "a later login starts with one holder again");
    }

    void terminalIds()
    {
        const QUuid tid = QUuid::createUuid();
        QVERIFY(!ZELUser::loginByUid("bob", "", QSqlDatabase(), tid).isLogin());
        const ZELUser user = ZELUser::loginByUid("bob", "pw", m_db, tid);
        QCOMPARE(user.tid(), tid);
        const Snapshot before = snapshot();
        QCOMPARE(ZELUser::loginByUid("anybody", "wrong", m_db, tid), user);
        QCOMPARE(ZELUser::getUser(tid), user);
        QCOMPARE(ZELUser::loginByUid("bob", "pw", m_db, QUuid::createUuid()), ZELUser());
        QCOMPARE(snapshot(), before);

        // No credential here, and so not to be that of another login or account.
        ZELUser ann("ann", "pw", m_db);
        ann.logout();
        QVERIFY(QSqlQuery(m_db).exec("update ZELUser set Uid = upper(Uid) where UserName = 'ann'"));
        for (const QUuid &id : {tid, user.uid(), ann.uid(), QUuid::createUuid()}) {
            ZELUser eve = ZELUser::loginAs("eve", "pw", m_db, id, true);
            QVERIFY(eve.isLogin());
            QCOMPARE(eve.tid() == id, id != tid && id != user.uid() && id != ann.uid());
            eve.logout();
        }

        // A row whose id is not one must not be reachable by what a malformed key turns into.
        QVERIFY(QSqlQuery(m_db).exec("insert into ZELUser(Uid,UserName,Password) values('x','odd','pw')"));
        const ZELUser odd("odd", "pw", m_db);
        QVERIFY(odd.isLogin() && odd.uid().isNull());
        QVERIFY(!ZELUser::getUser(QUuid("{no uuid}")).isLogin());
    }

    void passwordChange()
    {
        ZELUser other("alice", "al", m_db);
        ZELUser user("bob", "pw", m_db);
        QVERIFY(user.setPassword("%1 new; --"));
        QCOMPARE(user.password(), QString("%1 new; --"));
        QCOMPARE(rowOf("bob", 3), QString("%1 new; --"));
        QCOMPARE(rowOf("alice", 3), QString("al"));
        QVERIFY(!user.setPassword("a' where '1'='1"));
        QCOMPARE(user.getErrorString(), QString("Error : sql exec error"));
        user.logout();
        QVERIFY(!user.setPassword("x"));
        QCOMPARE(user.getErrorString(), QString("Error : not login"));
        QCOMPARE(rowOf("bob", 3), QString("%1 new; --"));
    }

    void history()
    {
        const QDateTime before = QDateTime::currentDateTime().addSecs(-1);
        ZELUser user("bob", "pw", m_db);
        QVERIFY(!ZELUser::getLastLogoutTime(user).isValid());
        QVERIFY2(user.getErrorString().isEmpty(), "a missing row is no failure");
        user.logout();
        for (const QDateTime &time : {ZELUser::getLastLoginTime(user), ZELUser::getLastLogoutTime(user)})
            QVERIFY(time >= before && time <= QDateTime::currentDateTime());
        QCOMPARE(snapshot()["bob_LoginInfo"].size(), 3);
        ZELUser stranger("a;drop table ZELUser", "pw", m_db);
        QVERIFY(!ZELUser::getLastLoginTime(stranger).isValid());
        QCOMPARE(stranger.getErrorString(), QString("Error : Failed to creat table '%ZELUser%_LoginInfo'"));
        QVERIFY(!ZELUser::getLastLogoutTime(stranger).isValid());
        QCOMPARE(stranger.getErrorString(), QString("Error : Failed to find table 'ZELUser'"));
    }

    void historyIsBounded()
    {
        ZELUser user("bob", "pw", m_db);
        QSqlQuery query(m_db);
        const auto count = [&] {
            return query.exec("select count(*) from bob_LoginInfo") && query.next() ? query.value(0).toInt() : -1;
        };
        QVERIFY(query.exec("with recursive n(i) as (select 1 union all select i + 1 from n where i < 9999) "
                           "insert into bob_LoginInfo(Time, IsLogin) select 'x', 1 from n"));
        QCOMPARE(count(), 10000);
        user.logout();
        QCOMPARE(count(), 10001);
        QVERIFY(user.login());
        QCOMPARE(count(), 9001);
        QVERIFY(query.exec("select min(Id) from bob_LoginInfo") && query.next());
        QCOMPARE(query.value(0).toInt(), 1002);
    }

    void namesWithoutAHistory()
    {
        const QStringList without{"a-b", "1bob", "main.x", "[a]", "\"a\"", "a(b", "sqlite_x", "$a", "a;b", "a--", "`a`",
            QChar(0xfeff) + QString("a"), QString(256, 'a')};
        const QStringList with{"_a1$", "j\xc3\xb6rg", "\xf0\x9f\x90\xb1", "select", "ZELUser"};
        for (const QString &name : without + with) {
            ZELUser user(name, "pw", m_db);
            QVERIFY2(user.isLogin(), qPrintable(name));
            QCOMPARE(snapshot().contains(name + "_LoginInfo"), with.contains(name));
            user.logout();
            QVERIFY(!user.isLogin());
        }
    }

    void hostileTexts_data()
    {
        Table<QString> row("text");
        const QStringList texts{"'", "''", "' or '1'='1", "' or 1=1 --", "admin' --", "admin'--", "admin'/*",
            "admin' #", "admin'; drop table ZELUser; --", "' union select 1,2,'admin','pw' --",
            "x' union select [Id],[Uid],[UserName],'pw' from ZELUser --", "'); delete from ZELUser; --",
            "x','x'),('{0}','admin','pw'); --", "x'||(select Password from ZELUser)||'", "\\' or 1=1 --", "\"",
            "\" or \"\"=\"", "admin\"--", "`admin`", "[admin]", "]; drop table ZELUser; --",
            "a](x); drop table ZELUser; --", "(select 1)", ")", "--", "-- x", "/*", "*/", ";", "; drop table ZELUser",
            "admin;", "%", "%1", "%2", "%3", "%1%2%3", "%99", "%L1", "%ZELUser%", "admin%", "adm_n", "*", "?", "?1",
            ":x", "@x", "$x", "#x", "\\", "\\\\", "a\\", "ADMIN", "Admin", "admin ", " admin", "adm in", "admin\t",
            "a\r\ndmin", "sqlite_master", "sqlite_sequence", "ZELUser", "ZELUser_LoginInfo", "main.ZELUser",
            "admin_LoginInfo", "null", "1", "0x41", "1e999", "x'41'", "char(97)",
            QString::fromUtf8("\xd0\xb0"
                              "dmin"),
            QString::fromUtf8("ad\xe2\x80\x8bmin"),
            QString::fromUtf8("\xef\xbd\x81"
                              "dmin"),
            QString::fromUtf8("admin\xc2\xa0"), QString::fromUtf8("\xca\xbc or 1=1 --"),
            QString::fromUtf8("\xef\xbc\x87 or 1=1 --"),
            QString::fromUtf8("\xe2\x80\xae"
                              "nimda"),
            QString::fromUtf8("\xf0\x9f\x90\xb1"), QString("admin") + QChar(0), QChar(0) + QString("admin"),
            QString("admin") + QChar(0) + "' --", QString(QChar(0)), QString(QChar(0xd83d)),
            QString("admin") + QChar(0xd83d), QString("admin") + QChar(0xdc31), QString(QChar(0xffff)),
            QString(QChar(0xfeff)) + "admin", QString(1 << 20, 'a'), QString(1 << 20, '\''),
            QString(1 << 19, QChar(0xe4)), QString("%1").repeated(10000)};
        for (int i = 0; i < texts.size(); ++i)
            row(QByteArray::number(i) + ' ' + texts[i].left(20).toUtf8(), texts[i]);
    }

    // Whatever stands in a name or a password: nobody enters the account "admin", and nothing changes but the
    // account and the history of that very name.
    void hostileTexts()
    {
        QFETCH(QString, text);
        ZELUser("admin", "secret", m_db).logout();
        ZELUser("other", "word", m_db).logout();
        const Snapshot before = snapshot();
        const QString own = text.simplified();

        QVERIFY(!ZELUser("admin", text, m_db).isLogin());
        QVERIFY(!ZELUser::loginAs("other", text, m_db, QUuid(), false).isLogin());
        ZELUser user(text, "pw", m_db);
        QCOMPARE(user.isLogin(), rowOf(own, 3) == "pw");
        if (own == "admin")
            QVERIFY(!user.isLogin());
        ZELUser::getLastLoginTime(user);
        ZELUser::getLastLogoutTime(user);
        user.logout();
        ZELUser(QString("x%1y"), text, m_db).logout();
        ZELUser newcomer("newcomer", "start", m_db);
        const bool changed = newcomer.setPassword(text);
        QCOMPARE(rowOf("newcomer", 3), changed ? text : QString("start"));
        newcomer.logout();

        Snapshot after = snapshot();
        for (const QString &mine : {own + "_LoginInfo", QString("newcomer_LoginInfo")})
            if (!before.contains(mine))
                after.remove(mine);
        QStringList accounts = after.take("ZELUser");
        for (const QString &row : before["ZELUser"])
            QVERIFY(accounts.removeOne(row));
        QVERIFY(accounts.size() <= 3);
        for (const QString &row : accounts)
            QVERIFY(row.contains('|' + own + "|pw") || row.contains("|x%1y|") || row.contains("|newcomer|"));
        Snapshot wanted = before;
        wanted.remove("ZELUser");
        if (own == "ADMIN" || own == "Admin")
            after["admin_LoginInfo"] = wanted["admin_LoginInfo"]; // one history for names that differ in case only
        QCOMPARE(after, wanted);
    }

    void halfASurrogatePairDoesNotOpenTheStatement()
    {
        ZELUser("admin", "secret", m_db).logout();
        ZELUser thief(QString("thief") + QChar(0xd800), ",(select Password from ZELUser)) --", m_db);
        QVERIFY(!thief.isLogin());
        QCOMPARE(thief.getErrorString(), QString("Error : sql exec error"));
        QCOMPARE(snapshot()["ZELUser"].size(), 2);
    }

    void otherThreads()
    {
        ZELUser user("bob", "pw", m_db);
        QDateTime time;
        bool changed = false;
        std::thread([&] {
            time = ZELUser::getLastLoginTime(user);
            changed = user.setPassword("other");
            ZELUser::getUserByName("bob").logout();
        }).join();
        QVERIFY(time.isValid() && changed && !user.isLogin());
        QCOMPARE(rowOf("bob", 3), QString("other"));

        // What another process writes at that moment is waited for.
        QVERIFY(QSqlQuery(m_db).exec("begin immediate"));
        std::thread login([&] { ZELUser("bob", "other", m_db).logout(); });
        QTest::qWait(100);
        QVERIFY(QSqlQuery(m_db).exec("commit"));
        login.join();
        QCOMPARE(snapshot()["bob_LoginInfo"].size(), 5);
        QCOMPARE(QSqlDatabase::connectionNames(), QStringList("users"));
    }

    void inMemoryServesItsThreadOnly()
    {
        {
            QSqlDatabase memory = QSqlDatabase::addDatabase("QSQLITE", "memory");
            memory.setDatabaseName(":memory:");
            QVERIFY(memory.open());
            QVERIFY(ZELUser("here", "pw", memory).isLogin());
            QString error;
            std::thread([&] { error = ZELUser("there", "pw", memory).getErrorString(); }).join();
            QCOMPARE(error, QString("Error : Failed to creat table 'ZELUser' "));
            ZELUser::getUserByName("here").logout();
        }
        QSqlDatabase::removeDatabase("memory");
    }

    // Each thread logs its own user in and out; all of them fight over one more name.
    void threadsOnOneFile()
    {
        constexpr int threads = 32, rounds = 4;
        std::atomic<int> failures{0}, inside{0}, twice{0}, shared{0};
        Threads(threads, [&, db = m_db](int number) {
            const QString name = QString("user%1").arg(number);
            for (int round = 0; round < rounds; ++round) {
                ZELUser own(name, "pw", db);
                failures += !own.isLogin();
                ZELUser common = ZELUser::loginByUid("common", "pw", db, QUuid::createUuid());
                if (common.isLogin()) {
                    ++shared;
                    twice += ++inside > 1;
                    --inside;
                    common.autologout();
                }
                if (round + 1 < rounds || number % 2)
                    own.autologout();
            }
        }).join();
        QCOMPARE(failures.load(), 0);
        QCOMPARE(twice.load(), 0);
        QVERIFY(shared > 0);
        QStringList names;
        for (const ZELUser &user : ZELUser::loggedIn())
            names << user.userName();
        QCOMPARE(names.size(), threads / 2);
        for (int number = 0; number < threads; number += 2)
            QVERIFY(names.contains(QString("user%1").arg(number)));
        const Snapshot data = snapshot();
        QCOMPARE(data["ZELUser"].size(), 1 + threads + 1);
        QCOMPARE(data["user1_LoginInfo"].size(), 1 + 2 * rounds);
        QCOMPARE(data["common_LoginInfo"].size(), 1 + 2 * shared);
        QCOMPARE(QSqlDatabase::connectionNames(), QStringList("users"));
    }

private:
    QString rowOf(const QString &name, int column)
    {
        QSqlQuery query(m_db);
        query.exec("select * from ZELUser");
        while (query.next())
            if (query.value(2).toString() == name)
                return query.value(column).toString();
        return "no row";
    }

    // Every table and trigger with all its rows, as text.
    Snapshot snapshot()
    {
        Snapshot result;
        QSqlQuery tables(m_db);
        tables.exec("select name, sql, type from sqlite_master where name != 'sqlite_sequence'");
        while (tables.next()) {
            QStringList &lines = result[tables.value(0).toString()];
            lines << tables.value(1).toString();
            QSqlQuery rows(m_db);
            if (tables.value(2).toString() == "table") {
                rows.exec("select * from \"" + tables.value(0).toString().replace('"', "\"\"") + '"');
                while (rows.next())
                    lines << rows.value(1).toString() + '|' + rows.value(2).toString() + '|' + rows.value(3).toString();
            }
        }
        return result;
    }

    std::unique_ptr<UserDatabase> m_users;
    QSqlDatabase m_db;
};

QTEST_GUILESS_MAIN(tst_ZELUser)
#include "tst_zeluser.moc"
