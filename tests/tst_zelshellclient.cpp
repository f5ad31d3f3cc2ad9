// SPDX-License-Identifier: MIT
#include "fakehost.h"
#include "zelshellclient.h"

#include <QtTest>
#include <atomic>
#include <random>

using Process = std::shared_ptr<ZELShellProcess>;
static const QString local("127.0.0.1");

/// Counts a signal that may come on any thread, which a QSignalSpy does not bear.
class Count
{
public:
    template <class Signal>
    Count(ZELShellClient &client, Signal signal)
    {
        QObject::connect(
            &client, signal, &client, [count = m_count] { ++*count; }, Qt::DirectConnection);
    }
    int count() const { return *m_count; }

private:
    std::shared_ptr<std::atomic<int>> m_count = std::make_shared<std::atomic<int>>(0);
};

class tst_ZELShellClient : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void greetsAndReadsTheBanner();
    void packetRightBehindTheBanner();
    void failures_data();
    void failures();
    void loginIsKnownByTheKey();
    void answersFindTheirRecords();
    void hookComesFirstAndMayUseTheClient();
    void unnumberedStatements();
    void latePacketsOfRemovedRecords();
    void recordsAreHeldWhilePending();
    void endReleasesEverybodyAndReconnects();
    void tornPackets();
    void hostDialsOut();
    void terminalSession();
    void closeFromAHookAndWhileConnecting();
    void destroyedUnderAHook();
};

void tst_ZELShellClient::greetsAndReadsTheBanner()
{
    Note hello;
    FakeHost host([&](QTcpSocket &socket) {
        hello.write(FakeHost::greet(socket));
        socket.waitForReadyRead(5000);
    });
    ZELShellClient client;
    Count connected(client, &ZELShellClient::connected), disconnected(client, &ZELShellClient::disconnected);
    QVERIFY2(client.connectToHost(local, host.port(), 5000), qPrintable(client.errorString()));
    QVERIFY(client.isConnected() && !client.isLogin());
    QCOMPARE(client.banner(), QString(FakeHost::banner()));
    QCOMPARE(client.connectId(), QUuid("{11111111-2222-3333-4444-555555555555}"));
    QVERIFY(!client.connectToHost(local, host.port(), 5000));
    QVERIFY(client.isConnected());
    client.close();
    client.close();
    QVERIFY(!client.isConnected());
    QCOMPARE(hello.read(), QByteArray("--nt\n"));
    QCOMPARE(connected.count(), 1);
    QCOMPARE(disconnected.count(), 1);
}

// Banner, an answer and half of the next in one piece; nothing more until the client asks.
void tst_ZELShellClient::packetRightBehindTheBanner()
{
    FakeHost host([&](QTcpSocket &socket) {
        FakeHost::readLine(socket);
        FakeHost::send(socket,
            FakeHost::banner() + FakeHost::packet("early", "EXECUTE_COMPLETE", "a")
                + FakeHost::packet("early", "EXECUTE_COMPLETE", "b"));
        socket.waitForReadyRead(5000);
    });
    ZELShellClient client;
    std::atomic<int> packets{0};
    client.setRequestHook([&](ZELShellProcessHeader) { ++packets; });
    QVERIFY(client.connectToHost(local, host.port(), 5000));
    QTRY_COMPARE(packets.load(), 2);
}

void tst_ZELShellClient::failures_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<bool>("hangUp");
    QTest::addColumn<QString>("error");
    const QString noShell = "what answers there is not a shell";
    QTest::newRow("refused login") << QByteArray("Error : login required\n") << true << "Error : login required";
    QTest::newRow("full") << QByteArray() << true << "connection closed by the host";
    QTest::newRow("silent") << QByteArray() << false << "no greeting of a shell in time";
    QTest::newRow("half a banner") << QByteArray("ZELShell\nConnectId = {1111") << false
                                   << "no greeting of a shell in time";
    QTest::newRow("not at a line's head") << QByteArray("x ConnectId = {1}\n") << true << "x ConnectId = {1}";
    QTest::newRow("bad id") << QByteArray("ConnectId = hello\n") << false << noShell;
    QTest::newRow("garbage") << QByteArray(200000, '\xff') << false << noShell;
    QTest::newRow("bell and escapes") << QByteArray("\033[2Jno\007\n") << true << "?[2Jno?";
}

