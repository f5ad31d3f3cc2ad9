// SPDX-License-Identifier: MIT
#include "noleakcheck.h"
#include "shellfixture.h"
#include "table.h"
#include "zelshell_p.h"
#include "zelshellsystem_p.h"
#include "zelthreadpool.h"

#include <QSignalSpy>
#include <QtTest>
#include <signal.h>
#include <sys/resource.h>

class tst_Builtins : public ShellFixture
{
    Q_OBJECT
private Q_SLOTS:
    void onTerminal_data()
    {
        Table<QString, QString> row("line", "expected");
        row("unknown", "foo", "Error : input 'foo' can not execate\n");
        row("number", "42", "42\n");
        row("quoted", "\"text\"", "\"text\"\n");
        row("number and more", "42 1", "Error : input '42 1' can not execate\n");
        row("cd nowhere", "cd nowhere", "-Shell: cd: nowhere: No such file or directory\n");
        row("cd to a command", "cd demo/wait", "-Shell: cd: wait: No such file or directory\n");
        row("cd indexed", "cd#1 demo", "");
        row("ls", "ls", "demo\n");
        row("ls path", "ls demo", "deep    \033[33mmany\033[0m    \033[33mwait\033[0m\n");
        row("ls -a path", "ls -a /demo/deep/", "\033[33mtext\033[0m\n");
        row("ls hidden", "ls -a demo",
            "\033[33m.hidden\033[0m    deep       \033[33mmany\033[0m       \033[33mwait\033[0m\n");
        row("ls nowhere", "ls demo/x", "No such file or directory 'demo/x' found\n");
        row("ls too much", "ls a b", "'ls' input error\n");
        row("terminal", "terminal yes", "Error : input 'terminal yes' can not execate\n");
        row("sys", "sys echo 'a  b'", "a  b\n\n");
        row("help without a function", "version --help", "a \"b\"\r\n");
    }

    void onTerminal()
    {
        QFETCH(QString, line);
        QFETCH(QString, expected);
        QCOMPARE(answer(line), expected);
    }

    void namesInUtf8()
    {
        const QString name = QString::fromUtf8("\u00e9t\u00e9"), typed = QString::fromLatin1(name.toUtf8());
        server->registerCmd(("demo/" + name).toUtf8(), "x", board.get(), SLOT(text(ZELArguments)));
        shell->setUtf8Editing(true);
        run("cd demo");
        for (const QString &line : {"cd \"" + typed + "/", "cd '" + typed + "'", "cd \"./" + typed + '"'}) {
            QCOMPARE(answer(line), QString());
            QVERIFY2(shell->getShellPath(true).endsWith('/' + name), qPrintable(line));
            run("cd ..");
        }
        QVERIFY(answer("ls").contains(typed));
        shell->EnterDir(name);
        device->take();
        shell->PrintCurVirtualDir();
        QVERIFY(device->take().contains("/Main/demo/" + typed + "\033"));
        QCOMPARE(answer("cd ./nowhere"), QString("-Shell: cd: nowhere: No such file or directory\n"));
    }

    void aboveTheTree()
    {
        shell->ReSetDir();
        QVERIFY(!shell->currentDirectory());
        QCOMPARE(shell->getCurVirtualDir(), QString("ZELShell@ZEL:~ $ "));
        QCOMPARE(shell->getEnvironment("$PATH"), QString());
        QCOMPARE(answer("ls"), QString("Main\n"));
        QCOMPARE(answer("demo/wait"), QString("Error : input 'demo/wait' can not execate\n"));
        QCOMPARE(answer("cd demo"), QString("-Shell: cd: demo: No such file or directory\n"));
        QCOMPARE(answer("version"), QString("a \"b\"\r\n"));
        QCOMPARE(answer("Main/demo/deep/text"), QString("a \"b\"\r\n"));
        run("cd ..");
        QVERIFY(!shell->EnterDir("demo"));
        QVERIFY(shell->EnterDir("Main"));
        QCOMPARE(shell->getShellPath(true), QString("/Main"));
    }

    void pathsAndSystemCommands()
    {
        for (const char *line : {"/demo/deep/text", "\\demo\\deep\\text", "/Main/demo/deep/text", "./demo//deep/text"})
            QCOMPARE(answer(line), QString("a \"b\"\r\n"));
        run("cd /Main/demo/deep/");
        QCOMPARE(shell->getShellPath(true), QString("/Main/demo/deep"));
        QCOMPARE(shell->getShellPath(false), QString("/demo/deep"));
        QCOMPARE(shell->getEnvironment("$PATH"), QString("/Main/demo/deep"));
        QCOMPARE(answer("text"), QString("a \"b\"\r\n"));
        QCOMPARE(answer("version"), QString("a \"b\"\r\n"));
        QVERIFY(answer("/version").startsWith("Error"));
        run("cd ..");
        QCOMPARE(shell->getShellPath(true), QString("/Main/demo"));
        run("cd /nowhere");
        QCOMPARE(shell->getShellPath(true), QString("/Main"));
        run("cd demo/nowhere"); // leaves the session where it stopped
        QCOMPARE(shell->getShellPath(true), QString("/Main/demo"));
        run("cd");
        QCOMPARE(shell->getShellPath(true), QString("/Main"));
    }

