// SPDX-License-Identifier: MIT
// The demonstration host on a terminal, as a person meets it: typed keys in, bytes or a screen out.
#include "keys.h"
#include "ptyhost.h"
#include "screen.h"
#include "table.h"

#include <QHostAddress>
#include <QProcess>
#include <QTcpSocket>
#include <QTemporaryFile>
#include <QtTest>

namespace {

QByteArray prompt(const QByteArray &path = "/Main")
{
    return "\033[32mZELShell@ZEL:~\033[0m\033[34m" + path + "\033[0m\033[33m $ \033[0m";
}

QByteArray error(const char *word)
{
    return QByteArray("Error : input '") + word + "' can not execate\n";
}

/// A host on a terminal that turns nothing into something else, ready for its first line.
class PlainHost : public PtyHost
{
public:
    PlainHost()
        : PtyHost({ZELHOST, "--plain"}, 80, 24, Plain)
    {
        ready = take(prompt()) == prompt() && isRaw();
    }

    /// Enters a line; returns what was written between its echo and the prompt behind it, or all when they are missing.
    QByteArray answer(const QByteArray &line, const QByteArray &nextPrompt = prompt())
    {
        type(line + '\n');
        const QByteArray written = take(nextPrompt);
        if (!written.startsWith(line + '\n') || !written.endsWith(nextPrompt))
            return "<unexpected>" + written;
        return written.mid(line.size() + 1, written.size() - line.size() - 1 - nextPrompt.size());
    }

    bool ready;
};

/// A host behind a terminal emulator.
class ScreenHost : public PtyHost
{
public:
    explicit ScreenHost(int columns)
        : PtyHost({ZELHOST, "--plain"}, columns)
        , screen(columns, 24, true)
    {
        screen.feed(take(prompt()));
    }

    /// Waits until the condition holds for the screen.
    template <class Condition>
    bool shows(Condition condition)
    {
        const QDeadlineTimer deadline(patience);
        while (!condition() && !deadline.hasExpired()) {
            waitForSize(1, 100);
            screen.feed(takeAll());
        }
        return condition();
    }

    Screen screen;
};

const QString typedAt = "ZELShell@ZEL:~/Main $ ";

} // namespace

