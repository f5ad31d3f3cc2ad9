// SPDX-License-Identifier: MIT
#include "shellfixture.h"
#include "table.h"
#include "zelshellclient.h"
#include "zelshellexpansion_p.h"
#include "zelthreadpool.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTemporaryFile>
#include <QtTest>

namespace {

QString stateOf(const ZELShellProcessHeader &packet)
{
    return QString::fromLatin1(packet.headers.value(QStringLiteral("State")));
}

} // namespace

class tst_Interpreter : public ShellFixture
{
    Q_OBJECT
private Q_SLOTS:
    void expansion_data()
    {
        Table<QString, QString> row("word", "expected");
        row("whole word", "$a", "5");
        row("unset", "$none", "NULL");
        row("inside a plain word", "x$a", "x$a");
        row("double quotes", "\"v=$a\"", "\"v=5\"");
        row("twice", "\"$a,$a\"", "\"5,5\"");
        row("unset in quotes", "\"[ $none ]\"", "\"[ $none ]\"");
        row("unset between quotes", "\"v $none\"", "\"v NULL\"");
        row("single quotes", "'$a'", "'$a'");
        row("lone quote", "\"", "\"");
        row("a part of another word", "\"x$a $a\"", "\"x5 5\"");
        row("the first of two", "\"$a $ab\"", "\"5 5b\"");
        row("the first of two, the longer", "\"$ab $a $abc\"", "\"NULL 5 NULLc\"");
        row("values stay", "\"$l $b\"", "\"$b NULL\"");
        row("not ASCII", "\"$a\u00e4 $\"", "\"5\u00e4 NULL\"");
    }

    void expansion()
    {
        QFETCH(QString, word);
        QFETCH(QString, expected);
        const auto lookup = [](const QString &name) {
            return QString(name == "$a" ? "5" : name == "$l" ? "$b" : "NULL");
        };
        QCOMPARE(zelExpandWord(word, lookup, 1000), expected);
    }

    void expansionTakesOnePass_data()
    {
        Table<QString> row("text");
        row("one variable", QString("$a ").repeated(200000));
        QString many;
        for (int i = 0; i < 60000; ++i)
            many += QStringLiteral("$v%1 ").arg(i * 7919 % 60000);
        row("many variables", many);
        const QString dollars(200000, '$');
        row("dollars", dollars + "x z" + dollars);
        row("repeated", QString("$a").repeated(100000) + "x z" + QString("$a").repeated(100000));
        QString longer;
        for (int i = 0; i < 1200; ++i)
            longer += "$" + QString(i, 'a') + " ";
        row("one longer than the other", longer + "z" + QString("$aaaab").repeated(10000));
    }

    void expansionTakesOnePass()
    {
        QFETCH(QString, text);
        int lookups = 0;
        const auto lookup = [&](const QString &) { return ++lookups, QString("5"); };
        QElapsedTimer timer;
        timer.start();
        QVERIFY(zelExpandWord('"' + text + '"', lookup, 1 << 24).startsWith("\"5"));
        QVERIFY2(timer.elapsed() < 10000, QByteArray::number(timer.elapsed()));
        QVERIFY(lookups <= 60000);
    }

    void variablesDoNotTakeAllMemory()
    {
        shell->setEnvironment("$a", QString(1 << 20, 'a'));
        const QString message = "Error : the variables make the statement too long";
        QCOMPARE(answer("demo/echo \"" + QString("$a ").repeated(5000) + "\""), message + '\n');
        QCOMPARE(answer("$b = $a $a $a $a $a"), message + '\n');
        QCOMPARE(shell->getEnvironment("$b"), QString("ERROR"));
        run("demo/echo#3 $a $a $a $a $a " + tag);
        const auto packets = packetsIn(device->take());
        QCOMPARE(packets.size(), 1);
        QCOMPARE(packets.first().getRequestMethod(), QString("demo/echo#3"));
        QCOMPARE(stateOf(packets.first()), QString("EXECUTE_ERROR"));
        run("$c = $a $a $a");
        QCOMPARE(shell->getEnvironment("$c").size(), 3 * (1 << 20) + 2);
        QVERIFY(board->words.isEmpty());
    }

