// SPDX-License-Identifier: MIT
#include "quiet.h"
#include "table.h"
#include "threads.h"
#include "userdatabase.h"

#include <QProcess>
#include <QtTest>
#include <atomic>
#include <zelshellclient.h>
#include <zelshellserver.h>
#include <zeluser.h>

using Process = std::shared_ptr<ZELShellProcess>;
static const QString local("127.0.0.1");

class Commands : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    /// Prints its number so many times, slowly when asked to, and returns it.
    QVariant print(ZELArguments args)
    {
        const QString number = args[1];
        for (int i = 0; i < args[2].toInt(); ++i)
            args.debug().noquote() << number + ':' + QString::number(i);
        return number.toInt();
    }
    QVariant word(ZELArguments args) { return args[1]; }
    QVariant sleep(ZELArguments args)
    {
        QThread::msleep(args[1].toULong());
        return {};
    }
};

/// The client side against the real server; the host that dies is the demonstration host.
static quint16 startHost(QProcess &host, quint16 port)
{
    host.setProcessChannelMode(QProcess::MergedChannels);
    host.start(ZELHOST, {"--tcp", QString::number(port), "--no-terminal"});
    QByteArray line;
    while (!line.contains("remote shells on port") && host.waitForReadyRead(10000))
        while (host.canReadLine() && !line.contains("remote shells on port"))
            line = host.readLine();
    return line.split(' ').last().trimmed().toUShort();
}

