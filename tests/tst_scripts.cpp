// SPDX-License-Identifier: MIT
// Scripts in sessions: the documented examples, functions and their variables, what ends a script, answers in packets.
#include "noleakcheck.h"
#include "shellfixture.h"
#include "table.h"
#include "zelguard_p.h"

#include <QFile>
#include <QRegularExpression>
#include <QtTest>
#include <sys/stat.h>
#include <thread>

namespace {

QString withoutColours(QString text)
{
    return text.remove(QRegularExpression("\033\\[[0-9;]*m")).remove('\r');
}

} // namespace

class tst_Scripts : public ShellFixture
{
    Q_OBJECT

    void registerCommands() override
    {
        for (const char *name : {"value", "fail", "wait", "sleep"})
            QVERIFY(
                server->registerCmd("demo", name, board.get(), QByteArray("1").append(name).append("(ZELArguments)")));
        server
            ->command(
                "text", "echo", [](ZELArguments args, QStringList words) { args.debug().noquote() << words.join(' '); })
            .multiRun();
        server->command("demo", "secret", [] {}).role("service");
        server->command("demo", "again", [this] { return script("demo/again; text/echo never"); });
        server->command("text", "ping", [] { return QString("pong"); }).multiRun();
    }

    QVariant script(const QString &code) { return run("dostring --string {" + code + "}"); }

private Q_SLOTS:
    void documented_data()
    {
        Table<QString, QString> row("code", "printed");
        QFile file(DOCUMENT);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(file.readAll());
        static const QRegularExpression example(
            "```zel\n(.*?)```\n```text\n(.*?)```", QRegularExpression::DotMatchesEverythingOption);
        int number = 0;
        for (auto found = example.globalMatch(text); found.hasNext(); ++number) {
            const auto match = found.next();
            row(qPrintable(QString::number(number)), match.captured(1), match.captured(2));
        }
        QCOMPARE(number, 10);
    }