void tst_ZELShellClient::failures()
{
    QFETCH(QByteArray, answer);
    QFETCH(bool, hangUp);
    FakeHost host([&](QTcpSocket &socket) {
        FakeHost::readLine(socket);
        FakeHost::send(socket, answer);
        if (!hangUp)
            socket.waitForDisconnected(5000);
    });
    ZELShellClient client;
    Count errors(client, &ZELShellClient::error);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!client.connectToHost(local, host.port(), 400));
    QVERIFY(timer.elapsed() < 3000);
    QTEST(client.errorString(), "error");
    QCOMPARE(errors.count(), 1);
    QVERIFY(!client.isConnected());
    QVERIFY(client.execute("x")->wait(0));
}

void tst_ZELShellClient::loginIsKnownByTheKey()
{
    std::atomic<bool> accept{true};
    Note hello;
    FakeHost host([&](QTcpSocket &socket) {
        const QByteArray line = FakeHost::readLine(socket).trimmed(), key = line.mid(line.lastIndexOf(' ') + 1);
        hello.write(line);
        FakeHost::send(socket, accept ? FakeHost::banner('{' + key + '}') : FakeHost::banner());
        socket.waitForReadyRead(5000);
    });
    ZELShellClient client;
    client.setUser("bob the builder", "p w");
    for (bool accepted : {true, false}) {
        accept = accepted;
        QVERIFY(client.connectToHost(local, host.port(), 5000));
        QCOMPARE(client.isLogin(), accepted);
        QVERIFY(hello.read().startsWith("--nt --user \"bob the builder\" --password \"p w\" --key "));
        client.close();
    }
    const QUuid key = QUuid::createUuid();
    client.setUser(QString(), QString());
    client.setKey(key);
    accept = true;
    QVERIFY(client.connectToHost(local, host.port(), 5000));
    QCOMPARE(client.connectId(), key);
    QVERIFY2(!client.isLogin(), "a key alone proves no login");
    client.close();
    client.setUser("bob", "'\"([{");
    QVERIFY(!client.connectToHost(local, host.port(), 5000));
}

// The host answers in another order than it was asked.
void tst_ZELShellClient::answersFindTheirRecords()
{
    FakeHost host([&](QTcpSocket &socket) {
        FakeHost::greet(socket);
        QByteArrayList keys;
        for (int i = 0; i < 50; ++i)
            keys << FakeHost::readLine(socket).split(' ').first();
        std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
        for (int part = 0; part < 3; ++part)
            for (const QByteArray &key : keys)
                FakeHost::send(socket,
                    FakeHost::packet(key, part < 2 ? "EXECUTE_PROCESS" : "EXECUTE_RESULT", key + char('a' + part),
                        part < 2 ? QByteArray() : "ReturnType: 10\r\nReturn: " + key.toBase64() + "\r\n"));
        socket.waitForDisconnected(5000);
    });
    ZELShellClient client;
    QVERIFY(client.connectToHost(local, host.port(), 5000));
    QList<Process> processes;
    for (int i = 0; i < 50; ++i)
        processes << client.execute("command x", i % 2);
    QVERIFY(client.findProcess(processes[7]->key()) == processes[7] || processes[7]->wait(0));
    for (const Process &process : processes) {
        const QString key = process->key();
        QVERIFY(process->wait(10000));
        QCOMPARE(process->getTextOutput(0), key + "a" + key + "b" + key + "c");
        QCOMPARE(process->getReturnValue(0), key);
    }
    QCOMPARE(client.pendingProcesses(), 0);
}

