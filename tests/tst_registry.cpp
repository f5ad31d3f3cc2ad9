// SPDX-License-Identifier: MIT
#include "quiet.h"
#include "table.h"
#include "threads.h"
#include "zelshellcommand.h"
#include "zelshellcommandtree_p.h"
#include "zelshellserver_p.h"

#include <QtTest>
#include <atomic>

using Node = ZELShellCommandTree;
Q_DECLARE_METATYPE(Node::ZELShellCommandType)

class Board : public QObject
{
    Q_OBJECT
public:
    std::atomic<int> calls{0};
public Q_SLOTS:
    QVariant ping(ZELArguments args)
    {
        ++calls;
        return args.ArgumentsLength();
    }
    void wrong(int) { }
    void suicide(ZELArguments args)
    {
        delete this;
        args.setReturnValue("gone");
    }
};

class tst_Registry : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void placement_data()
    {
        Table<QByteArray, QString> row("path", "placed");
        row("empty pieces", "tools//net/", "/Main/tools/net/ping");
        row("root", "", "/Main/ping");
        row("absolute root", "/Main", "/Main/ping");
        row("absolute, not walked", "/Main/tools", "/Main/ping");
        row("utf-8", "Geräte", "/Main/Geräte/ping");
    }

    void placement()
    {
        QFETCH(QByteArray, path);
        QFETCH(QString, placed);
        ZELShellServer server;
        Board board;
        QVERIFY(server.registerCmd(path, "ping", &board, SLOT(ping(ZELArguments))));
        const int cut = placed.lastIndexOf('/');
        Node *leaf = server.FindCommand(placed.left(cut), "ping");
        QVERIFY(leaf);
        QCOMPARE(leaf->getPath(), placed);
        QCOMPARE(leaf->CommandType(), Node::Execute);
        QCOMPARE(server.FindCommand(placed.mid(6, qMax(0, cut - 6)), "ping"), cut > 5 ? leaf : nullptr);
    }

    void refusals_data()
    {
        Table<QByteArray, QByteArray> row("path", "message");
        const QByteArray illegal = "illegal registered address!";
        row("other root", "/Other/x", illegal);
        row("slash", "/", illegal);
        row("longer word", "/Mainx", illegal);
        row("case", "/main", illegal);
        row("command in the way", "new/../a/b", "path name conflicts with command");
        row("duplicate", "deep/", "\"deep//a\" is duplicate registration!");
    }

    void refusals()
    {
        QFETCH(QByteArray, path);
        QFETCH(QByteArray, message);
        ZELShellServer server;
        Board board;
        for (const char *place : {"new/..", "deep"})
            QVERIFY(server.registerCmd(place, "a", &board, SLOT(ping(ZELArguments))));
        QTest::ignoreMessage(QtDebugMsg, message);
        QVERIFY(!server.registerCmd(path, "a", &board, SLOT(ping(ZELArguments))));
        QTest::ignoreMessage(QtDebugMsg, message);
        QVERIFY(!server.CreatCommandPath(path, "a"));
        QCOMPARE(server.commands().size(), 2);
        QVERIFY(!server.FindCommand("/Mainx", "a"));
        QVERIFY(!server.FindCommand("/", "a"));
    }

    void unspeakableNames_data()
    {
        Table<QByteArray, QByteArray> row("path", "name");
        row("colon in the path", "a:b", "c");
        row("colon in the name", "a", "b:c");
        row("line end", "a", "b\r\nState: x");
        row("escape in the path", "\033[2J", "a");
        row("delete", "a", "b\x7f");
    }

    // Such a name would end the head of its packets before its time.
    void unspeakableNames()
    {
        QFETCH(QByteArray, path);
        QFETCH(QByteArray, name);
        ZELShellServer server;
        Board board;
        QVERIFY(!server.registerCmd(path, name, &board, SLOT(ping(ZELArguments))));
        QVERIFY(!server.registerSysCmd(path + name, &board, SLOT(ping(ZELArguments))));
        QVERIFY(!server.CreatCommandPath(path, name));
        QVERIFY(!server.Register(server.FindCommand("/Main", ""), path + name));
        QVERIFY(server.commands().isEmpty());
    }

    void systemCommands()
    {
        ZELShellServer server;
        Board other;
        {
            Board board;
            QVERIFY(server.registerSysCmd("version", &board, SLOT(ping(ZELArguments))));
            QVERIFY(!server.registerSysCmd("version", &board, SLOT(ping(ZELArguments))));
            QCOMPARE(server.FindCommand("", "version")->CommandType(), Node::System_Execute);
            QCOMPARE(server.FindCommand("", "version")->getPath(), QString("/Sys/version"));
            QCOMPARE(server.execute(nullptr, "", "version", "version a b"), QVariant(2));
            // With an empty path only their names count as taken, with an absolute one a directory's does, too.
            QTest::ignoreMessage(QtDebugMsg, "\"/version\" is duplicate registration!");
            QVERIFY(!server.registerCmd("", "version", &board, SLOT(ping(ZELArguments))));
            QVERIFY(server.registerCmd("", "again", &board, SLOT(ping(ZELArguments))));
            QVERIFY(server.registerCmd("", "again", &other, SLOT(ping(ZELArguments))));
            QVERIFY(server.registerCmd("x", "ping", &board, SLOT(ping(ZELArguments))));
            QTest::ignoreMessage(QtDebugMsg, "\"/Main/x\" is duplicate registration!");
            QVERIFY(!server.registerCmd("/Main", "x", &board, SLOT(ping(ZELArguments))));
        }
        QVERIFY(!server.FindCommand("", "version"));
        server.execute(nullptr, "/Main", "again", "again");
        QCOMPARE(other.calls.load(), 1);
    }

    void badMembers()
    {
        ZELShellServer server;
        Board board;
        QVERIFY(!server.registerCmd("a", "x", nullptr, SLOT(ping(ZELArguments))));
        QVERIFY(!server.registerCmd("a", "x", &board, nullptr));
        for (const char *member : {SLOT(wrong(int)), SLOT(nobody(ZELArguments)), "", "1", "ping"}) {
            const QByteArray shown = QByteArray(member).mid(*member == '1');
            const QByteArray problem = shown.startsWith("wrong") ? "Incompatible arguments of" : "No such slot";
            QTest::ignoreMessage(QtWarningMsg, "ZELShellCommand::BindCommand: " + problem + " Board::" + shown);
            QVERIFY(!server.registerCmd("a", "x", &board, member));
        }
        QTest::ignoreMessage(QtWarningMsg, "ZELShellCommand::BindCommand: invalid null parameter");
        QVERIFY(!server.registerSysCmd("x", nullptr, nullptr));
        QVERIFY(server.commands().isEmpty());
        QVERIFY(!server.Register(nullptr, "x"));
    }

    void execute()
    {
        ZELShellServer server;
        Board board;
        QVERIFY(server.registerCmd("a/b", "ping", &board, SLOT(ping(ZELArguments))));
        QCOMPARE(server.execute(nullptr, "/Main/a/b", "ping", "ping 1 2 3"), QVariant(3));
        QVERIFY(!server.execute(nullptr, "a", "b", "b").isValid());
        QVERIFY(!server.execute(nullptr, "a/b", "pong", "pong").isValid());
        Node *bare = server.Register(server.FindCommand("a", "b"), "bare");
        QCOMPARE(bare->CommandType(), Node::Directory);
        bare->setCommandType(Node::Execute);
        QVERIFY(!server.execute(nullptr, "a/b", "bare", "bare").isValid());
        QCOMPARE(board.calls.load(), 1);
        QVERIFY(server.setCommandTimeout("a/b", "ping", 50));
        QCOMPARE(server.FindCommand("a/b", "ping")->Command()->timeLimit(), 50);
        QVERIFY(!server.setCommandTimeout("a", "b", 50));
    }

    void descriptions()
    {
        ZELShellServer server;
        Board board;
        QVERIFY(server.registerCmd("b", "ping", &board, SLOT(ping(ZELArguments)), true));
        QVERIFY(server.registerCmd("a", "ping", &board, SLOT(ping(ZELArguments))));
        QVERIFY(server.registerSysCmd("help", &board, SLOT(ping(ZELArguments))));
        QVERIFY(server.setDescription("b", "ping", "Answers"));
        QVERIFY(!server.setDescription("b", "pong", "Answers"));
        QVERIFY(!server.setDescription("", "b", "A directory"));
        QCOMPARE(server.description("/Main/b", "ping"), QString("Answers"));
        QString text;
        for (const ZELShellCommandInfo &info : server.commands())
            text += info.path + ' ' + info.name + ' ' + info.description + (info.multiRun ? "+;" : ";");
        QCOMPARE(text, QString("/Main/a ping ;/Main/b ping Answers+;/Sys help ;"));
    }

    void receiverTakesItsOwnEntryOnly()
    {
        ZELShellServer server;
        auto *first = new Board;
        Board second;
        QVERIFY(server.registerCmd("", "ping", first, SLOT(ping(ZELArguments))));
        QVERIFY(server.registerCmd("a", "ping", first, SLOT(ping(ZELArguments))));
        QVERIFY(server.registerCmd("", "ping", &second, SLOT(ping(ZELArguments))));
        delete first;
        QVERIFY(!server.FindCommand("a", "ping"));
        QVERIFY(server.FindCommand("/Main", "a")); // the directory stays
        QCOMPARE(server.execute(nullptr, "/Main", "ping", "ping 1"), QVariant(1));
        QVERIFY(server.registerCmd("a", "ping", &second, SLOT(ping(ZELArguments))));
    }

    void deathInAnyOrder()
    {
        // s: the server, r: the receiver, p: a shell's hold on the command
        for (const QString order : {"srp", "spr", "rsp", "rps", "psr", "prs"}) {
            auto server = std::make_unique<ZELShellServer>();
            auto board = std::make_unique<Board>();
            QVERIFY(server->registerCmd("a", "ping", board.get(), SLOT(ping(ZELArguments))));
            auto state = ZELShellServerState::current();
            auto pin = ZELShellCommandPin::walk(state->mainRoot(), {"a", "ping"});
            for (const QChar who : order) {
                if (who == 's') {
                    server.reset();
                    state.reset();
                } else if (who == 'r') {
                    board.reset();
                } else {
                    ZELArguments args(nullptr, "ping 1");
                    QVERIFY(pin.execute(args));
                    QCOMPARE(args.hasRetrunValue(), board != nullptr);
                }
            }
        }
    }

    void receiverDiesWhileItsCommandRuns()
    {
        ZELShellServer server;
        auto *board = new Board;
        QVERIFY(server.registerCmd("a", "suicide", board, SLOT(suicide(ZELArguments))));
        QCOMPARE(server.execute(nullptr, "a", "suicide", "suicide"), QVariant("gone"));
        QVERIFY(!server.FindCommand("a", "suicide"));
    }

    void stateOutlivesServer()
    {
        QVERIFY(ZELShellServerState::current() != ZELShellServerState::current());
        auto first = std::make_unique<ZELShellServer>();
        auto second = std::make_unique<ZELShellServer>();
        QCOMPARE(ZELShellServer::seft, second.get());
        second->setHelpFunction([](ZELArguments) {});
        second->setPermissionFunction([](const ZELArguments &) { return true; });
        const auto state = ZELShellServerState::current();
        first.reset(); // an older server takes nothing from the latest one
        QCOMPARE(ZELShellServer::seft, second.get());
        QCOMPARE(ZELShellServerState::current(), state);
        QVERIFY(state->helpFunction());
        QVERIFY(state->settings()->permission(ZELArguments()));
        second.reset();
        QVERIFY(!ZELShellServer::seft);
        QVERIFY(ZELShellServerState::current() != state);
        QCOMPARE(state->mainRoot()->getPath(), QString("/Main"));
        QVERIFY(!state->helpFunction());
        QVERIFY(!state->settings()->permission(ZELArguments())); // the doors stay closed for shells that go on
    }

    void threadsRegisterAndRead()
    {
        ZELShellServer server;
        Board permanent;
        QVERIFY(server.registerCmd("busy", "ping", &permanent, SLOT(ping(ZELArguments)), true));
        std::atomic<int> failures{0};
        Threads(6, [&](int t) {
            const QByteArray name = "own" + QByteArray::number(t);
            for (int i = 0; i < 150 && t % 2; ++i) {
                Board board;
                const bool done = server.registerCmd("busy/deep", name, &board, SLOT(ping(ZELArguments)))
                    && server.execute(nullptr, "busy/deep", name, "x 1").toInt() == 1
                    && server.setDescription("busy/deep", name, "text");
                failures += !done;
            }
            for (int i = 0; i < 300 && t % 2 == 0; ++i) {
                failures += server.execute(nullptr, "busy", "ping", "ping 1 2").toInt() != 2;
                failures += server.commands().isEmpty();
            }
        }).join();
        QCOMPARE(failures.load(), 0);
        QCOMPARE(server.commands().size(), 1);
    }

    void registrationsOfTheSamePlace()
    {
        const Quiet quiet;
        for (int round = 0; round < 50; ++round) {
            ZELShellServer server;
            Board board;
            std::atomic<int> accepted{0};
            Threads(4, [&] { accepted += server.registerCmd("a/b", "ping", &board, SLOT(ping(ZELArguments))); }).join();
            QCOMPARE(accepted.load(), 1);
            QCOMPARE(server.commands().size(), 1);
        }
    }
};

QTEST_GUILESS_MAIN(tst_Registry)
#include "tst_registry.moc"