    void wordForms()
    {
        for (const char *number : {"5", "-3", "2.5", "1e5", ".5", "5."})
            QVERIFY2(zelIsNumber(number), number);
        for (const char *word : {"", "5a", "inf", "nan", "-", "0x1f", "--5"})
            QVERIFY2(!zelIsNumber(word), word);
        QCOMPARE(ZELCommandWord("cd#3").name, QString("cd"));
        QCOMPARE(ZELCommandWord("cd#3").index, QString("3"));
        QCOMPARE(ZELCommandWord("\"a#b\"").name, QString("\"a#b\""));
        QCOMPARE(ZELCommandWord("#").name, QString());
        QCOMPARE(zelWithoutTag("a b TAG== ", "TAG"), QString("a b"));
    }

    void variables()
    {
        QCOMPARE(run("$a = 5"), QVariant("5"));
        QCOMPARE(device->take(), QString("5\n"));
        QCOMPARE(run("$a"), QVariant("5"));
        QVERIFY(device->take().startsWith("5\r\n\033[32m"));
        QVERIFY(!run("$b").isValid());
        QVERIFY(device->take().startsWith("NULL\r\n"));
        QCOMPARE(shell->getEnvironment("$b"), QString("NULL"));
        run("$a =");
        QCOMPARE(shell->getEnvironment("$a"), QString("NULL"));
        QCOMPARE(shell->getEnvironment("$PATH"), QString("/Main"));
    }

    void assignmentOfTexts()
    {
        run("$x = hello world");
        QCOMPARE(shell->getEnvironment("$x"), QString("hello world"));
        QCOMPARE(device->take(), QString());
        QVERIFY(!shell->hasError());
        run("$y = $x");
        QCOMPARE(shell->getEnvironment("$y"), QString("hello world"));
        run("$v = demo/value");
        QCOMPARE(shell->getEnvironment("$v"), QString("7"));
        run("$c = demo/fail");
        QCOMPARE(shell->getEnvironment("$c"), QString("ERROR"));
        QVERIFY(shell->hasError());
        run("$s = sys echo a=b");
        QVERIFY(device->take().endsWith("a=b\n\n"));
    }

    void indirectCommand()
    {
        run("$cmd = demo/echo");
        run("$w = 1");
        shell->setEnvironment("$cmd", "demo/echo");
        run("$cmd $w x");
        QCOMPARE(board->words, QStringList({"demo/echo", "$w", "x"}));
        run("demo/echo $w '$w' \"v=$w\"");
        QCOMPARE(board->words, QStringList({"demo/echo", "1", "'$w'", "\"v=1\""}));
    }

    void history()
    {
        for (const char *line : {"demo/value", "demo/echo a", "demo/value", ""})
            run(line);
        QCOMPARE(shell->history(), QStringList({"demo/echo a", "demo/value"}));
        shell->setKeepHistory(false);
        run("demo/echo b");
        QCOMPARE(shell->history().size(), 2);
    }

    void colours()
    {
        run("demo/claim");
        QCOMPARE(device->take(), QString("\033[30;43mWarning: still at it\r\n\033[0m"));
    }

    void tagForms()
    {
        for (const QString &line : {"demo/echo a " + tag, "demo/echo " + tag + " a", "demo/echo a " + tag + "=="}) {
            QVERIFY2(answer(line).contains("ZEL_SHELL_PACKET_START"), qPrintable(line));
            QCOMPARE(board->words, QStringList({"demo/echo", "a"}));
        }
        for (const QString &line : {"demo/echo \"" + tag + "\"", "demo/echo x" + tag})
            QVERIFY2(!answer(line).contains("ZEL_SHELL_PACKET_START"), qPrintable(line));
    }