void tst_ZELShellClient::hookComesFirstAndMayUseTheClient()
{
    FakeHost host([&](QTcpSocket &socket) {
        FakeHost::greet(socket);
        for (QByteArray line = FakeHost::readLine(socket); !line.isEmpty(); line = FakeHost::readLine(socket))
            FakeHost::send(socket, FakeHost::packet(line.split(' ').first(), "EXECUTE_COMPLETE", "done"));
    });
    ZELShellClient client;
    std::atomic<bool> earlier{false};
    Process second;
    client.setRequestHook([&](ZELShellProcessHeader header) {
        const Process process = client.findProcess(header.getRequestMethod());
        earlier = earlier || (process && !process->wait(0));
        if (!second)
            second = client.execute("second");
    });
    QVERIFY(client.connectToHost(local, host.port(), 5000));
    const Process first = client.createProcess("first");
    std::atomic<bool> sentFromHook{false};
    first->setProcess([&](ZELShellProcessHeader) { sentFromHook = client.sendLine("third", false); }, false);
    first->send();
    QVERIFY(first->wait(5000));
    QVERIFY(earlier && sentFromHook);
    QVERIFY(second && second->wait(5000));
    client.close();
}

void tst_ZELShellClient::unnumberedStatements()
{
    FakeHost host([&](QTcpSocket &socket) {
        FakeHost::greet(socket);
        for (QByteArray line = FakeHost::readLine(socket); !line.isEmpty(); line = FakeHost::readLine(socket)) {
            const QByteArray word = line.split(' ').first();
            const QByteArray key = word == "$cmd" ? "real" : word == "\"a" ? "\"a" : word;
            FakeHost::send(socket, FakeHost::packet(key, "EXECUTE_COMPLETE", "answer to " + word));
        }
    });
    ZELShellClient client;
    QVERIFY(client.connectToHost(local, host.port(), 5000));
    QList<Process> processes;
    const QStringList lines{"42", "$x", "\"a b\"", "$cmd 1", "$x", "run", "-7"};
    for (const QString &line : lines)
        processes << client.execute(line);
    for (int i = 0; i < lines.size(); ++i) {
        QVERIFY2(processes[i]->wait(5000), qPrintable(lines[i]));
        QCOMPARE(processes[i]->getTextOutput(0), "answer to " + processes[i]->getCommand().section(' ', 0, 0));
    }
}

void tst_ZELShellClient::latePacketsOfRemovedRecords()
{
    FakeHost host([&](QTcpSocket &socket) {
        FakeHost::greet(socket);
        const QByteArray removed = FakeHost::readLine(socket).split(' ').first();
        FakeHost::readLine(socket);
        FakeHost::send(socket, FakeHost::packet(removed, "EXECUTE_COMPLETE", "late"));
        FakeHost::send(socket, FakeHost::packet("42", "EXECUTE_COMPLETE", "literal"));
        socket.waitForDisconnected(5000);
    });
    ZELShellClient client;
    QVERIFY(client.connectToHost(local, host.port(), 5000));
    const Process removed = client.execute("slow");
    client.removeProcess(removed);
    QVERIFY(!client.findProcess(removed->key()));
    const Process literal = client.execute("42");
    QVERIFY(literal->wait(5000));
    QCOMPARE(literal->getTextOutput(0), QString("literal"));
    QCOMPARE(removed->getTextOutput(0), QString());
}