    void treeCopies()
    {
        std::unique_ptr<ZELShellCommandTree> copy(shell->getCommandTree(true));
        QCOMPARE(copy->Find("demo")->Find("deep")->Find("text")->getPath(), QString("/Main/demo/deep/text"));
        QCOMPARE(copy->Find("demo")->Find("wait")->CommandType(), ZELShellCommandTree::Execute);
        QVERIFY(copy->Find("system")->Find("version"));
        std::unique_ptr<ZELShellCommandTree> main(shell->getCommandTree(false));
        QCOMPARE(main->length(), 1);
        QObject plain;
        shell->dumptree(main.get(), &plain);
        QVERIFY(plain.findChild<ZELShellCommandTree *>("demo")->Find("deep"));
    }

    void prompts()
    {
        shell->PrintCurVirtualDir();
        shell->PrintCurVirtualDir();
        QCOMPARE(device->take(), prompt);
        shell->setInteractive(true);
        QCOMPARE(answer("42"), "42\n" + prompt);
        shell->setShowReturnValue(false);
        QCOMPARE(answer("version; "), QString());
        stream->write(QStringLiteral("x"));
        QCOMPARE(answer("version"), prompt);
    }

    void runningNamesAndLock()
    {
        start("demo/wait");
        QVERIFY(board->entered.tryAcquire(1, 5000));
        for (const char *name : {"wait", "demo/wait", "/demo/wait", "/Main/demo/wait", "\\demo\\wait"})
            QVERIFY2(shell->isCommandRunning(name), name);
        for (const char *name : {"demo", "ait", "other/wait", ""})
            QVERIFY2(!shell->isCommandRunning(name), name);
        for (const char *typed : {"demo/wait", "/demo/wait", "\\Main\\demo\\wait", "./demo//wait"})
            QCOMPARE(answer(typed), QString("wait is already in running!\r\n"));
        device->take();
        run("demo/wait#8 " + tag);
        QCOMPARE(device->text().count("State: EXECUTE_RUNNINGLOCK"), 1);
        QCOMPARE(device->text().count("PACKET_START"), 1);
        start("demo/many");
        start("\\demo\\many");
        QVERIFY(board->entered.tryAcquire(2, 5000));
        QCOMPARE(shell->runningNames(), QStringList({"wait#0", "many#0", "many#1"}));
        board->proceed.release(3);
        QTRY_VERIFY(shell->runningNames().isEmpty());
    }

    void killedCommand()
    {
        ZELThread *job = start("demo/wait#3 " + tag);
        QVERIFY(board->entered.tryAcquire(1, 5000));
        QTRY_VERIFY(job->ThreadId());
        QCOMPARE(job->Kill(), 0);
        QTRY_VERIFY(shell->runningNames().isEmpty());
        QTRY_COMPARE(device->text().count("State: EXECUTE_ERROR"), 1);
        QVERIFY(device->text().contains("PACKET_START demo/wait#3\r\n"));
        board->proceed.release();
        QCOMPARE(answer("demo/wait"), QString());
    }

    void helpAndWakeUp()
    {
        QStringList helped, woken;
        server->setHelpFunction([&](ZELArguments args) {
            helped << args.getExecPath();
            args.debug() << "usage";
        });
        QCOMPARE(answer("demo/deep/text -h"), QString("usage\r\n"));
        QCOMPARE(answer("version --weakup"), QString());
        server->setWeakupFunction([&](ZELArguments args) { woken << args.getExecName(); });
        run("version --weakup");
        QCOMPARE(woken, QStringList("version"));
        QCOMPARE(helped, QStringList("/Main/demo/deep/text"));
        device->take();
        run("version#1 --help " + tag);
        QCOMPARE(device->text().count("PACKET_START version#1"), 2);
        QCOMPARE(device->text().count("State: EXECUTE_COMPLETE"), 1);
        server->setHelpFunction([](ZELArguments) { zel_assert_x("help", "broken", "f", 1); });
        QVERIFY(answer("version -h").startsWith("EXECUTE_ERROR :ASSERT"));
    }

