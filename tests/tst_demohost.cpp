// SPDX-License-Identifier: MIT
#include "table.h"

#include <QProcess>
#include <QTcpSocket>
#include <QtTest>

/// Types at the demonstration host, one process for all commands: after each of them the prompt has to be back.
class tst_DemoHost : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(start(m_host, {}));
        QVERIFY(untilPrompt().endsWith("/Main\033[0m"));
    }

    void commands_data()
    {
        Table<QString, QString> row("line", "answer"); // an expression for what follows the echo
        const QString error = "EXECUTE_ERROR :";

        row("uptime", "system/uptime", "up .*\\d\\d:\\d\\d:\\d\\d, load \\d");
        row("memory", "system/memory", "total +[0-9.]+ .iB\r\n(.*\r\n)*this program +[0-9.]+ .iB\r\n");
        row("processes", "system/processes 1", " PID S +RESIDENT NAME\r\n +\\d+ . +[0-9.]+ .?i?B.*\r\n");
        row("interfaces", "network/interfaces", "lo +up .*\r\n +127\\.0\\.0\\.1/8\r\n");
        row("storage", "storage/usage /", "SIZE.*\r\n +[0-9.]+ .iB.* +\\d+%  / \\(");
        row("ping", "text/ping", "^pong\r\n");
        row("warning", "log/print WARNING \"x y\" z", "Warning: x y z\r\n");
        row("stream", "log/print stream \"no end\"", "^no end[^\r]*$");
        row("bad level", "log/print loud x", "level must be debug, .*, not 'loud'\r\n");
        row("sleep", "jobs/sleep 20", "^[2-9]\\d+\r\n|^\\d{3,}\r\n");
        row("no number", "jobs/sleep soon",
            "^jobs/sleep: ms must be a whole number .* not 'soon'\r\nUsage: jobs/sleep ms\r\n");
        row("too many", "text/ping a b", "^text/ping: takes no arguments, 'a' is one");
        row("count", "jobs/count 3", "^1\r\n2\r\n3\r\n3\r\n");
        row("throw pointer", "fault/throw pointer", error + "Exception in fault: provoked, file host, line 2\r\n");
        row("throw value", "fault/throw exception", error + "Exception in fault: provoked, file host, line 1\r\n");
        row("assert", "fault/assert", "^" + error + "ASSERT failure fault: \"provoked\", file host, line 7\r\n");
        row("still there", "text/echo well", "^well\r\n");
        row("help", "help", "  fault/ +everything that .*\r\n(.*\r\n)*  version .*\r\n");
        row("help below", "help jobs", "  count +counts.*\r\n  sleep +sleeps.*\r\n");
        row("no help", "help nothing", "nothing called 'nothing'");
        row("option of help", "jobs/sleep -h", "^Usage: jobs/sleep ms\r\nsleeps");
        row("filters", "jobs/count 12 | include 1 | tail 2", "^12\r\n12\r\n[^\r]*$");
        row("version", "version", "^ZEL Shell \\d+\\.\\d+\\.\\d+");
        row("from a directory", "cd jobs; count 1; version; cd", "1\r\n1\r\nZEL Shell");
    }

    void commands()
    {
        QFETCH(QString, line);
        QFETCH(QString, answer);
        m_host.write(line.toUtf8() + '\n');
        QString written = untilPrompt();
        const QString echo = line + '\n';
        QVERIFY2(written.startsWith(echo), qPrintable(written));
        written.remove(0, echo.size());
        QVERIFY2(QRegularExpression(answer).match(written).hasMatch(), qPrintable(written));
    }

    void quitsWithStatusZero()
    {
        m_host.write("quit\n");
        QVERIFY(m_host.waitForFinished(10000));
        const QByteArray complaint = m_host.readAllStandardError().right(2000);
        QVERIFY2(m_host.exitStatus() == QProcess::NormalExit, complaint.constData());
        QVERIFY2(m_host.exitCode() == 0, complaint.constData());
    }

    void runsAllOfAPipedScript()
    {
        QProcess host;
        QVERIFY(start(host, {}));
        host.write("text/echo job &\ntext/echo last"); // no line end
        host.closeWriteChannel();
        QVERIFY(host.waitForFinished(10000));
        const QByteArray output = host.readAllStandardOutput();
        QVERIFY2(output.contains("job\r\n") && output.contains("last\r\n"), output.constData());
    }

    void logThatCannotBeOpened()
    {
        QProcess host;
        QVERIFY(start(host, {"--log", "/nowhere/at/all"}));
        QVERIFY(host.waitForFinished(10000));
        QCOMPARE(host.exitCode(), 1);
        QCOMPARE(host.readAllStandardError(), QByteArray("zelhost: /nowhere/at/all: No such file or directory\n"));
    }

    // Typed by hand at a login, such words would be others.
    void namesOfAccounts()
    {
        QTemporaryDir directory;
        QProcess host;
        QVERIFY(start(host, {"--user-db", directory.filePath("users.db")}));
        host.write("system/adduser \"a=b\" pw\nsystem/adduser carl \"p w\"\nsystem/adduser \"h\xc3\xa9lo\" pw\n"
                   "system/adduser carl pw\n");
        host.closeWriteChannel();
        QVERIFY(host.waitForFinished(10000));
        const QByteArray output = host.readAllStandardOutput();
        QVERIFY2(output.count("a name and a password are one word each") == 3, output.constData());
        QVERIFY2(output.count("account of ") == 1 && output.contains("account of carl made"), output.constData());
    }

    void closedDoors()
    {
        QTemporaryDir directory;
        const QStringList users = {"--user-db", directory.filePath("users.db")};
        QFile database(users.last());
        QVERIFY(database.open(QIODevice::WriteOnly)); // readable for all, as umask has it
        {
            QProcess open; // makes the account
            QTcpSocket peer;
            QVERIFY(serve(open, peer, users));
            peer.write("exit\n");
            QTRY_COMPARE_WITH_TIMEOUT(open.state(), QProcess::NotRunning, 20000);
        }
        QCOMPARE(int(database.permissions() & 0x0fff), int(QFile::ReadUser | QFile::WriteUser));
        QProcess host;
        QTcpSocket peer;
        QVERIFY(serve(host, peer, users + QStringList("--secure")));
        peer.readAll();
        for (const QByteArray refused :
            {"exit", "exit#1", "reinit#1", "sys#1 true", "fault/assert#1", "/fault/assert"}) {
            peer.write(refused + "\n");
            QTRY_VERIFY2_WITH_TIMEOUT(peer.peek(4096).endsWith("is not permitted!\r\n"), refused, 20000);
            peer.readAll();
        }
        QCOMPARE(host.state(), QProcess::Running);
        peer.write("text/ping#1\nquit#2\n");
        QTRY_COMPARE_WITH_TIMEOUT(peer.state(), QAbstractSocket::UnconnectedState, 20000);
        QCOMPARE(peer.readAll(), QByteArray("pong\r\n"));
        host.kill();
        QVERIFY(host.waitForFinished(20000));
    }

