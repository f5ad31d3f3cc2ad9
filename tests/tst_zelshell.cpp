// SPDX-License-Identifier: MIT
#include "noleakcheck.h"
#include "shellfixture.h"
#include "table.h"
#include "zelthread.h"

#include <QSignalSpy>
#include <QtTest>
#include <mutex>

namespace {

QStringList logged;
std::mutex logMutex;

void keepLog(QtMsgType, const QMessageLogContext &, const QString &text)
{
    std::lock_guard<std::mutex> lock(logMutex);
    logged << text;
}

QStringList log()
{
    std::lock_guard<std::mutex> lock(logMutex);
    return logged;
}

} // namespace

/// A session on a device that the test types at; the session deletes itself.
struct Session
{
    explicit Session(Board *board)
    {
        server.registerCmd("demo", "wait", board, SLOT(wait(ZELArguments)), true);
        server.registerCmd("demo", "sleep", board, SLOT(sleep(ZELArguments)), true);
        server.registerCmd("demo", "crash", board, SLOT(crash(ZELArguments)), true);
        server.registerCmd("demo", "value", board, SLOT(value(ZELArguments)), true);
    }
    ~Session()
    {
        device.end();
        QTRY_VERIFY_WITH_TIMEOUT(!shell, 10000);
        delete stream;
    }
    void start(bool ismain, bool isnotem, const QByteArray &typed = {})
    {
        device.type(typed);
        shell->Start(ismain, isnotem);
    }

    ZELShellServer server;
    FakeDevice device;
    ZELStream *stream = new ZELStream(&device, false);
    QPointer<ZELShell> shell = new ZELShell(stream);
};

