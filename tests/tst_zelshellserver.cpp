// SPDX-License-Identifier: MIT
#include "remoteuser.h"
#include "zelshell.h"
#include "zelshellserver.h"
#include "zeluser.h"

#include <QCoreApplication>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QtTest>
#include <atomic>
#include <pty.h>
#include <unistd.h>

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

/// A terminal in the place of descriptor 0, for one test.
struct Terminal
{
    int master = -1;
    int saved = ::dup(0);
    Terminal()
    {
        int slave = -1;
        const winsize size{24, 80, 0, 0};
        if (::openpty(&master, &slave, nullptr, nullptr, &size) != 0)
            qFatal("no pty");
        ::dup2(slave, 0);
        ::close(slave);
    }
    ~Terminal()
    {
        ::dup2(saved, 0);
        ::close(saved);
        ::close(master);
    }
    void type(const QByteArray &text) const
    {
        QCOMPARE(int(::write(master, text.constData(), text.size())), text.size());
    }
};

class tst_ZELShellServer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();
    void counts();
    void connectionsAreDescribed();
    void listenAddress();
    void connectOut();
    void connectOutFails();
    void closeFromAnotherThread();
    void destroyedWhileShellsRun();
    void permissionFunction();
    void remoteSystemCommands();
    void logins_data();
    void logins();
    void keyOfAnotherSession();
    void terminalShell_data();
    void terminalShell();

private:
    std::unique_ptr<ZELShellServer> m_server;
    std::unique_ptr<Board> m_board;
};

void tst_ZELShellServer::init()
{
    m_server = std::make_unique<ZELShellServer>();
    m_board = std::make_unique<Board>();
    m_server->setListenAddress(QHostAddress::LocalHost);
    QVERIFY(m_server->registerCmd("net", "ping", m_board.get(), SLOT(ping(ZELArguments))));
    QVERIFY(m_server->registerCmd("net", "wait", m_board.get(), SLOT(wait(ZELArguments)), true));
}

void tst_ZELShellServer::cleanup()
{
    m_board->leave = true;
    QTRY_COMPARE(m_board->running.load(), 0);
    m_server.reset();
    m_board.reset();
}

void tst_ZELShellServer::counts()
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

void tst_ZELShellServer::connectionsAreDescribed()
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

void tst_ZELShellServer::listenAddress()
{
    QCOMPARE(m_server->listenAddress(), QHostAddress(QHostAddress::LocalHost));
    m_server->setListenAddress(QHostAddress("127.0.0.2"));
    m_server->startTcpServer(0);
    QTcpSocket socket;
    socket.connectToHost("127.0.0.1", m_server->serverPort());
    QVERIFY(!socket.waitForConnected(2000));
}

void tst_ZELShellServer::connectOut()
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
}

void tst_ZELShellServer::connectOutFails()
{
    QTcpServer gone;
    QVERIFY(gone.listen(QHostAddress::LocalHost, 0));
    const quint16 port = gone.serverPort();
    gone.close();
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!m_server->connectToTcp("127.0.0.1", port));
    QVERIFY(!m_server->connectToTcp("127.0.0.1", port));
    QVERIFY(timer.elapsed() < 10000);
    QCOMPARE(m_server->ClientNumber(), 0);
}

void tst_ZELShellServer::closeFromAnotherThread()
{
    m_server->startTcpServer(0);
    std::thread([this] { m_server->closeServer(); }).join();
    QTRY_VERIFY(!m_server->isListening());
}

void tst_ZELShellServer::destroyedWhileShellsRun()
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

void tst_ZELShellServer::permissionFunction()
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
    peer.send("quit");
    QTRY_VERIFY(peer.isClosed());
}

void tst_ZELShellServer::remoteSystemCommands()
{
    m_server->startTcpServer(0);
    RemoteUser peer(m_server->serverPort());
    QTRY_VERIFY(peer.has("ConnectId = "));
    peer.send("sys echo op''en");
    QTRY_VERIFY(peer.has("open"));
    m_server->setRemoteSystemCommands(false);
    peer.send("sys echo op''en");
    QTRY_VERIFY(peer.has("sys is not permitted!"));
    QVERIFY(!peer.has("open"));
}

void tst_ZELShellServer::logins_data()
{
    QTest::addColumn<QByteArray>("handshake");
    QTest::addColumn<bool>("letIn");
    QTest::newRow("nobody") << QByteArray("--nt") << false;
    QTest::newRow("right password") << QByteArray("--nt --user ann --password secret") << true;
    QTest::newRow("wrong password") << QByteArray("--nt --user ann --password other") << false;
    QTest::newRow("unknown name") << QByteArray("--nt --user eve --password secret") << false;
    QTest::newRow("unknown name with key")
        << QByteArray("--nt --user eve --password x --key 6a1e4b4e-0c0a-4a7e-9d7e-0123456789ab") << false;
    QTest::newRow("unknown key") << QByteArray("--nt --key 6a1e4b4e-0c0a-4a7e-9d7e-0123456789ab") << false;
    QTest::newRow("empty key") << QByteArray("--nt --key") << false;
}

void tst_ZELShellServer::logins()
{
    QFETCH(QByteArray, handshake);
    QFETCH(bool, letIn);
    QTemporaryDir directory;
    QSqlDatabase database = QSqlDatabase::addDatabase("QSQLITE", "users");
    database.setDatabaseName(directory.filePath("users.db"));
    const auto close = qScopeGuard([&] {
        database = QSqlDatabase();
        QSqlDatabase::removeDatabase("users");
    });
    QVERIFY(database.open());
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

void tst_ZELShellServer::keyOfAnotherSession()
{
    QSqlDatabase database = QSqlDatabase::addDatabase("QSQLITE", "keys");
    QTemporaryDir directory;
    database.setDatabaseName(directory.filePath("users.db"));
    QVERIFY(database.open());
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
    database = QSqlDatabase();
    QSqlDatabase::removeDatabase("keys");
}

void tst_ZELShellServer::terminalShell_data()
{
    QTest::addColumn<QByteArray>("typed");
    QTest::addColumn<int>("wait");
    QTest::addColumn<int>("code");
    QTest::newRow("quit") << QByteArray("net/ping 1\nquit\n") << 0 << 0;
    QTest::newRow("exit") << QByteArray("exit\n") << 0 << 0;
    QTest::newRow("exit before the loop") << QByteArray("exit\n") << 200 << 0;
    QTest::newRow("reinit") << QByteArray("reinit\n") << 200 << 8888; // last: a restart is wanted from then on
}

void tst_ZELShellServer::terminalShell()
{
    QFETCH(QByteArray, typed);
    QFETCH(int, wait);
    QFETCH(int, code);
    Terminal terminal;
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

QTEST_GUILESS_MAIN(tst_ZELShellServer)
#include "tst_zelshellserver.moc"