    void documented()
    {
        QFETCH(QString, code);
        QFETCH(QString, printed);
        QFile file(QDir::tempPath() + QString("/zelscript-%1").arg(getpid()));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(code.toUtf8()) == code.size());
        file.close();
        QCOMPARE(withoutColours(answer("dostring --file " + file.fileName())), printed);
        QVERIFY(file.remove());
    }

    void functions()
    {
        script("function add ($a $b) { $sum = ($a + $b); $a = (0); return $sum }");
        shell->setEnvironment("$a", "outer");
        QCOMPARE(run("add 2 3").toString(), QString("5"));
        QCOMPARE(shell->getEnvironment("$a"), QString("outer"));
        QCOMPARE(shell->getEnvironment("$sum"), QString("5"));
        script("function all () { text/echo $* }; function value () { return 1 }");
        QCOMPARE(answer("all 1 \"b c\""), QString("1 b c\r\n"));
        script("function fact ($n) { if ($n < 2) { return 1 }; $m = ($n - 1); fact $m; return ($n * $?) }");
        QCOMPARE(run("fact 10").toString(), QString("3628800"));
        QCOMPARE(run("demo/value").toInt(), 7); // a command wins
        const QString deep = answer("function deep () { deep }; deep");
        QVERIFY(withoutColours(deep).contains("functions call each other more than 256 deep") && deep.size() < 1000);
#ifndef __SANITIZE_THREAD__ // which follows no more than 64 Ki calls
        const QString blocks
            = "function deep () { " + QString("if (1) {").repeated(250) + "deep" + QString("}").repeated(251);
        const QString nested = withoutColours(answer(blocks + "; deep"));
        // Small frames reach the number of calls before the end of the stack.
        QVERIFY2(nested.contains("nested too deep") || nested.contains("more than 256 deep"), qPrintable(nested));
#endif
        ZELShell other(nullptr);
        other.Execute("fact 3", false);
        QVERIFY(other.hasError() && other.getEnvironment("$m") == "NULL");
    }

    void errors_data()
    {
        Table<QString, QString> row("code", "said");
        row("grammar", "text/echo never; if (1 {", "expected '}'");
        row("second line", "text/ping\nnothing\ntext/echo never", "line 2: Error : input 'nothing' can not execate");
        row("in a function", "function f () {\n demo/fail }\n\nf; text/echo never", "f, line 2: ");
        row("computed", "$x = (1 / 0); text/echo never", "line 1: division by zero");
        row("refused", "demo/secret; text/echo never", "line 1: demo/secret is not permitted!");
        row("under way", "demo/again", "line 1: again is already in running!");
        row("no file", "dostring --file /nowhere/at.all\ntext/echo never", "No such file or directory");
    }

    void errors()
    {
        QFETCH(QString, code);
        QFETCH(QString, said);
        const QString printed = withoutColours(answer("dostring --string {" + code + "}"));
        QVERIFY2(printed.contains(said) && !printed.contains("never\n"), qPrintable(printed));
        QVERIFY(shell->hasError());
    }

    /// What runs itself ends before the stack does, and says so once; what would never end is not read.
    void files()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath("a.zel");
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("text/ping\ndostring --file " + path.toUtf8()) > 0);
        file.close();
        QString printed = withoutColours(answer("dostring --file " + path));
        QVERIFY2(
            printed.contains(path + ", line 2: scripts run each other more than 256 deep") && printed.size() < 99999,
            qPrintable(printed.right(1000)));
        QVERIFY(mkfifo(qPrintable(path + "2"), 0600) == 0);
        for (const QString &each : {path + "2", QString("/dev/zero"), folder.path()})
            QCOMPARE(withoutColours(answer("dostring --file " + each)), QString("'%1' is no file\n").arg(each));
        QVERIFY(answer("dostring").contains("expected --string CODE or --file PATH"));
        QCOMPARE(answer("text/ping"), QString("pong\r\n"));
    }

    void answersInPackets()
    {
        const QString answered = answer("dostring#7 --string {text/echo a; text/ping; return 3} " + tag);
        const QStringList packets = answered.split("ZEL_SHELL_PACKET_END\r\n", Qt::SkipEmptyParts);
        int completing = 0;
        for (const QString &packet : packets) {
            QVERIFY2(packet.contains("ZEL_SHELL_PACKET_START"), qPrintable(answered));
            QVERIFY2(packet.contains("dostring#7"), qPrintable(packet));
            completing += packet.contains("State: EXECUTE_RESULT");
        }
        QCOMPARE(completing, 1);
        QVERIFY(packets.last().contains("State: EXECUTE_RESULT") && packets.last().contains("Return: Mw=="));
        const QString failed = answer("dostring --string {nothing; text/ping} " + tag);
        QVERIFY(failed.contains("State: EXECUTE_ERROR") && !failed.contains("EXECUTE_RESULT"));
    }

    void ends_data()
    {
        Table<QString> row("code");
        row("an empty loop", "while (1) { }");
        row("a busy loop", "while (1) { text/ping }");
        row("a function", "function f () { while (1) { f2 = (1); text/ping } }; f");
    }

    /// The end of the session finds an empty loop as well as a busy one.
    void ends()
    {
        QFETCH(QString, code);
        QElapsedTimer clock;
        clock.start();
        std::thread ending([this] {
            QThread::msleep(200);
            shell->Stop();
        });
        script(code);
        ending.join();
        QVERIFY(clock.elapsed() < 10000);
    }

    /// A time limit and a kill take the script with them.
    void killed()
    {
        ZELFrame frame;
        frame->timeoutMs = 200;
        QVERIFY(zelGuard(frame.get(), [&] { script("while (1) { $x = ($x + 1) }"); }) != 0);
        QCOMPARE(run("text/ping").toString(), QString("pong"));
    }

    void twoSessions()
    {
        FakeDevice device2;
        ZELStream stream2(&device2, false);
        ZELShell second(&stream2);
        const QString code
            = "dostring --string {function me ($w) { $mine = ($w); return ($mine) }; "
              "for ($i = 0; $i < 300; $i = ($i + 1)) { me %1; if ($? != %1 || $mine != %1) { return bad } }; "
              "return $i}";
        QVariant one, two;
        std::thread other([&] { two = second.Execute(code.arg(2), false); });
        one = run(code.arg(1));
        other.join();
        QCOMPARE(one.toString(), QString("300"));
        QCOMPARE(two.toString(), QString("300"));
    }
};

QTEST_GUILESS_MAIN(tst_Scripts)
#include "tst_scripts.moc"