class tst_ZELShell : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { qInstallMessageHandler(keepLog); }
    void init() { logged.clear(); }

    void typedLine()
    {
        Session session(&board);
        session.start(true, false);
        QTRY_COMPARE(session.device.text(), prompt);
        session.device.take();
        session.device.type("demo/value\n");
        QTRY_COMPARE(session.device.text(), "demo/value\n7\r\n" + prompt);
        QTRY_COMPARE(session.shell->getEnvironment("$?"), QString("7"));
        QVERIFY(session.shell->IsMain());
        QVERIFY(session.shell->isRunning());
        session.device.take();
        session.device.type("$a = 5\n$a\n\n");
        QTRY_COMPARE(session.device.text(), "$a = 5\n5\n" + prompt + "$a\n5\r\n" + prompt + "\n" + prompt);
        session.device.type("1;2;;3 ;\n");
        QTRY_VERIFY(session.device.text().endsWith("\n1\n2\n3\n" + prompt));
        QCOMPARE(session.shell->pendingStatements(), 0);
        QCOMPARE(session.shell->history().mid(3), QStringList({"1", "2", "3 "}));
    }

    void bytesAreEchoedTogether()
    {
        Session session(&board);
        session.start(true, false);
        QTRY_COMPARE(session.device.text(), prompt);
        session.device.take();
        session.device.type("ab\033[DX");
        QTRY_VERIFY(session.device.text().contains('X'));
        QCOMPARE(session.device.writes().size(), 1);
    }

    void handshakeAndBanner()
    {
        Session session(&board);
        session.shell->setVersionId("v1");
        session.start(false, false, "--nt --user \"a b\"\n");
        const QString id = session.shell->getUuid().toString();
        QTRY_COMPARE(session.device.text(), "ZELShell Start\nZELShell\nv1\nConnectId = " + id + "\n");
        QTRY_VERIFY(session.shell->isNoTerminal());
        QVERIFY(log().contains("================ get input =[ZELShell --nt --user \"a b\"]"));
        session.device.take();
        session.device.type("demo/value\t\033[A\177" + tag.toLatin1() + "\ndemo/value#1 " + tag.toLatin1() + "\r\n");
        QTRY_VERIFY(session.device.text().contains("PACKET_END"));
        QVERIFY(!session.device.text().contains("ZEL:~"));
    }

    void oneLineSession()
    {
        Session session(&board);
        QSignalSpy stopped(session.shell, &ZELShellBase::Stoped);
        session.start(true, true, "42;demo/value\nnever\n");
        QTRY_VERIFY(!session.shell);
        QVERIFY(session.device.text().endsWith("}\n42\n7\r\n"));
        QCOMPARE(stopped.count(), 1);
        QVERIFY(!session.device.released);
        QVERIFY(log().contains("ZELShell Closed!"));
    }

    void longStatementIsCutInTheLog()
    {
        Session session(&board);
        session.shell->setConnectionDescription("Stream=TcpStream;PeerName=n;PeerAddress=1.2.3.4;PeerPort=5;");
        session.start(true, false, QByteArray(600, 'x') + '\n');
        QTRY_VERIFY(session.device.text().endsWith("execate\n" + prompt));
        QVERIFY(log().contains("[n:1.2.3.4] input command [" + QString(500, 'x') + "...]"));
    }

    void completion()
    {
        Session session(&board);
        session.start(true, false, "demo/v\t\n");
        QTRY_COMPARE(session.device.text(), prompt + "demo/value\n7\r\n" + prompt);
        session.device.type("demo/\t");
        // The echo alone ends like this, too.
        QTRY_VERIFY(session.device.text().contains("crash") && session.device.text().endsWith(prompt + "demo/"));
    }

    void lineLimit_data()
    {
        Table<QByteArray, QString> row("line", "answer");
        const QByteArray filling(20000, 'x');
        row("plain", "foo " + filling, "Error : input is longer than 100 bytes\n");
        row("tag at the end", "foo#7 " + filling + " " + tag.toLatin1(), "PACKET_START foo#7\r\n");
        row("tag in front", "foo#7 " + tag.toLatin1() + filling, "PACKET_START foo#7\r\n");
        row("behind what is ignored", QByteArray(200, '\t') + "foo#7 " + tag.toLatin1(), "PACKET_START foo#7\r\n");
        row("assignment", "$a = foo#7 " + filling + tag.toLatin1(), "PACKET_START foo#7\r\n");
    }

    void lineLimit()
    {
        QFETCH(QByteArray, line);
        QFETCH(QString, answer);
        Session session(&board);
        session.shell->setLineLimit(100);
        session.start(false, false, "--nt\n" + line + "\n" + QByteArray(99, '5') + "\n7\n");
        QTRY_VERIFY(session.device.text().endsWith("\n" + QString(99, '5') + "\n7\n"));
        QCOMPARE(session.device.text().count(answer), 1);
        Session cut(&board);
        cut.shell->setLineLimit(100);
        cut.start(false, false, "--nt --user " + QByteArray(100, 'x') + "\n5\n");
        QTRY_VERIFY(!cut.shell);
        QCOMPARE(cut.device.text(), QString("Error : input is longer than 100 bytes\n"));
    }

    void backgroundJobs()
    {
        Session session(&board);
        session.start(true, false, "demo/wait 1 &\n$x = 3\n");
        QVERIFY(board.entered.tryAcquire(1, 5000));
        QTRY_COMPARE(session.shell->getEnvironment("$x"), QString("3"));
        const auto jobs = session.shell->getRunnings();
        QCOMPARE(jobs.size(), 1);
        QCOMPARE(jobs.first()->getLabel(), QString("ZELShell Cammand (demo/wait 1 )"));
        session.device.type("demo/wait &; demo/wait '" + tag.toLatin1() + "' &\n");
        QVERIFY(board.entered.tryAcquire(2, 5000));
        board.proceed.release(3);
        QTRY_VERIFY(session.shell->getRunnings().isEmpty());
        QVERIFY(!session.device.text().contains("PACKET")); // a quoted tag is text
        QTRY_COMPARE(session.shell->getEnvironment("$?"), QString("3"));
    }

    void jobOutlivesItsSession()
    {
        {
            Session session(&board);
            session.start(false, false, "--nt\n$a = demo/wait &\n");
            QVERIFY(board.entered.tryAcquire(1, 5000));
            session.device.end();
            QTRY_VERIFY_WITH_TIMEOUT(!session.shell, 10000);
            QVERIFY(session.device.released);
        }
        QVERIFY(log().contains("Waring: \"ZELShell Cammand ($a = demo/wait )\" is not closed while of shell closing."));
        QCOMPARE(log().filter("Thread exit failed").size(), 1);
        board.proceed.release();
        QTRY_VERIFY(!board.proceed.available());
    }

    void idleLimit()
    {
        Session quiet(&board);
        quiet.shell->setIdleLimit(100);
        quiet.start(false, false, "--nt\n");
        QTRY_VERIFY(!quiet.shell);

        Session busy(&board);
        busy.shell->setIdleLimit(100);
        busy.start(false, false, "--nt\ndemo/wait &\ndemo/wait\n");
        QVERIFY(board.entered.tryAcquire(2, 5000));
        QTest::qWait(300);
        board.proceed.release();
        QTest::qWait(300);
        QVERIFY(busy.shell->isRunning());
        busy.shell->setIdleLimit(0); // never from now on
        board.proceed.release();
        QTest::qWait(300);
        QVERIFY(busy.shell && busy.shell->isRunning());
        busy.shell->setIdleLimit(100);
        QTRY_VERIFY(!busy.shell);
    }

    void interrupt()
    {
        const QString interrupted = "EXECUTE_ERROR :Interrupted\r\n";
        Session session(&board);
        session.shell->setInterruptible(true);
        session.start(false, false, "\ndemo/sleep\n");
        QVERIFY(board.entered.tryAcquire(1, 5000));
        session.device.type("4");
        session.device.type("\003");
        QTRY_VERIFY(session.device.text().endsWith("\n" + interrupted + prompt + "4"));
        session.device.take();
        session.device.type("2\n");
        QTRY_COMPARE(session.device.text(), "2\n42\n" + prompt);
        QVERIFY(session.shell->runningNames().isEmpty());
        // Together with the line; then in front of one, where it is a byte of it.
        session.device.type("demo/sleep\n\003");
        QTRY_VERIFY(session.device.text().endsWith(interrupted + prompt));
        session.device.type("\003");
        session.device.type("43\n");
        QTRY_VERIFY(session.device.text().endsWith("43\n43\n" + prompt));
        board.entered.tryAcquire(board.entered.available());
    }

    void interruptIsForTerminals()
    {
        for (const QByteArray &start : {QByteArray("--nt\ndemo/wait\n"), "\ndemo/wait " + tag.toLatin1() + "\n"}) {
            Session session(&board);
            session.shell->setInterruptible(true);
            session.start(false, false, start);
            QVERIFY(board.entered.tryAcquire(1, 5000));
            session.device.type("\003");
            QTest::qWait(50);
            board.proceed.release();
            session.device.type("\n42\n");
            QTRY_VERIFY(session.device.text().contains("42\n"));
            QVERIFY(!session.device.text().contains("Interrupted"));
        }
    }

    void stopFromAnotherThread()
    {
        for (int i = 0; i < 20; ++i) {
            Session session(&board);
            session.start(i % 2, false, "\n");
            std::unique_ptr<QThread> other(QThread::create([&] { session.shell->Stop(); }));
            other->start();
            other->wait();
            session.device.type("x");
            QTRY_VERIFY(!session.shell);
        }
    }

    void killedSessionEnds()
    {
        Session session(&board);
        QSignalSpy stopped(session.shell, &ZELShellBase::Stoped);
        session.start(false, false, "--nt\ndemo/wait#1 " + tag.toLatin1() + "\n");
        QVERIFY(board.entered.tryAcquire(1, 5000));
        QTRY_VERIFY(session.shell->coreThread());
        session.shell->coreThread()->Kill();
        QTRY_VERIFY(!session.shell);
        QCOMPARE(stopped.count(), 1);
        QCOMPARE(session.device.text().count("State: EXECUTE_ERROR"), 1);
        QVERIFY(log().contains("ZELShell Closed!"));
        board.proceed.release();
    }

    void endedInput()
    {
        // At once, in the handshake, in a line, in an escape sequence.
        for (const char *typed : {"", "--n", "--nt\ndemo/va", "\nab\033["}) {
            for (bool ismain : {true, false}) {
                Session session(&board);
                session.device.end();
                session.start(ismain, false, typed);
                QTRY_VERIFY2(!session.shell, typed);
                QCOMPARE(bool(session.device.released), !ismain);
            }
        }
    }

    void nullStream()
    {
        ZELShellServer server;
        QPointer<ZELShell> shell = new ZELShell(nullptr);
        shell->PrintCurVirtualDir();
        shell->PrintDir(nullptr, false);
        QCOMPARE(shell->Execute("cd nowhere", false), QVariant());
        shell->Start(false, false);
        QTRY_VERIFY(!shell);
    }

private:
    Board board;
};

QTEST_GUILESS_MAIN(tst_ZELShell)
#include "tst_zelshell.moc"