    void systemOutput()
    {
        const QString big = answer("sys head -c 3000000 /dev/zero | tr '\\0' x");
        QCOMPARE(big.size(), 3000001);
        QCOMPARE(answer("sys printf '\\000\\001\\377'").toLatin1(), QByteArray("\0\1\377\n", 4));
        QCOMPARE(answer("sys cat"), QString("\n"));
        QCOMPARE(answer("sys"), QString("\n"));
        device->take();
        run("sys#1 printf '\\377' " + tag);
        QCOMPARE(device->text().count("State: EXECUTE_COMPLETE"), 1);
        QVERIFY(device->text().contains(QString::fromLatin1(QByteArray("\303\277").toBase64())));
        QElapsedTimer timer;
        timer.start();
        {
            ZELSystemCommand endless("exec sleep 100", ZELSystemCommand::HostErrors);
        }
        QVERIFY(timer.elapsed() < 5000);
    }

    void systemTextIsNotCut()
    {
        const auto text = [this](const QString &command) {
            device->take();
            run("sys " + command + " " + tag);
            QString text;
            for (const auto &packet : packetsIn(device->take()))
                text += packet.isComplete() ? QString() : packet.getRequestBody();
            return text;
        };
        const QString utf8 = QString::fromUtf8("\u00e4\u20ac\U0001f600");
        QString all = text("printf '\\303'; sleep 0.2; printf '\\244\\342\\202'; sleep 0.2; printf '\\254'");
        QCOMPARE(all, utf8.left(2) + '\n');
        all = text("printf x; yes '" + utf8 + "' | head -n 30000");
        QVERIFY(all == 'x' + QString(utf8 + '\n').repeated(30000) + '\n');
        QCOMPARE(
            text("printf 'gr\\374n\\ngr\\303\\274n\\n\\303'"), QString::fromUtf8("gr\u00fcn\ngr\u00fcn\n\u00c3\n"));
    }

    void systemCommandEndsAsAWhole_data()
    {
        Table<QString> row("line");
        row("output open", "sys echo $$; sleep 100 & sleep 100");
        row("output closed", "sys echo $$; exec >&- 2>&-; sleep 100");
        row("child of a child", "sys echo $$; (sleep 100) & exit");
    }

    void systemCommandEndsAsAWhole()
    {
        QFETCH(QString, line);
        server->setCommandTimeout(300);
        QElapsedTimer timer;
        timer.start();
        const QStringList lines = answer(line).split('\n');
        server->setCommandTimeout(0);
        QVERIFY(timer.elapsed() < 5000);
        QVERIFY(lines.value(1).contains("EXECUTE_ERROR :") && lines.value(1).contains("Max time is 300"));
        const int group = lines.first().toInt();
        QVERIFY(group > 1);
        QTRY_VERIFY_WITH_TIMEOUT(kill(-group, 0) != 0, 20000); // once init has noticed, too
    }

    void systemCommandOfAPeer()
    {
        const auto has
            = [this](const char *text) { return answer("sys (true </dev/tty) 2>&1 || echo no").contains(text); };
        QVERIFY(has("no\n"));
        ZELShellPrivate::get(shell.get())->isMain = false;
        QCOMPARE(answer("sys echo out; echo err >&2"), QString("out\nerr\n\n"));
    }

    void systemCommandCannotStart()
    {
        rlimit saved;
        getrlimit(RLIMIT_NOFILE, &saved);
        rlimit none = saved;
        none.rlim_cur = 3;
        setrlimit(RLIMIT_NOFILE, &none);
        const QString text = answer("sys ls");
        setrlimit(RLIMIT_NOFILE, &saved);
        QCOMPARE(text, QString("sh: sys ls: not found \n"));
        QVERIFY(shell->hasError());
    }

    void processReceived()
    {
        QSignalSpy spy(shell.get(), &ZELShellBase::ProcessReceived);
        for (const char *line : {"ls", "cd", "42", "version", "sys true", "quit"})
            run(line);
        QCOMPARE(spy.count(), 6);
        run("foo");
        QCOMPARE(spy.count(), 6);
        QCOMPARE(shell->stopState(), 1);
    }

private:
    void registerCommands() override
    {
        server->registerCmd("demo", "wait", board.get(), SLOT(wait(ZELArguments)));
        server->registerCmd("demo", "many", board.get(), SLOT(wait(ZELArguments)), true);
        server->registerCmd("demo/deep", "text", board.get(), SLOT(text(ZELArguments)));
        server->registerCmd("demo", ".hidden", board.get(), SLOT(value(ZELArguments)));
        server->registerSysCmd("version", board.get(), SLOT(text(ZELArguments)));
    }
    ZELThread *start(const QString &line)
    {
        return ZELThreadPool::Pool()->run([this, line](ZELThreadInfo *) { shell->Execute(line, true); }, QVariant());
    }
};

QTEST_GUILESS_MAIN(tst_Builtins)
#include "tst_builtins.moc"