class tst_Terminal : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        // Abandoned commands do not run their destructors.
        qputenv("ASAN_OPTIONS", qgetenv("ASAN_OPTIONS") + ":detect_leaks=0");
    }

    void transcript()
    {
        PlainHost host;
        QVERIFY(host.ready);
        QCOMPARE(host.answer("text/echo \"a b\" c"), QByteArray("\"a b\" c\r\n"));
        QCOMPARE(host.answer("foo"), error("foo"));
        QCOMPARE(host.answer("fault/assert"),
            QByteArray("EXECUTE_ERROR :ASSERT failure fault: \"provoked\", file host, line 7\r\n"));
        QCOMPARE(host.answer("$a = 5"), QByteArray("5\n"));
        QCOMPARE(host.answer("$a"), QByteArray("5\r\n"));
        QCOMPARE(host.answer("$b"), QByteArray("NULL\r\n"));
        QCOMPARE(host.answer("text/echo \"v=$a\""), QByteArray("\"v=5\"\r\n"));
        QCOMPARE(host.answer("text/ping"), QByteArray("pong\r\n"));
        QCOMPARE(host.answer("a;b;;c"), error("a") + error("b") + error("c"));
        QCOMPARE(host.answer(""), QByteArray());
        QCOMPARE(host.answer("sys echo hi"), QByteArray("hi\n\n"));
        QVERIFY(host.answer("sys ls /").contains("usr\n"));
    }

    void quitOfAJob()
    {
        PlainHost host;
        QVERIFY(host.ready);
        host.type("quit &\n");
        QVERIFY(host.waitForEnd(5000));
        QCOMPARE(host.status(), 0);
        QVERIFY(host.isRestored());
    }

    void jobAtTheEnd()
    {
        QTemporaryFile log;
        QVERIFY(log.open());
        PtyHost host({ZELHOST, "--plain", "--log", log.fileName()});
        host.take(prompt());
        host.type("jobs/sleep 60000 &\nquit\n");
        QVERIFY(host.waitForEnd());
        const QByteArray text = log.readAll();
        QVERIFY2(text.contains("(jobs/sleep 60000 )\" is not closed while of shell closing."), text);
        QVERIFY2(text.contains("Waring:Thread exit failed"), text);
    }

    /// What has an open bracket is no statement yet.
    void linesThatGoOn()
    {
        PlainHost host;
        for (const QByteArray first : {"dostring --string {", "if (1) {"}) {
            QCOMPARE(host.answer(first, "> "), QByteArray());
            QCOMPARE(host.answer("text/echo one; text/echo two", "> "), QByteArray());
            const QByteArray printed = host.answer("}");
            QVERIFY2(printed.contains("one\r\n") && printed.contains("two\r\n"), printed);
        }
    }

    void faults_data()
    {
        Table<QByteArray, QByteArray> row("line", "said");
        row("stack overflow", "fault/overflow", "Segmentation fault");
        row("runtime_error", "fault/throw", "Aborted (core dumped)");
    }

    /// Whatever a command did, the prompt is back and everything works.
    void faults()
    {
        QFETCH(QByteArray, line);
        QFETCH(QByteArray, said);
        PlainHost host;
        QVERIFY(host.ready);
        for (int i = 0; i < 2; ++i) {
            const QByteArray answer = host.answer(line);
            QVERIFY2(answer.contains("EXECUTE_ERROR :") && answer.contains(said), answer);
            QVERIFY(host.isRaw());
            QCOMPARE(host.answer("text/echo on"), QByteArray("on\r\n"));
        }
        host.type(keys("draft<up><up><down><bs>k<nl>"));
        QVERIFY(host.waitFor("\nok\r\n" + prompt()));
        host.type("quit\n");
        QVERIFY(host.waitForEnd());
        QCOMPARE(host.status(), 0);
        QVERIFY(host.isRestored());
    }

    void completion_data()
    {
        Table<int, QByteArray, QStringList> row("columns", "typed", "rows");
        row("one", 80, "te<tab>e<tab>!", QStringList(typedAt + "text/echo!"));
        row("in common", 80, "/s<tab>!", {typedAt + "/s", "storage    system", typedAt + "/s!"});
        row("narrow", 20, "fault/<tab>!",
            {"ZELShell@ZEL:~/Main", "$ fault/", "assert", "hang", "overflow", "segv", "throw", "ZELShell@ZEL:~/Main",
                "$ fault/!"});
        row("none", 80, "nowhere/<tab>!", QStringList(typedAt + "nowhere/!"));
    }

    void completion()
    {
        QFETCH(int, columns);
        QFETCH(QByteArray, typed);
        QFETCH(QStringList, rows);
        ScreenHost host(columns);
        host.type(keys(typed));
        QVERIFY2(host.shows([&] { return host.screen.rows() == rows; }), qPrintable(host.screen.rows().join('\n')));
    }

    void ends_data()
    {
        Table<QByteArray, int, int> row("line", "signal", "status");
        row("quit", "quit\n", 0, 0);
        row("exit", "exit\n", 0, 0);
        row("restart", "reinit\n", 0, 184);
        row("SIGTERM", "", SIGTERM, -SIGTERM);
        row("SIGHUP", "", SIGHUP, -SIGHUP);
        row("a crash of the host itself", "", SIGSEGV, -SIGSEGV);
    }

    void ends()
    {
        QFETCH(QByteArray, line);
        QFETCH(int, signal);
        PlainHost host;
        QVERIFY(host.ready);
        host.type(line);
        if (signal)
            QCOMPARE(kill(host.pid(), signal), 0);
        QVERIFY(host.waitForEnd());
        QTEST(host.status(), "status");
        QVERIFY(host.isRestored());
    }

    void stoppedAndContinued()
    {
        PlainHost host;
        QVERIFY(host.ready);
        host.type("text/pi");
        QVERIFY(host.waitFor("text/pi"));
        host.takeAll();
        const QByteArray line = prompt() + "text/pi";
        for (const int signal : {SIGTSTP, SIGSTOP}) {
            QCOMPARE(kill(host.pid(), signal), 0);
            int status = 0;
            QCOMPARE(waitpid(host.pid(), &status, WUNTRACED), host.pid());
            QVERIFY(WIFSTOPPED(status));
            QVERIFY(signal == SIGSTOP || host.isRestored());
            host.makeCooked(); // as the shell does that has the terminal meanwhile
            QCOMPARE(kill(host.pid(), SIGCONT), 0);
            QVERIFY(host.take(line).endsWith("[1]+  Continued(SIGCONT)  ./zelhost\r\n\r" + line));
            QVERIFY(host.isRaw());
        }
        host.type("ng\n");
        QVERIFY(host.waitFor("pong\r\n" + prompt()));
    }

    /// Nobody reads, the terminal is full, and then it is gone.
    void inTheBackground()
    {
        PtyHost shell({"/bin/sh", "-c",
            QStringLiteral("stty tostop; set -m; '%1' --tcp 0 --local & echo \"pid $! \"; sleep 60").arg(ZELHOST)});
        shell.take("pid ");
        const pid_t pid = shell.take(" ").trimmed().toInt();
        QVERIFY(pid > 0);
        const bool listens = shell.waitFor("remote shells on port ");
        shell.take("remote shells on port ");
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, shell.take("\r").trimmed().toUShort());
        QByteArray received;
        socket.write("--nt\ntext/ping\nexit\n");
        while (!received.contains("pong") && socket.waitForReadyRead(5000))
            received += socket.readAll();
        kill(pid, SIGKILL);
        QVERIFY(listens);
        QVERIFY2(received.contains("pong"), received.constData());
        QVERIFY(!shell.isRaw());
    }

    void hangUpInTheMiddleOfOutput()
    {
        PlainHost host;
        QVERIFY(host.ready);
        host.type("jobs/count 2000000\n");
        QVERIFY(host.waitForSize(4000));
        host.hangUp();
        QVERIFY(host.waitForEnd());
    }

    void inputThatIsNoTerminal_data()
    {
        Table<QByteArray, int> row("input", "status");
        row("nothing", "", 0);
        row("a line", "text/ping\n", 0);
        row("an unfinished line", "exit", 0);
        row("restart", "text/ping\nreinit\n", 184);
        row("bytes", QByteArray("\0\377\033[\t\177\n", 7), 0);
    }

    void inputThatIsNoTerminal()
    {
        QFETCH(QByteArray, input);
        QTemporaryFile file;
        QVERIFY(file.open() && file.write(input) == input.size() && file.flush());
        const QString command = ZELHOST;
        for (const QString way : {"exec %1 <%2", "cat %2 | %1", "exec %1 <%2 >&- 2>&-"}) {
            QProcess shell;
            shell.start("/bin/sh", {"-c", way.arg(command, file.fileName())});
            QVERIFY(shell.waitForFinished(PtyHost::patience));
            QCOMPARE(shell.exitStatus(), QProcess::NormalExit);
            QTEST(shell.exitCode(), "status");
        }
    }

    void badInput()
    {
        PlainHost host;
        QVERIFY(host.ready);
        QByteArray noise;
        for (int value = 0; value < 256; ++value)
            if (value != '\n' && value != '\r' && value != 27)
                noise += char(value);
        host.type(noise + "\n");
        QVERIFY(host.waitFor(prompt()));
        host.takeAll();
        QCOMPARE(host.answer("text/ping"), QByteArray("pong\r\n"));

        host.type("text/echo " + QByteArray(200000, '(') + "\n");
        QVERIFY(host.waitFor("\r\n" + prompt()));
        host.takeAll();
        const QByteArray megabyte(1 << 20, 'm');
        host.type("text/echo " + megabyte + "\n");
        QVERIFY(host.waitFor("\n" + megabyte + "\r\n" + prompt()));
        host.takeAll();
        QCOMPARE(host.answer("text/ping"), QByteArray("pong\r\n"));
    }
};

QTEST_GUILESS_MAIN(tst_Terminal)
#include "tst_terminal.moc"