void tst_ZELShellClient::recordsAreHeldWhilePending()
{
    FakeHost host([&](QTcpSocket &socket) {
        FakeHost::greet(socket);
        const QByteArray key = FakeHost::readLine(socket).split(' ').first();
        FakeHost::readLine(socket);
        FakeHost::send(socket, FakeHost::packet(key, "EXECUTE_COMPLETE", "done"));
        socket.waitForDisconnected(5000);
    });
    ZELShellClient client;
    QVERIFY(client.connectToHost(local, host.port(), 5000));
    const QString unsent = client.createProcess("unsent")->key();
    QVERIFY2(!client.findProcess(unsent), "nobody holds a record that was not sent");
    const std::weak_ptr<ZELShellProcess> record = client.execute("held");
    QVERIFY(!record.expired());
    QCOMPARE(client.findProcess(record.lock()->key()), record.lock());
    client.sendLine("go", false);
    QTRY_VERIFY(record.expired());
    // A number of the caller's own must be free.
    const Process own = client.createProcess("x#1000");
    QTest::ignoreMessage(QtWarningMsg, "ZELShellClient::createProcess: number in use");
    QVERIFY(!client.createProcess("x#1000"));
}

void tst_ZELShellClient::endReleasesEverybodyAndReconnects()
{
    std::atomic<int> connection{0};
    FakeHost host([&](QTcpSocket &socket) {
        FakeHost::greet(socket);
        const QByteArray key = FakeHost::readLine(socket).split(' ').first();
        if (connection++ == 0)
            for (int i = 0; i < 99; ++i)
                FakeHost::readLine(socket);
        else
            FakeHost::send(socket, FakeHost::packet(key, "EXECUTE_COMPLETE", "again"));
    });
    ZELShellClient client;
    Count errors(client, &ZELShellClient::error), disconnected(client, &ZELShellClient::disconnected);
    QVERIFY(client.connectToHost(local, host.port(), 5000));
    const Process unsent = client.createProcess("kept");
    QList<Process> processes;
    for (int i = 0; i < 100; ++i)
        processes << client.execute(i % 10 ? "command" : "$x");
    for (const Process &process : processes) {
        QVERIFY(process->wait(5000));
        QCOMPARE(process->lastPacket().getProcessStatus(), int(ZELShellProcessHeader::Unknown));
    }
    QTRY_COMPARE(disconnected.count(), 1);
    QCOMPARE(errors.count(), 1);
    QVERIFY(!client.isConnected());
    QCOMPARE(client.errorString(), QString("connection closed by the host"));
    QVERIFY(client.connectToHost(local, host.port(), 5000));
    QVERIFY(!unsent->wait(0));
    QVERIFY(unsent->send() && unsent->wait(5000));
    QCOMPARE(unsent->getTextOutput(0), QString("again"));
}

void tst_ZELShellClient::tornPackets()
{
    FakeHost host([&](QTcpSocket &socket) {
        FakeHost::greet(socket);
        QByteArray answers;
        for (int i = 0; i < 20; ++i) {
            const QByteArray key = FakeHost::readLine(socket).split(' ').first();
            answers += "noise " + FakeHost::packet(key, "EXECUTE_PROCESS", "a")
                + FakeHost::packet(key, "EXECUTE_COMPLETE", "b");
        }
        std::mt19937 random(1);
        for (int at = 0; at < answers.size();) {
            const int size = 1 + int(random() % 40);
            FakeHost::send(socket, answers.mid(at, size));
            at += size;
        }
        socket.waitForDisconnected(5000);
    });
    ZELShellClient client;
    QVERIFY(client.connectToHost(local, host.port(), 5000));
    QList<Process> processes;
    for (int i = 0; i < 20; ++i)
        processes << client.execute("x");
    for (const Process &process : processes)
        QCOMPARE(process->getTextOutput(5000), QString("ab"));
}

