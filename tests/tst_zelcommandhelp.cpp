// SPDX-License-Identifier: MIT
// Help, completion, roles: what commands tell of themselves, and to whom.
#include "noleakcheck.h"
#include "quiet.h"
#include "shellfixture.h"
#include "table.h"
#include "userdatabase.h"
#include "zelcompleter_p.h"
#include "zelshell_p.h"
#include "zeluserroles.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>
#include <atomic>
#include <thread>

enum class Mode { Slow = 1, Fast = 2 };

class tst_ZELCommandHelp : public ShellFixture
{
    Q_OBJECT
    void registerCommands() override
    {
        server->registerCmd("board", "reset", board.get(), SLOT(echo(ZELArguments)));
        server->setDescription("board", "reset", "Resets it");
        server->command("board/pump", "start", [](int, Mode, std::optional<QString>, bool, QStringList) {})
            .help("Starts a pump")
            .argument("number", "Which pump")
            .range(1, 8)
            .argument("mode", "How fast")
            .choices({{"slow", Mode::Slow}, {"fast", Mode::Fast}})
            .defaultValue("slow")
            .option("--note, -n", "Kept in the log")
            .option("--dry")
            .option("--tag");
        server->command("board/pump", "stop", [](bool) {}).argument("now").group("Ends");
        server->command("board/pump", "begin", [] {}).help("Begins").deprecated("board/pump/start");
        server->command("board/pump", "secret", [] { return 5; }).hidden();
        server->command("board/pump", "service", [] { return 6; }).role("service").help("Serves");
        server->command("board", "load", [](QString, QString, QString) {})
            .argument("file")
            .completeFiles()
            .argument("place")
            .completeTree()
            .argument("name")
            .completer(complete);
        server->command("board", "greet", [](QString, QString) { return 1; }).option("-h, --host").option("--help-me");
        server->describeDirectory("board/pump", "The pumps");
        QVERIFY(server->registerHelpCommands());
        server->registerJobCommands();
    }

    [[gnu::no_sanitize_thread, gnu::no_sanitize_address, gnu::no_sanitize_undefined]] static void writeNowhere()
    {
        volatile int *volatile nowhere = nullptr;
        *nowhere = 1;
    }

    static QStringList complete(const ZELCompletionRequest &request)
    {
        if (request.typed == "crash")
            writeNowhere();
        if (request.typed == "throw")
            throw std::runtime_error("no");
        if (request.typed == "hang")
            for (;;)
                QThread::msleep(10);
        return {"anna", "anton", "a b", "bert", "crash1", "hang1", request.name + request.words.join('.')};
    }

    QString completed(const QString &line)
    {
        const auto found = zelComplete(line, ZELShellPrivate::get(shell.get())->completionScope(), 200);
        return QString(found.insertion + '|' + found.listing.simplified())
            .remove(QRegularExpression("\033\\[[0-9;]*m"));
    }

private Q_SLOTS:
    void helps_data()
    {
        Table<QString, QString> row("line", "text");
        const QString start
            = "Usage: board/pump/start number [mode] [--note TEXT] [--dry] [--tag TEXT...]|Starts a pump||"
              "Arguments|  number  Which pump; a whole number from 1 to 8|"
              "  mode    How fast; slow or fast; slow when left out||Options|"
              "  --note, -n TEXT  Kept in the log; a text|  --dry|  --tag TEXT...    a text";
        row("help board/pump/start", start);
        row("board/pump/start -h", start);
        row("board/pump/start nonsense --help", start);
        row("help /board", "Directories|  pump/  The pumps||Commands|  greet|  load|  reset  Resets it");
        row("help board/pump",
            "The pumps||Commands|  begin  Begins (deprecated, use board/pump/start)|  start  Starts a pump||Ends|  "
            "stop");
        row("help board/reset", "Usage: board/reset ...|Resets it");
        row("board/reset --help", "Usage: board/reset ...|Resets it");
        row("board/reset -- x", "board/reset -- x");
        row("board/greet -h x --help-me b", "1");
        row("help nowhere", "help: there is nothing called 'nowhere'");
        row("help board/pump/service", "help: there is nothing called 'board/pump/service'");
    }