    void oneCompletingPacket_data()
    {
        Table<QString, QString, QString, QString> row("statement", "key", "state", "body");
        row("command", "demo/echo#1 a", "demo/echo#1", "EXECUTE_COMPLETE", "Execute demo/echo Complete!\r\n");
        row("value", "demo/value#2", "demo/value#2", "EXECUTE_RESULT", "Execute demo/value Complete!\r\n");
        row("failure", "demo/fail", "demo/fail", "EXECUTE_ERROR",
            "EXECUTE_ERROR :Exception in board: broken, file f, line 1\r\n");
        row("state of its own", "demo/claim", "demo/claim", "EXECUTE_COMPLETE", "Execute demo/claim Complete!\r\n");
        row("cd", "cd#3 demo", "cd#3", "EXECUTE_COMPLETE", "Execute cd Complete!\r\n");
        row("cd fails", "cd#4 nowhere", "cd#4", "EXECUTE_ERROR", "-Shell: cd: nowhere: No such file or directory\r\n");
        row("terminal", "terminal yes", "terminal", "EXECUTE_COMPLETE", "Execute terminal Complete!\r\n");
        row("sys", "sys#5 echo hi", "sys#5", "EXECUTE_COMPLETE", "Execute sys Complete!\r\n");
        row("number", "42", "42", "EXECUTE_RESULT", "Execute 42 Complete!\r\n");
        row("ls", "ls", "ls", "EXECUTE_NOTFOUND", "Error : input 'ls' can not execate\r\n");
        row("unknown", "foo#6 bar", "foo#6", "EXECUTE_NOTFOUND", "Error : input 'foo#6 bar' can not execate\r\n");
        row("assignment", "$x = demo/value#7", "demo/value#7", "EXECUTE_RESULT", "Execute demo/value Complete!\r\n");
        row("nothing", "$x =", "$x", "EXECUTE_COMPLETE", "Execute $x Complete!\r\n");
        row("query", "$PATH", "$PATH", "EXECUTE_RESULT", "/Main\r\n");
        row("quit", "quit", "quit", "ZEL_SHELL_DISCONNECT", "ZEL shell disconnect\r\n");
    }

    void oneCompletingPacket()
    {
        QFETCH(QString, statement);
        QFETCH(QString, key);
        QFETCH(QString, state);
        QFETCH(QString, body);
        run(statement + " " + tag);
        const auto packets = packetsIn(device->take());
        QVERIFY(!packets.isEmpty());
        for (const ZELShellProcessHeader &packet : packets) {
            QCOMPARE(packet.getRequestMethod(), key);
            QCOMPARE(packet.isComplete(), &packet == &packets.last());
        }
        QCOMPARE(stateOf(packets.last()), state);
        QCOMPARE(packets.last().getRequestBody(), body);
    }

    void packetContents()
    {
        const QString text = QString::fromUtf8("demo/echo#9 \"gr\xc3\xbc\xc3\x9f \xe2\x82\xac\"");
        run(text + " " + tag);
        auto packets = packetsIn(device->take());
        QCOMPARE(packets.size(), 2);
        QCOMPARE(packets.first().getRequestBody(), text + "\r\n");
        QVERIFY(packets.first().isInsideProcess());
        QCOMPARE(packets.first().headers.value("PATH"), QByteArray("/Main/demo/echo"));
        QVERIFY(!packets.last().headers.contains("Return"));
        run("$q = 12");
        device->take();
        run("$q " + tag);
        packets = packetsIn(device->take());
        QCOMPARE(packets.size(), 1);
        QCOMPARE(packets.first().getReturn(), QString("12"));
    }

    void scripts()
    {
        QTemporaryFile file;
        QVERIFY(file.open());
        file.write("$a = 1\ndemo/echo x; demo/value\n");
        file.close();
        QCOMPARE(run("demo/script --file " + file.fileName()), QVariant(7));
        QCOMPARE(board->words, QStringList({"demo/echo", "x"}));
        QCOMPARE(shell->getEnvironment("$a"), QString("1"));
        QCOMPARE(run("demo/script --string \"demo/echo 1; demo/echo 2\""), QVariant());
        QCOMPARE(board->words.last(), QString("2"));
        device->take();
        run("demo/script --file /nowhere/at/all");
        QCOMPARE(device->take(), QString("No such file or directory '/nowhere/at/all' found\r\n"));
        ZELArguments(shell.get(), "x").Execl("demo/echo a \"b c\"");
        QCOMPARE(board->words, QStringList({"demo/echo", "a", "\"b c\""}));
    }