void tst_ZELShellClient::hostDialsOut()
{
    ZELShellClient client;
    QVERIFY(!client.waitForHost(10));
    QVERIFY(client.listen(local, 0));
    QVERIFY(!client.waitForHost(10));
    std::thread host([port = client.listenPort()] {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, port);
        socket.waitForConnected(5000);
        FakeHost::greet(socket);
        const QByteArray key = FakeHost::readLine(socket).split(' ').first();
        FakeHost::send(socket, FakeHost::packet(key, "EXECUTE_COMPLETE", "out"));
        socket.waitForDisconnected(5000);
    });
    const bool came = client.waitForHost(5000);
    const QString text = came ? client.execute("x")->getTextOutput(5000) : client.errorString();
    client.close();
    host.join();
    QCOMPARE(text, QString("out"));
    QCOMPARE(client.listenPort(), quint16(0));

    QVERIFY(client.listen(local, 0));
    std::thread closer([&] {
        QThread::msleep(50);
        client.close();
    });
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!client.waitForHost(20000));
    closer.join();
    QVERIFY(timer.elapsed() < 5000);
}

void tst_ZELShellClient::terminalSession()
{
    Note hello, keys;
    FakeHost host([&](QTcpSocket &socket) {
        hello.write(FakeHost::readLine(socket));
        FakeHost::send(socket, FakeHost::banner() + "\033[32mprompt");
        keys.write(FakeHost::readLine(socket));
        FakeHost::send(socket, "ZEL_SHELL_PACKET_START\0\377");
    });
    ZELShellClient client;
    Note text;
    client.setTerminalHook([&](const QByteArray &bytes) { text.write(text.read() + bytes); });
    Count disconnected(client, &ZELShellClient::disconnected);
    QVERIFY(client.connectToHost(local, host.port(), 5000));
    QVERIFY(client.sendKeys("a\033[D\n"));
    QTRY_COMPARE(disconnected.count(), 1);
    QCOMPARE(hello.read(), QByteArray("\n"));
    QCOMPARE(keys.read(), QByteArray("a\033[D\n"));
    QCOMPARE(text.read(), QByteArray("\033[32mpromptZEL_SHELL_PACKET_START"));
}

void tst_ZELShellClient::closeFromAHookAndWhileConnecting()
{
    std::atomic<bool> greets{true};
    FakeHost host([&](QTcpSocket &socket) {
        if (greets) {
            FakeHost::greet(socket);
            const QByteArray key = FakeHost::readLine(socket).split(' ').first();
            FakeHost::send(socket, FakeHost::packet(key, "EXECUTE_COMPLETE", "x"));
        }
        socket.waitForDisconnected(5000);
    });
    ZELShellClient client;
    client.setRequestHook([&](ZELShellProcessHeader) { client.close(); });
    QVERIFY(client.connectToHost(local, host.port(), 5000));
    QVERIFY(client.execute("x")->wait(5000));
    QTRY_VERIFY(!client.isConnected());
    greets = false;
    std::thread closer([&] {
        QThread::msleep(50);
        client.close();
    });
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!client.connectToHost(local, host.port(), 20000));
    closer.join();
    QVERIFY(timer.elapsed() < 5000);
}

void tst_ZELShellClient::destroyedUnderAHook()
{
    FakeHost host([&](QTcpSocket &socket) {
        FakeHost::greet(socket);
        const QByteArray key = FakeHost::readLine(socket).split(' ').first();
        for (int i = 0; i < 50; ++i)
            FakeHost::send(socket, FakeHost::packet(key, "EXECUTE_PROCESS", "x"));
        socket.waitForDisconnected(5000);
    });
    for (int round = 0; round < 20; ++round) {
        auto client = std::make_unique<ZELShellClient>();
        std::atomic<bool> gone{false}, late{false};
        std::atomic<int> calls{0};
        client->setRequestHook([&](ZELShellProcessHeader) {
            late = late || gone;
            ++calls;
        });
        QVERIFY(client->connectToHost(local, host.port(), 5000));
        const Process process = client->execute("x");
        QTRY_VERIFY(calls > round % 5);
        client.reset();
        gone = true;
        QVERIFY(process->wait(5000));
        process->clear();
        QVERIFY(process->send());
        QVERIFY2(process->wait(5000), "a record without its client ends at once");
        QVERIFY(!late);
    }
}

QTEST_GUILESS_MAIN(tst_ZELShellClient)
#include "tst_zelshellclient.moc"