    void helps()
    {
        QFETCH(QString, line);
        QFETCH(QString, text);
        QCOMPARE(answer(line), text.replace('|', "\r\n") + "\r\n");
    }

    void overview()
    {
        const QString text = answer("help");
        QVERIFY2(text.startsWith("Directories\r\n  board/\r\n\r\nEverywhere\r\n  help  Lists"), qPrintable(text));
        QVERIFY2(text.contains("Built in\r\n"), qPrintable(text));
    }

    void hostGoesBefore()
    {
        server->setHelpFunction([](ZELArguments args) { args.debug().noquote() << "the host's"; });
        QCOMPARE(answer("board/pump/start -h"), QString("the host's\r\n"));
    }

    void json()
    {
        const QJsonObject all = QJsonDocument::fromJson(answer("help --json").toUtf8()).object();
        QCOMPARE(all["commands"].toArray().size(), 9); // not the hidden one, nor that of a role
        QCOMPARE(all["directories"].toArray().last().toObject()["help"].toString(), QString("The pumps"));
        const QJsonObject one = QJsonDocument::fromJson(answer("help board/pump/start --json").toUtf8()).object();
        const QJsonObject command = one["commands"].toArray().first().toObject();
        QCOMPARE(command["path"].toString(), QString("board/pump/start"));
        const QJsonObject number = command["arguments"].toArray()[0].toObject(),
                          mode = command["arguments"].toArray()[1].toObject();
        QCOMPARE(number["type"].toString(), QString("integer"));
        QCOMPARE(number["maximum"].toDouble(), 8.0);
        QVERIFY(number["required"].toBool() && !mode["required"].toBool());
        QCOMPARE(mode["choices"].toArray(), (QJsonArray{"slow", "fast"}));
        QCOMPARE(command["options"].toArray()[0].toObject()["aliases"].toArray(), QJsonArray{"-n"});
    }

    /// What scripts brought, where the line editor is the modern one.
    void completesScripts()
    {
        run("function boardwide () { }");
        QCOMPARE(completed("boardw"), QString("|"));
        ZELShellPrivate::get(shell.get())->hasPrompt = true;
        QCOMPARE(completed("boardw"), QString("ide|"));
        QCOMPARE(completed("dos"), QString("tring|"));
        QCOMPARE(completed("dostring --f"), QString("ile|"));
        QCOMPARE(completed("dostring --file /us"), QString("r/|"));
    }

    void completes_data()
    {
        Table<QString, QString> row("line", "found");
        row("board/pump/start 3 f", "ast|");
        row("board/pump/start 3 fast --n", "ote|");
        row("board/pump/start 3 fast --note x --n", "|");
        row("board/pump/start --", "|--dry --note --tag");
        row("board/pump/start --tag x --ta", "g|");
        row("board/pump/start -- --", "|");
        row("board/pump/start b", "|");
        row("$x = board/pump/start 3 s", "low|");
        row("ls; board/pump/start 3 s", "low|");
        row("board/pump/start --dry=y", "es|");
        row("board/pump/stop n", "o|");
        row("board/pump/se", "|");
        row("board/pump/b", "egin|");
        row("board/load x boar", "d/|");
        row("board/load x y an", "|anna anton");
        row("board/load x y a\" b", "|");
        row("board/load x y name", "board/load.x.y|");
        row("help board/p", "ump/|");
        row("echo $", "|$* $? $@ $PATH");
        row("$P", "ATH|");
        row("cd b", "oard/|");
        row("cd board/", "pump/|");
        row("cd /board/p", "ump/|");
        row("ls board/r", "eset|");
        row("kill 1", "|");
    }

    void completes()
    {
        QFETCH(QString, line);
        QTEST(completed(line), "found");
    }

