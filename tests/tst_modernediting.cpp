// SPDX-License-Identifier: MIT
// Modern editing as a person meets it: the demonstration host on a terminal, and sessions over TCP.
#include "noleakcheck.h"
#include "ptyhost.h"
#include "rawpeer.h"
#include "screen.h"
#include "table.h"
#include "zelpalette.h"
#include "zelshell.h"
#include "zelshellserver.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString promptText = "ZELShell@ZEL:~/Main $";
const QByteArray grey = "\033[90m";

/// A host on a terminal emulator, in a folder of its own, where its history lies.
class ModernHost : public PtyHost
{
public:
    explicit ModernHost(const QString &folder, int columns = 80, int rows = 24)
        : PtyHost((QDir::setCurrent(folder), QStringList{ZELHOST}), columns, rows)
        , screen(columns, rows, true)
    {
    }

    bool shows(const QString &text)
    {
        return settles([&] { return screen.rows().join('\n').contains(text); });
    }
    bool endsWith(const QString &text)
    {
        return settles([&] { return screen.rows().join('\n').endsWith(text); });
    }
    bool enter(const QByteArray &line, const QString &answer)
    {
        return type(line + '\r') && endsWith(answer + '\n' + promptText);
    }

    Screen screen;
    QByteArray written;

private:
    template <class Condition>
    bool settles(Condition condition)
    {
        const QDeadlineTimer deadline(patience);
        while (!condition() && !deadline.hasExpired()) {
            waitForSize(1, 100);
            const QByteArray bytes = takeAll();
            written += bytes;
            screen.feed(bytes);
        }
        if (!condition())
            qWarning() << screen.rows();
        return condition();
    }
};

QByteArray promptOf(const QByteArray &mode)
{
    static QByteArray prompt;
    return mode.isEmpty() ? prompt : prompt = mode;
}

QString hostsPrompt(const ZELShell &)
{
    if (promptOf({}) == "throws")
        throw std::runtime_error("no prompt");
    if (promptOf({}) == "hangs")
        for (;;)
            QThread::msleep(10);
    return ZELPalette::paint(ZELPalette::Red, promptOf({})) + "\nlast> ";
}

} // namespace

class tst_ModernEditing : public QObject
{
    Q_OBJECT