    void statementsOfATaggedLine_data()
    {
        Table<QString, QString, QString> row("line", "key", "value");
        row("script",
            "demo/script#4 --string \"onerror continue; demo/echo in; ls; demo/value " + tag
                + "; nothing; $x = 3; demo/value\" ",
            "demo/script#4", "7");
        row("Execl", "demo/execl#2 ", "demo/execl#2", "");
        row("Execute", "$e = demo/execute#5#6 ", "demo/execute#5", "");
        row("filters", "demo/script --string 'demo/echo a | x; demo/value' ", "demo/script", "7");
    }

    void statementsOfATaggedLine()
    {
        QFETCH(QString, line);
        QFETCH(QString, key);
        QFETCH(QString, value);
        FakeDevice other;
        ZELStream elsewhere(&other, false);
        board->elsewhere = &elsewhere;
        shell->setInteractive(true);
        server->setFilters(true);
        run(line + tag);
        QString written = device->take();
        const auto packets = packetsIn(written);
        int completing = 0;
        for (const ZELShellProcessHeader &packet : packets) {
            QCOMPARE(packet.getRequestMethod(), key);
            completing += packet.isComplete();
        }
        QCOMPARE(completing, 1);
        QCOMPARE(packets.last().getReturn(), value);
        QCOMPARE(written.count("ZEL_SHELL_PACKET_START"), packets.size());
        // Nothing stands between the packets.
        QCOMPARE(written.remove(QRegularExpression("(?s)ZEL_SHELL_PACKET_START.*?PACKET_END|\r\n")), QString());
        QVERIFY(!other.take().contains("PACKET"));
    }

    void parallelStatements()
    {
        const int threads = 4, rounds = 100;
        QVector<std::shared_ptr<QSemaphore>> ends;
        for (int i = 0; i < threads; ++i) {
            auto end = std::make_shared<QSemaphore>();
            ends += end;
            ZELThreadPool::Pool()->run(
                [this, end, i](ZELThreadInfo *) {
                    for (int n = 0; n < rounds; ++n) {
                        shell->Execute(QStringLiteral("$v%1 = demo/value").arg(i), true);
                        shell->Execute("cd demo", true);
                        shell->Execute("value#" + QString::number(n) + " " + tag, true);
                        shell->Execute("cd", true);
                        shell->Execute("ls", true);
                    }
                    end->release();
                },
                QVariant());
        }
        for (const auto &end : ends)
            QVERIFY(end->tryAcquire(1, 60000));
        QCOMPARE(shell->runningNames(), QStringList());
        QCOMPARE(shell->getShellPath(true), QString("/Main"));
        for (const ZELShellProcessHeader &packet : packetsIn(device->take()))
            QVERIFY(packet.isComplete());
    }

private:
    void registerCommands() override
    {
        server->registerCmd("demo", "value", board.get(), SLOT(value(ZELArguments)), true);
        server->registerCmd("demo", "echo", board.get(), SLOT(echo(ZELArguments)), true);
        server->registerCmd("demo", "fail", board.get(), SLOT(fail(ZELArguments)), true);
        server->registerCmd("demo", "claim", board.get(), SLOT(claim(ZELArguments)), true);
        server->registerCmd("demo", "execl", board.get(), SLOT(execl(ZELArguments)), true);
        server->registerCmd("demo", "execute", board.get(), SLOT(execute(ZELArguments)), true);
        server->registerCmd("demo", "script", board.get(), SLOT(script(ZELArguments)), true);
    }
};

QTEST_GUILESS_MAIN(tst_Interpreter)
#include "tst_interpreter.moc"