class tst_ClientServer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        dropDebugMessages();
        m_thread = std::thread([this] { serve(); });
        while (!m_port)
            std::this_thread::yield();
    }

    void everyKindOfStatementIsAnswered_data()
    {
        Table<int, QString> table("status", "value");
        using Header = ZELShellProcessHeader;
        const auto row = [&](const char *line, int status, const char *value = "") { table(line, status, value); };
        row("print 7 0", Header::Result, "7");
        row("/Main/print 7 0 &", Header::Result, "7");
        row("deep/er/sleep 0", Header::Complete);
        row("cd deep", Header::Complete);
        row("cd", Header::Complete);
        row("cd nowhere", Header::ExecuteError);
        row("sys true", Header::Complete);
        row("terminal no", Header::Complete);
        row("nonsense &", Header::NotFound);
        row("ls", Header::NotFound);
        row("42", Header::Result, "42");
        row("$unset", Header::Result);
        row(" $unset", Header::Result, "NULL");
        row("$x = print 5 0", Header::Result, "5");
        row("$x", Header::Result, "5");
        row("$x =", Header::Complete);
        row("$t = hello big world", Header::Complete);
        row("$t", Header::Result, "hello big world");
        row("$t = a#b c", Header::Complete);
        row(" $t", Header::Result, "a#b c");
        row("$c = word print", Header::Result, "print");
        row("$c 9 0", Header::Result, "9");
        row("h\xc3\xa9llo", Header::NotFound);
        row("quit", Header::Disconnect);
    }

    void everyKindOfStatementIsAnswered()
    {
        QFETCH(int, status);
        static ZELShellClient client; // one session for all, in the table's order
        if (!client.isConnected())
            QVERIFY2(client.connectToHost(local, m_port, 10000), qPrintable(client.errorString()));
        const Process process = client.execute(QString::fromUtf8(QTest::currentDataTag()));
        QVERIFY(process);
        QVERIFY(process->wait(10000));
        if (process->lastPacket().getProcessStatus() != status)
            qWarning() << process->getTextOutput(0);
        QCOMPARE(process->lastPacket().getProcessStatus(), status);
        QTEST(process->getReturnValue(0), "value");
        QCOMPARE(client.pendingProcesses(), 0);
        if (status == ZELShellProcessHeader::Disconnect)
            QTRY_VERIFY(!client.isConnected());
    }

    void keyBeforeItsLogin()
    {
        UserDatabase users;
        ZELUser bob("bob", "pw", users.database);
        bob.logout();
        m_server->setLoginRequired(false);
        m_server->setKeyLogin(true);
        ZELShellClient early;
        early.setKey(bob.uid());
        QVERIFY(early.connectToHost(local, m_port, 10000));
        QCOMPARE(early.connectId(), bob.uid());
        ZELUser owner("bob", "pw", users.database);
        QVERIFY(owner.isLogin());
        early.close();
        QTRY_COMPARE(m_server->ClientNumber(), 0);
        QVERIFY2(owner.isLogin(), "it never logged in, so it logs nobody out");
        owner.logout();
    }

    void logins_data()
    {
        Table<bool, bool> row("required", "keys");
        row("open", false, true);
        row("required", true, true);
        row("without keys", false, false);
        row("closed", true, false);
    }

    // The client knows whether it is logged in, and what it may do with the ids of others.
    void logins()
    {
        QFETCH(bool, required);
        QFETCH(bool, keys);
        UserDatabase users;
        const QSqlDatabase &database = users.database;
        ZELUser account("bob", "pw", database);
        account.logout();
        ZELUser("mallory", "pw", database).logout();
        m_server->setDatabase(database);
        m_server->setLoginRequired(required);
        m_server->setKeyLogin(keys);

        const auto open
            = [&](ZELShellClient &client, const QString &name, const QString &password, const QUuid &key = QUuid()) {
                  client.setUser(name, password);
                  client.setKey(key);
                  return client.connectToHost(local, m_port, 10000);
              };
        ZELShellClient bob, wrong, thief, nobody, eve, mallory;
        // Under the id of an account that is not logged in, a user must not become the one whom a later login there
        // finds.
        QVERIFY(open(mallory, "mallory", "pw", account.uid()));
        QCOMPARE(ZELUser::getUser(mallory.connectId()).userName(), QString("mallory"));
        QVERIFY(mallory.connectId() != account.uid() && !ZELUser::getUser(account.uid()).isLogin());
        QVERIFY2(open(bob, "bob", "pw"), qPrintable(bob.errorString()));
        QVERIFY(bob.isLogin());
        QCOMPARE(ZELUser::getUser(bob.connectId()).userName(), QString("bob"));
        QCOMPARE(open(wrong, "bob", "other"), !required);
        QVERIFY(!wrong.isLogin());
        QCOMPARE(open(thief, "", "", bob.connectId()), keys || !required);
        QCOMPARE(thief.connectId() == bob.connectId(), keys);
        QCOMPARE(open(nobody, "", ""), !required);
        if (required)
            QCOMPARE(nobody.errorString(), QString("Error : login required"));
        // Under the id of another login, a new one must not pass for it.
        QCOMPARE(open(eve, "eve", "pw", bob.connectId()), keys || !required);
        QCOMPARE(ZELUser::getUser(eve.connectId()).userName(),
            keys           ? QString("bob")
                : required ? QString()
                           : QString("eve"));

        for (ZELShellClient *client : {&bob, &wrong, &thief, &nobody, &eve, &mallory})
            client->close();
        QTRY_VERIFY(ZELUser::loggedIn().isEmpty());
        ZELUser again("bob", "pw", database);
        QVERIFY(again.isLogin());
        again.logout();
        m_server->setDatabase(QSqlDatabase());
        m_server->setLoginRequired(false);
        m_server->setKeyLogin(true);
    }

    void everyRecordGetsItsOwn()
    {
        const int clients = 20, commands = 100;
        std::vector<std::unique_ptr<ZELShellClient>> all;
        for (int i = 0; i < clients; ++i) {
            all.push_back(std::make_unique<ZELShellClient>());
            QVERIFY2(all.back()->connectToHost(local, m_port, 20000), qPrintable(all.back()->errorString()));
        }
        std::atomic<int> wrong{0};
        const auto drive = [&](int from, int step) {
            for (int c = from; c < clients; c += step) {
                QList<Process> processes;
                QStringList texts;
                for (int i = 0; i < commands; ++i) {
                    const int number = c * commands + i, lines = i % 4;
                    QString text;
                    for (int line = 0; line < lines; ++line)
                        text += QString("%1:%2\r\n").arg(number).arg(line);
                    texts << text + "Execute print Complete!\r\n";
                    processes << all[size_t(c)]->execute(QString("print %1 %2").arg(number).arg(lines), i % 5 == 0);
                }
                for (int i = 0; i < commands; ++i) {
                    const bool right = processes[i]->wait(60000) && processes[i]->getTextOutput(0) == texts[i]
                        && processes[i]->getReturnValue(0) == QString::number(c * commands + i);
                    if (!right && wrong++ < 3)
                        qWarning() << processes[i]->getCommand() << processes[i]->getTextOutput(0);
                }
            }
        };
        Threads(8, [&](int i) { drive(i, 8); }).join();
        QCOMPARE(wrong.load(), 0);
        for (const auto &client : all)
            QCOMPARE(client->pendingProcesses(), 0);
    }

    void killedHostWakesEverybody()
    {
        QProcess host;
        const quint16 port = startHost(host, 0);
        QVERIFY(port);
        ZELShellClient client;
        QVERIFY2(client.connectToHost(local, port, 10000), qPrintable(client.errorString()));
        QList<Process> processes;
        std::atomic<int> woken{0};
        for (int i = 0; i < 100; ++i)
            processes << client.execute("jobs/sleep 60000", true);
        Threads waiters(100, [&](int i) { woken += processes[i]->wait(60000); });
        QCOMPARE(client.pendingProcesses(), 100);
        host.kill();
        QTRY_COMPARE_WITH_TIMEOUT(woken.load(), 100, 1000);
        QTRY_COMPARE(host.state(), QProcess::NotRunning);
        QVERIFY(!client.isConnected());
        QVERIFY(client.execute("text/ping")->wait(0));

        QProcess next;
        QCOMPARE(startHost(next, port), port);
        QVERIFY2(client.connectToHost(local, port, 10000), qPrintable(client.errorString()));
        QCOMPARE(
            client.execute("text/echo back")->getTextOutput(10000), QString("back\r\nExecute text/echo Complete!\r\n"));
        next.kill();
        next.waitForFinished(10000);
    }

    void cleanupTestCase()
    {
        QMetaObject::invokeMethod(m_loop, "quit", Qt::QueuedConnection);
        m_thread.join();
    }

private:
    void serve()
    {
        QEventLoop loop;
        ZELShellServer server;
        Commands commands;
        server.registerCmd("", "print", &commands, SLOT(print(ZELArguments)), true);
        server.registerCmd("", "word", &commands, SLOT(word(ZELArguments)), true);
        server.registerCmd("deep/er", "sleep", &commands, SLOT(sleep(ZELArguments)), true);
        server.setListenAddress(QHostAddress::LocalHost);
        server.startTcpServer(0);
        m_server = &server;
        m_loop = &loop;
        m_port = server.serverPort();
        loop.exec();
    }

    std::thread m_thread; ///< of the server, since the clients block this one
    ZELShellServer *m_server = nullptr;
    QEventLoop *m_loop = nullptr;
    std::atomic<quint16> m_port{0};
};

QTEST_GUILESS_MAIN(tst_ClientServer)
#include "quiet.h"
#include "table.h"
#include "threads.h"
#include "tst_clientserver.moc"
#include "userdatabase.h"