private:
    bool start(QProcess &process, const QStringList &arguments)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        // Abandoned commands do not run their destructors.
        environment.insert("ASAN_OPTIONS", environment.value("ASAN_OPTIONS") + ":detect_leaks=0");
        process.setProcessEnvironment(environment);
        process.start(ZELHOST, arguments);
        return process.waitForStarted();
    }

    /// Starts a host that serves remote shells, and logs in there.
    bool serve(QProcess &host, QTcpSocket &peer, const QStringList &options)
    {
        host.setProcessChannelMode(QProcess::MergedChannels);
        const QRegularExpression announced("on port (\\d+)\\s");
        QByteArray text;
        if (!start(host, QStringList{"--tcp", "0", "--no-terminal"} + options))
            return false;
        while (!announced.match(text).hasMatch() && host.waitForReadyRead(20000))
            text += host.readAll();
        peer.connectToHost("127.0.0.1", announced.match(text).captured(1).toUShort());
        peer.write("--nt --user bob --password pw\n");
        return QTest::qWaitFor([&] { return peer.peek(4096).contains("ConnectId = "); }, 20000);
    }

    /// What the host writes up to and without its next prompt; empty when that does not come.
    QString untilPrompt()
    {
        static const QByteArray prompt = "\033[33m $ \033[0m";
        static QByteArray buffer;
        QElapsedTimer clock;
        clock.start();
        while (!buffer.contains(prompt) && clock.elapsed() < 20000 && m_host.waitForReadyRead(1000))
            buffer += m_host.readAllStandardOutput();
        const int end = buffer.indexOf(prompt);
        if (end < 0)
            qWarning("No prompt after:\n%s", buffer.constData());
        const QString result = end < 0 ? QString() : QString::fromUtf8(buffer.left(end));
        buffer.remove(0, end + prompt.size());
        return result;
    }

    QProcess m_host;
};

QTEST_GUILESS_MAIN(tst_DemoHost)
#include "table.h"
#include "tst_demohost.moc"