    QTemporaryDir m_folder;

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("ASAN_OPTIONS", qgetenv("ASAN_OPTIONS") + ":detect_leaks=0");
        qputenv("TERM", "xterm");
        qunsetenv("NO_COLOR");
    }
    void cleanup() { QDir::setCurrent("/"); }

    void editsOnTheTerminal()
    {
        ModernHost host(m_folder.path());
        QVERIFY(host.endsWith(promptText));
        QVERIFY(host.isRaw() && !(host.settings().c_iflag & IXON));
        QVERIFY(host.enter("text/echo onetwo\033b\033[1;5D\033[H\006\006\006\006\006\006\006\006\006\006 \027X\005!",
            "Error : input 'Xonetwo!' can not execate"));
        QVERIFY(host.enter("\020\001\013text/echo \"\031\"\024", "\"Xonetwo\" !"));
        QVERIFY(host.type("text/echo \"a\r"));
        QVERIFY(host.endsWith("text/echo \"a\n>"));
        QVERIFY(host.enter("b\"", "> b\"\n\"a\nb\""));
        QVERIFY(host.type("text/echo (\r\003text/ping"));
        QVERIFY(host.endsWith(promptText + " text/ping")); // Ctrl-C takes the begun line away, too
        QVERIFY(host.type("\003\004"));
        QVERIFY(host.waitForEnd());
        QCOMPARE(host.status(), 0);
        QVERIFY(host.isRestored());
    }

    void keepsHistory()
    {
        {
            ModernHost host(m_folder.path());
            QVERIFY(host.endsWith(promptText));
            QVERIFY(host.enter("text/echo a; text/echo b", "a\nb"));
            QVERIFY(host.enter(" text/echo blank", "blank"));
            QVERIFY(host.enter("text/echo --password secret", "--password secret"));
            QVERIFY(host.type("quit\r") && host.waitForEnd());
        }
        const auto permissions = QFile::permissions(m_folder.filePath(".cache/history"));
        QCOMPARE(int(permissions & 0x7077), int(QFile::ReadOwner | QFile::WriteOwner));
        ModernHost host(m_folder.path());
        QVERIFY(host.endsWith(promptText));
        QVERIFY(host.enter("!text", "text/echo a; text/echo b\na\nb"));
        QVERIFY(host.enter("!nonsense", "Error : no line in the history begins like !nonsense"));
        QVERIFY(host.type("\022cho a"));
        QVERIFY(host.endsWith("(reverse-i-search)`cho a': text/echo a; text/echo b"));
        QVERIFY(host.enter("", "a\nb"));
        QVERIFY(host.type("history\r") && host.shows("text/echo a; text/echo b"));
        QVERIFY(!host.screen.rows().join('\n').contains("secret") && !host.screen.rows().join('\n').contains("blank"));
        QVERIFY(host.enter("history -c", "history -c"));
        QVERIFY(host.enter("history", ""));
    }

    void completes()
    {
        ModernHost host(m_folder.path());
        QVERIFY(host.endsWith(promptText));
        QVERIFY(host.type("text/pi\t"));
        QVERIFY(host.endsWith(promptText + " text/ping"));
        QVERIFY(host.type("\025jo\t\t"));
        QVERIFY(host.endsWith(
            "\ncount  counts; returns the last number\nsleep  sleeps; returns the milliseconds that went by\n"
            + promptText + " jobs/"));
        QVERIFY(host.type("\t") && host.endsWith(promptText + " jobs/count"));
        QVERIFY(host.type("\t") && host.endsWith(promptText + " jobs/sleep"));
    }

    void keepsTheLineBelowOutput()
    {
        ModernHost host(m_folder.path());
        QVERIFY(host.endsWith(promptText));
        QVERIFY(host.type("jobs/count 3 &\r") && host.type("half a"));
        QVERIFY(host.shows("1\n2\n3\n"));
        QVERIFY(host.type(" line"));
        QVERIFY(host.endsWith("3\n" + promptText + " half a line"));
        QVERIFY(!host.screen.rows().join('\n').contains("half a1"));
    }

    void pastesABlock()
    {
        ModernHost host(m_folder.path());
        QVERIFY(host.endsWith(promptText));
        QVERIFY(host.type("\033[200~text/ping\ntext/echo 2\033[201~") && host.endsWith("\ntext/echo 2"));
        QVERIFY(!host.screen.rows().join('\n').contains("pong"));
        QVERIFY(host.enter("", promptText + " text/ping\npong\n" + promptText + " text/echo 2\n2"));
    }

    void hints_data()
    {
        Table<QByteArray, QByteArray, bool> row("variable", "value", "shown");
        row("a terminal", "TERM", "linux", true);
        row("no colour", "NO_COLOR", "1", false);
        row("dumb", "TERM", "dumb", false);
    }

    void hints()
    {
        QFETCH(QByteArray, variable);
        QFETCH(QByteArray, value);
        QFETCH(bool, shown);
        qputenv(variable, value);
        ModernHost host(m_folder.path());
        qputenv("TERM", "xterm");
        qunsetenv("NO_COLOR");
        QVERIFY(host.endsWith(promptText));
        QVERIFY(host.enter("text/ping", "pong"));
        host.written.clear();
        QVERIFY(host.type("text/p") && host.endsWith(shown ? "$ text/ping" : "$ text/p"));
        QCOMPARE(host.written.contains(grey), shown);
        QVERIFY(host.enter(shown ? "\033[C" : "ing", "pong"));
    }

    void editsOverTcp()
    {
        ZELShellServer server;
        server.setEditing(ZELShellServer::Modern);
        server.setListenAddress(QHostAddress::LocalHost);
        server.startTcpServer(0);
        RawPeer there(server.serverPort());
        Screen screen(20, 5, true);
        const auto shows = [&](const QString &text) {
            const QDeadlineTimer deadline(10000);
            while (!screen.rows().join('\n').endsWith(text) && !deadline.hasExpired()) {
                QCoreApplication::processEvents();
                screen.feed(there.receive(1, 20));
            }
            if (!screen.rows().join('\n').endsWith(text))
                qWarning() << screen.rows();
            return screen.rows().join('\n').endsWith(text);
        };
        // A telnet client: it asks first, is told that its keys are echoed here, and tells its window's size later.
        QVERIFY(there.send(QByteArray("\377\375\003--columns 20 --rows 5\r\0", 26)));
        QVERIFY(shows("$"));
        QVERIFY(there.send(QByteArray("e\377\372\037\0\050\0\005\377\360"
                                      "a\xcc\x81x\177\177z\r\0",
            18)));
        QVERIFY(shows(" 'ez' c\nan not execate\nZELShell@ZEL:~/Main\n$"));
    }

    void hostsPrompt_data()
    {
        Table<QByteArray, QByteArray> row("prompt", "shown");
        row("two lines", "up", "\033[31mup\033[0m\r\nlast> ");
        row("throws", "throws", "ZELShell@ZEL:~");
        row("hangs", "hangs", "ZELShell@ZEL:~");
    }

    void hostsPrompt()
    {
        QFETCH(QByteArray, prompt);
        QFETCH(QByteArray, shown);
        promptOf(prompt);
        ZELShellServer server;
        server.setEditing(ZELShellServer::Modern);
        server.setPrompt(::hostsPrompt);
        server.setListenAddress(QHostAddress::LocalHost);
        server.startTcpServer(0);
        RawPeer peer(server.serverPort());
        QVERIFY(peer.send("\n"));
        QByteArray all;
        QTRY_VERIFY((all += peer.receive(4096, 20).replace("\033[?2004h", "")).contains(shown));
    }
};

QTEST_GUILESS_MAIN(tst_ModernEditing)
#include "tst_modernediting.moc"
