// SPDX-License-Identifier: MIT
#include "ptypair.h"
#include "remoteuser.h"
#include "table.h"
#include "userdatabase.h"
#include "zelshell.h"
#include "zelshellserver.h"
#include "zeluser.h"

#include <QCoreApplication>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QtTest>

#include <atomic>
#include <memory>
#include <vector>

class Board : public QObject
{
    Q_OBJECT
public:
    std::atomic<int> running{0};
    std::atomic<bool> leave{false};
public Q_SLOTS:
    QVariant ping(ZELArguments args) { return args.ArgumentsLength(); }
    void wait(ZELArguments)
    {
        ++running;
        while (!leave)
            ::usleep(1000);
        --running;
    }
};

class tst_ZELShellServer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        m_server = std::make_unique<ZELShellServer>();
        m_board = std::make_unique<Board>();
        m_server->setListenAddress(QHostAddress::LocalHost);
        QVERIFY(m_server->registerCmd("net", "ping", m_board.get(), SLOT(ping(ZELArguments))));
        QVERIFY(m_server->registerCmd("net", "wait", m_board.get(), SLOT(wait(ZELArguments)), true));
    }

    void cleanup()
    {
        m_board->leave = true;
        QTRY_COMPARE(m_board->running.load(), 0);
        m_server.reset();
        m_board.reset();
    }

    void secondServer()
    {
        ZELShellServer *const first = m_server.get();
        auto second = std::make_unique<ZELShellServer>();
        auto third = std::make_unique<ZELShellServer>();
        second.reset();
        QCOMPARE(ZELShellServer::seft, third.get());
        third.reset();
        QCOMPARE(ZELShellServer::seft, first);
        QVERIFY(ZELShell(nullptr).EnterDir("net"));
    }

    /// The shell that was stopped takes nothing of what is typed for the next one, and does not end the process.
    void terminalStartedAgain()
    {
        int ends[2];
        QCOMPARE(pipe(ends), 0);
        const int before = dup(STDIN_FILENO);
        dup2(ends[0], STDIN_FILENO);
        close(ends[0]);
        m_server->startServer();
        m_server->closeServer();
        m_server->startServer();
        QCOMPARE(write(ends[1], "net/wait\n", 9), ssize_t(9));
        QTimer::singleShot(1000, qApp, [] { QCoreApplication::exit(7); });
        QCOMPARE(QCoreApplication::exec(), 7);
        QTRY_COMPARE(m_board->running.load(), 1);
        QTRY_COMPARE(m_server->ClientNumber(), 1);
        m_board->leave = true;
        close(ends[1]);
        QTRY_COMPARE(m_server->ClientNumber(), 0);
        dup2(before, STDIN_FILENO);
        close(before);
    }

    void counts()
    {
        QCOMPARE(m_server->ClientNumber(), 0);
        QCOMPARE(m_server->serverPort(), quint16(0));
        QTest::ignoreMessage(QtDebugMsg, "start RPC Server thread...");
        m_server->startTcpServer(0);
        QVERIFY(m_server->isListening());
        {
            RemoteUser first(m_server->serverPort()), second(m_server->serverPort());
            QTRY_COMPARE(m_server->ClientNumber(), 2);
            QTRY_VERIFY(first.has("ConnectId = ") && second.has("ConnectId = "));
            second.send("net/ping 1 2");
            QTRY_VERIFY(second.has("2"));
            second.send("quit");
            QTRY_VERIFY(second.isClosed());
            QTRY_COMPARE(m_server->ClientNumber(), 1);
            m_server->closeServer(); // accepted connections go on
            QVERIFY(!m_server->isListening());
            first.send("net/ping 1 2 3");
            QTRY_VERIFY(first.has("3"));
        }
        QTRY_COMPARE(m_server->ClientNumber(), 0);
    }

    void connectionsAreDescribed()
    {
        m_server->startTcpServer(0);
        QPointer<ZELShellBase> base;
        connect(m_server.get(), &ZELShellServer::shellConnected, this, [&](QPointer<ZELShellBase> made) {
            base = made;
            base->setProductId("Rack");
        });
        m_server->setLineLimit(100);
        RemoteUser peer(m_server->serverPort());
        QTRY_VERIFY(peer.has("Rack\nConnectId = "));
        auto *shell = qobject_cast<ZELShell *>(base.data());
        QVERIFY(shell);
        QCOMPARE(shell->shellName(), QString("TcpStream_127.0.0.1"));
        const QString port = QString::number(peer.socket.localPort());
        QVERIFY(shell->connectionDescription().startsWith("Stream=TcpStream;PeerName="));
        QVERIFY(shell->connectionDescription().endsWith(";PeerAddress=127.0.0.1;PeerPort=" + port + ';'));
        QVERIFY(shell->shellLicence().startsWith("TcpStream_127.0.0.1@{"));
        peer.send(QByteArray(200, 'x'));
        QTRY_VERIFY(peer.has("100 bytes"));
    }

    void connectOut()
    {
        QTcpServer waiting;
        QVERIFY(waiting.listen(QHostAddress::LocalHost, 0));
        QVERIFY(m_server->connectToTcp("127.0.0.1", waiting.serverPort()));
        QCOMPARE(m_server->ClientNumber(), 1);
        QTRY_VERIFY(waiting.hasPendingConnections());
        QTcpSocket *socket = waiting.nextPendingConnection();
        socket->write("--nt\nnet/ping 1 2 3 4\n");
        QByteArray got;
        QTRY_VERIFY((got += socket->readAll()).contains("ConnectId = ") && got.endsWith("4\r\n"));
        m_server->closeServer();
        QTRY_COMPARE(socket->state(), QAbstractSocket::UnconnectedState);
        QTRY_COMPARE(m_server->ClientNumber(), 0);
        m_server->closeServer();

        const quint16 port = waiting.serverPort();
        waiting.close();
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!m_server->connectToTcp("127.0.0.1", port));
        QVERIFY(timer.elapsed() < 10000);
        QCOMPARE(m_server->ClientNumber(), 0);
        // Listening goes by the address that was set, and ends from any thread.
        m_server->setListenAddress(QHostAddress("127.0.0.2"));
        m_server->startTcpServer(0);
        QTcpSocket stranger;
        stranger.connectToHost("127.0.0.1", m_server->serverPort());
        QVERIFY(!stranger.waitForConnected(2000));
        std::thread([this] { m_server->closeServer(); }).join();
        QTRY_VERIFY(!m_server->isListening());
    }

    void destroyedWhileShellsRun()
    {
        for (int round = 0; round < 5; ++round) {
            m_server->startTcpServer(0);
            RemoteUser first(m_server->serverPort()), second(m_server->serverPort());
            first.send("net/wait");
            second.send("net/wait &");
            QTRY_COMPARE(m_board->running.load(), 2);
            m_server.reset();
            m_board->leave = true;
            QTRY_COMPARE(m_board->running.load(), 0);
            QTRY_VERIFY(first.isClosed() && second.isClosed());
            m_board->leave = false;
            init();
        }
    }

    void permissionFunction()
    {
        m_server->setPermissionFunction([](const ZELArguments &args) {
            if (args[1] == "crash")
                throw std::runtime_error("bad rule");
            return args.getExecPath() == "/Main/net/ping" && args.ArgumentsLength() == 1;
        });
        m_server->setHelpFunction([](ZELArguments args) { args.debug() << "help!"; });
        m_server->startTcpServer(0);
        RemoteUser peer(m_server->serverPort());
        QTRY_VERIFY(peer.has("ConnectId = "));
        peer.send("net/ping 1;$a = net/ping 1;net/ping 1 2");
        QTRY_COMPARE((peer.has("!"), peer.got), QByteArray("1\r\n1\r\nnet/ping is not permitted!\r\n"));
        for (const char *refused : {"net/wait -h", "cd net", "exit", "sys echo open", "net/ping crash"}) {
            peer.send(QByteArray(refused) + " 2");
            QTRY_VERIFY2(peer.has("is not permitted!\r\n"), refused);
            QVERIFY(!peer.has("help!") && !peer.has("open"));
        }
        peer.send("net/ping 1 2 UFJPVE9DT0w9WkVMX1NIRUxM");
        QTRY_VERIFY(peer.has("State: EXECUTE_PERMISSION_ERROR\r\n") && peer.has("ZEL_SHELL_PACKET_END\r\n"));
        QCOMPARE(peer.got.count("ZEL_SHELL_PACKET_START"), 1);
        m_server->setPermissionFunction({});
        for (bool open : {true, false}) {
            m_server->setRemoteSystemCommands(open);
            peer.send("sys echo op''en");
            QTRY_VERIFY(peer.has(open ? "open" : "sys is not permitted!"));
            QCOMPARE(peer.has("open"), open);
        }
        peer.send("quit");
        QTRY_VERIFY(peer.isClosed());
    }

    void logins_data()
    {
        Table<QByteArray, bool> row("handshake", "letIn");
        row("nobody", "--nt", false);
        row("right password", "--nt --user ann --password secret", true);
        row("wrong password", "--nt --user ann --password other", false);
        row("unknown name with key", "--nt --user eve --password x --key 6a1e4b4e-0c0a-4a7e-9d7e-0123456789ab", false);
        row("unknown key", "--nt --key 6a1e4b4e-0c0a-4a7e-9d7e-0123456789ab", false);
    }

    void logins()
    {
        QFETCH(QByteArray, handshake);
        QFETCH(bool, letIn);
        UserDatabase users;
        const QSqlDatabase &database = users.database;
        ZELUser("ann", "secret", database).logout();
        m_server->setDatabase(database);
        m_server->setLoginRequired(true);
        m_server->setPasswordHidden(true);
        m_server->startTcpServer(0);
        if (handshake.contains("--password secret"))
            QTest::ignoreMessage(QtDebugMsg, QRegularExpression(".*get input =.*--password \\*\\*\\*.*"));
        {
            RemoteUser peer(m_server->serverPort(), handshake + '\n');
            QTRY_VERIFY(letIn ? peer.has("ConnectId = ") : peer.isClosed());
            QCOMPARE(peer.has("Error : login required\n"), !letIn);
            QCOMPARE(ZELUser::loggedIn().size(), letIn ? 1 : 0);
        }
        QTRY_COMPARE(m_server->ClientNumber(), 0);
        QTRY_VERIFY(ZELUser::loggedIn().isEmpty());
        QVERIFY(!ZELUser::loginAs("eve", "secret", database, QUuid(), false).isLogin());
        m_server->setDatabase(QSqlDatabase());
    }

    void handshakeLimits()
    {
        m_server->startTcpServer(0);
        RemoteUser wordy(m_server->serverPort(), QByteArray(5000, 'x') + '\n');
        QTRY_VERIFY(wordy.has("Error : input is longer than 4096 bytes") && wordy.isClosed());
        m_server->setHandshakeLimits(64, 200);
        RemoteUser slow(m_server->serverPort(), "--n");
        QTRY_VERIFY(slow.has("Error : no handshake in time") && slow.isClosed());
        // Those who say nothing make way for those who wait, long before their own time is over.
        m_server->setHandshakeLimits(3, 60000);
        std::vector<std::unique_ptr<RemoteUser>> silent;
        for (int i = 0; i < 5; ++i)
            silent.emplace_back(new RemoteUser(m_server->serverPort(), ""));
        QTRY_COMPARE(m_server->ClientNumber(), 3);
        RemoteUser good(m_server->serverPort());
        QTRY_VERIFY_WITH_TIMEOUT(good.has("ConnectId = "), 10000);
        QTRY_VERIFY(silent.front()->isClosed());
        m_server->setHandshakeLimits(64, 10000);
        // A byte now and then is no statement.
        m_server->setIdleLimit(500);
        RemoteUser talker(m_server->serverPort());
        QTRY_VERIFY(talker.has("ConnectId = "));
        QElapsedTimer timer;
        for (timer.start(); !talker.isClosed() && timer.elapsed() < 5000; QTest::qWait(50))
            talker.socket.write("x");
        QVERIFY(talker.isClosed());
        m_server->setIdleLimit(0);
    }

    void keyOfAnotherSession()
    {
        UserDatabase users;
        const QSqlDatabase &database = users.database;
        {
            ZELUser ann("ann", "secret", database);
            QVERIFY(ann.isLogin());
            const QByteArray key = ann.uid().toByteArray(QUuid::WithoutBraces);
            m_server->startTcpServer(0);
            RemoteUser before(m_server->serverPort(), "--nt --key " + key + '\n');
            QTRY_VERIFY(before.has("ConnectId = {" + key + "}"));
            m_server->setKeyLogin(false);
            RemoteUser after(m_server->serverPort(), "--nt --user eve --password x --key " + key + '\n');
            QTRY_VERIFY(after.has("ConnectId = {"));
            QVERIFY(!after.has(key));
            before.send("quit");
            QTRY_VERIFY(before.isClosed());
            ann.logout();
        }
        m_server->setDatabase(database);
        QTRY_COMPARE(m_server->ClientNumber(), 0);
        RemoteUser torn(m_server->serverPort(), "--nt --user an");
        QTRY_COMPARE(m_server->ClientNumber(), 1);
        torn.socket.disconnectFromHost(); // the name was not complete
        QTRY_COMPARE(m_server->ClientNumber(), 0);
        QVERIFY(!ZELUser::loginAs("an", "", database, QUuid(), false).isLogin());
        m_server->setDatabase(QSqlDatabase());
    }

    void terminalShell_data()
    {
        Table<QByteArray, int, int> row("typed", "wait", "code");
        row("quit", "net/ping 1\nquit\n", 0, 0);
        row("exit", "exit\n", 0, 0);
        row("exit before the loop", "exit\n", 200, 0);
        row("reinit", "reinit\n", 200, 8888); // last: a restart is wanted from then on
    }

    void terminalShell()
    {
        QFETCH(QByteArray, typed);
        QFETCH(int, wait);
        QFETCH(int, code);
        Pty terminal;
        const StandardInput input(terminal.slave);
        m_server->startServer();
        QCOMPARE(m_server->ClientNumber(), 1);
        terminal.type(typed);
        QThread::msleep(wait);
        QTimer watchdog;
        connect(&watchdog, &QTimer::timeout, [] { QCoreApplication::exit(-1); });
        watchdog.start(20000);
        QCOMPARE(QCoreApplication::exec(), code);
        QTRY_COMPARE(m_server->ClientNumber(), 0);
    }

private:
    std::unique_ptr<ZELShellServer> m_server;
    std::unique_ptr<Board> m_board;
};

QTEST_GUILESS_MAIN(tst_ZELShellServer)
#include "tst_zelshellserver.moc"
