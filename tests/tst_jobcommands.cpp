// SPDX-License-Identifier: MIT
// Ends commands by kills and time limits; what the abandoned slots held is lost by design, so that nothing is asked
// about leaks here.
#include "noleakcheck.h"
#include "remoteuser.h"
#include "zelcatch.h"
#include "zelshellcommand.h"
#include "zelshellcommandtree.h"
#include "zelshellserver.h"
#include "zelthread.h"

#include <QtTest>
#include <atomic>
#include <unistd.h>

class Board : public QObject
{
    Q_OBJECT
public:
    std::atomic<int> started{0};
public Q_SLOTS:
    void wait(ZELArguments)
    {
        for (++started;;)
            ::usleep(1000);
    }
    void fill(ZELArguments args)
    {
        for (++started;;)
            args.debug() << QString(1000, 'x');
    }
};

static void serve(ZELShellServer &server, Board &board)
{
    server.setListenAddress(QHostAddress::LocalHost);
    QVERIFY(server.registerCmd("net", "wait", &board, SLOT(wait(ZELArguments)), true));
    QVERIFY(server.registerCmd("net", "fill", &board, SLOT(fill(ZELArguments)), true));
    server.startTcpServer(0);
}

class tst_JobCommands : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { zelSetCrashDump(false); }

    void jobs()
    {
        Board board;
        ZELShellServer server;
        serve(server, board);
        QVERIFY(server.registerJobCommands());
        QVERIFY(!server.registerJobCommands());
        // Directories named like the commands do not hide them.
        QVERIFY(server.registerCmd("jobs", "wait", &board, SLOT(wait(ZELArguments))));
        RemoteUser peer(server.serverPort()), other(server.serverPort());
        QTRY_VERIFY(peer.has("ConnectId = ") && other.has("ConnectId = "));
        peer.send("net/wait a &;net/wait b &;jobs");
        QTRY_VERIFY(peer.has("1  net/wait a\r\n2  net/wait b\r\n"));
        QTRY_COMPARE(board.started.load(), 2);
        other.send("jobs;kill 1");
        QTRY_VERIFY(other.has("kill: 1: no such job"));
        peer.send("kill;kill x;kill 3");
        QTRY_VERIFY(peer.has("number is needed") && peer.has("kill: 3: no such job"));
        ZELShellCommandTree *leaf = server.FindCommand("net", "wait");
        peer.send("kill 1");
        QTRY_VERIFY(peer.has("forced exit"));
        peer.send("jobs");
        QTRY_VERIFY(peer.has("2  net/wait b\r\n"));
        QVERIFY(leaf->Command()->IsRunning());
        peer.send("kill 2");
        QTRY_VERIFY(!leaf->Command()->IsRunning());
    }

    /// Killed at any moment between their start and their first output.
    void taggedJobsAreAnsweredOnce()
    {
        const int count = 100;
        Board board;
        ZELShellServer server;
        serve(server, board);
        QPointer<ZELShellBase> shell;
        connect(&server, &ZELShellServer::shellConnected,
            [&](const QPointer<ZELShellBase> &connected) { shell = connected; });
        RemoteUser peer(server.serverPort());
        QTRY_VERIFY(peer.has("ConnectId = ") && shell);
        peer.got.clear();
        for (int i = 0; i < count; ++i) {
            peer.socket.write("net/wait#" + QByteArray::number(i) + " UFJPVE9DT0w9WkVMX1NIRUxM &\n");
            peer.socket.flush();
            QList<QPointer<ZELThread>> jobs;
            while (!jobs.value(0))
                jobs = shell->getRunnings();
            QElapsedTimer timer;
            for (timer.start(); timer.nsecsElapsed() < i * 3000;) { }
            while (jobs[0]->Kill() != 0) { }
            QTRY_VERIFY(shell->getRunnings().isEmpty());
        }
        QTRY_COMPARE((peer.has(""), peer.got.count("State: EXECUTE_ERROR")), count);
        for (int i = 0; i < count; ++i)
            QCOMPARE(peer.got.count("START net/wait#" + QByteArray::number(i) + "\r\n"), 1);
    }

    void commandsOfThoseWhoLeft_data()
    {
        QTest::addColumn<QByteArray>("statement");
        QTest::newRow("writes") << QByteArray("net/fill");
        QTest::newRow("sleeps") << QByteArray("net/wait");
        QTest::newRow("job") << QByteArray("net/wait &");
    }

    void commandsOfThoseWhoLeft()
    {
        QFETCH(QByteArray, statement);
        Board board;
        ZELShellServer server;
        serve(server, board);
        server.setAbandonedLimit(200);
        const auto reset = qScopeGuard([&] { server.setAbandonedLimit(0); });
        RemoteUser peer(server.serverPort());
        QTRY_VERIFY(peer.has("ConnectId = "));
        peer.send(statement);
        QTRY_COMPARE(board.started.load(), 1);
        peer.socket.abort();
        QTRY_COMPARE(server.ClientNumber(), 0);
        QTRY_VERIFY(!server.FindCommand("net", "wait")->Command()->IsRunning());
        QTRY_VERIFY(!server.FindCommand("net", "fill")->Command()->IsRunning());
    }

    void commandTimeout()
    {
#ifdef __SANITIZE_THREAD__
        QSKIP("the report's recovery points on the signal stack make the race detector forget the frames");
#endif
        Board board;
        ZELShellServer server;
        serve(server, board);
        server.setCommandTimeout(50);
        const auto reset = qScopeGuard([&] { server.setCommandTimeout(0); });
        RemoteUser peer(server.serverPort());
        QTRY_VERIFY(peer.has("ConnectId = "));
        peer.send("net/wait");
        QTRY_VERIFY(peer.has("Application Timerout,Max time is 50"));
        QVERIFY(server.setCommandTimeout("net", "wait", 60));
        peer.send("net/wait");
        QTRY_VERIFY(peer.has("Max time is 60"));
    }
};

QTEST_GUILESS_MAIN(tst_JobCommands)
#include "tst_jobcommands.moc"