    void completesFiles()
    {
        QTemporaryDir directory;
        QVERIFY(QDir(directory.path()).mkdir("deeper"));
        QFile file(directory.filePath("deep.txt"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(completed("board/load " + directory.path() + "/d"), QString("eep|deep.txt deeper"));
        QCOMPARE(completed("board/load " + directory.path() + "/deepe"), QString("r/|"));
        QCOMPARE(completed("board/load /nowhere/d"), QString("|"));
    }

    void badCompleters()
    {
        zelSetCrashDump(false);
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(completed("board/load x y crash"), QString("|"));
        QCOMPARE(completed("board/load x y throw"), QString("|"));
        QCOMPARE(completed("board/load x y hang"), QString("|"));
        QVERIFY2(clock.elapsed() < 5000, "the limit is 200 ms");
        QCOMPARE(completed("board/load x y b"), QString("ert|"));
        zelSetCrashDump(true);
    }

    void jobNumbers()
    {
        server->registerCmd("", "wait", board.get(), SLOT(wait(ZELArguments)));
        ZELShellPrivate::get(shell.get())->runStatement("wait&");
        QVERIFY(board->entered.tryAcquire(1, 20000));
        QCOMPARE(completed("kill 1"), QString("|")); // it is complete
        board->proceed.release();
        QTRY_VERIFY(ZELShellPrivate::get(shell.get())->jobs.running().isEmpty());
    }

    void roles()
    {
        QVERIFY(answer("board/pump/secret").contains('5'));
        QVERIFY(!answer("ls board/pump").contains("secret"));
        const QString refused = "board/pump/service is not permitted!\r\n";
        QCOMPARE(answer("board/pump/service"), refused);
        QCOMPARE(answer("board/pump/service -h"), refused);
        QVERIFY(!answer("ls board/pump").contains("service"));
        QCOMPARE(completed("board/pump/ser"), QString("|"));
        QVERIFY(answer("board/pump/service " + tag).contains("State: EXECUTE_PERMISSION_ERROR\r\n"));
        shell->setRoles({"service"});
        QCOMPARE(answer("board/pump/service"), QString("6\r\n"));
        QVERIFY(answer("ls board/pump").contains("service"));
        QVERIFY(answer("help board/pump").contains("Serves"));
        QCOMPARE(completed("board/pump/ser"), QString("vice|"));
        server->setPermissionFunction([](const ZELArguments &) { return false; });
        QCOMPARE(answer("board/pump/service"), refused);
        QVERIFY(server->setRole("board", "reset", "admin") && server->setHidden("board", "load", true));
        QVERIFY(!answer("ls board").contains("reset") && !completed("board/l").contains("oad"));
    }

    /// Listings, completions and help while other threads register and remove commands.
    void churn()
    {
        dropDebugMessages();
        std::atomic<bool> stop{false};
        const auto churn = [&](const QByteArray &name) {
            while (!stop) {
                server->command("board/pump", name, [](int) {}).argument("n").choices({{"one", 1}}).role("service");
                server->setHidden("board/pump", name, true);
                server->unregisterCommand("board/pump", name);
            }
        };
        std::thread first(churn, "starting"), second(churn, "startled");
        for (int i = 0; i < 300; ++i) {
            QVERIFY(completed("board/pump/start").startsWith('|'));
            completed("board/pump/starting o");
            run("help board/pump");
            run("help --json");
            run("board/pump/startled one");
        }
        stop = true;
        first.join();
        second.join();
        qInstallMessageHandler(nullptr);
    }

    void storedRoles()
    {
        UserDatabase database;
        QCOMPARE(ZELUserRoles::roles(database.database, "ann"), QStringList());
        QVERIFY(ZELUserRoles::setRoles(database.database, " ann ", {"service", "admin", "admin"}));
        QVERIFY(ZELUserRoles::setRoles(database.database, "o'neil", {"a'b"}));
        QCOMPARE(ZELUserRoles::roles(database.database, "ann"), (QStringList{"admin", "service"}));
        QCOMPARE(ZELUserRoles::roles(database.database, "o'neil"), QStringList{"a'b"});
        QVERIFY(ZELUserRoles::setRoles(database.database, "ann", {}));
        QCOMPARE(ZELUserRoles::roles(database.database, "ann"), QStringList());
        QVERIFY(!ZELUserRoles::setRoles(database.database, " ", {"x"}));
        QVERIFY(!ZELUserRoles::setRoles(QSqlDatabase(), "ann", {"x"}));
    }
};

QTEST_MAIN(tst_ZELCommandHelp)
#include "tst_zelcommandhelp.moc"
