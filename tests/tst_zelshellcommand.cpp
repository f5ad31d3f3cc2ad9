// SPDX-License-Identifier: MIT
// Provokes faults: run with -nocrashhandler.
#include "noleakcheck.h"
#include "quiet.h"
#include "table.h"
#include "zelguard_p.h"
#include "zelshellcommand_p.h"
#include "zelshellcommandtree_p.h"

#include <QtTest>
#include <atomic>
#include <random>
#include <thread>
#include <unistd.h>

using Pin = ZELShellCommandPin;

struct Unknown
{
    int value = 0;
};

class Board : public QObject
{
    Q_OBJECT
public:
    std::atomic<int> calls{0};
    std::atomic<bool> entered{false};
    std::atomic<bool> leave{false};
    bool hadSender = false;
    std::thread::id thread;

    Q_INVOKABLE QVariant invokable(ZELArguments args) { return args[0]; }

Q_SIGNALS:
    void forwarded(ZELArguments args);

public Q_SLOTS:
    QVariant variant(ZELArguments args) { return args.ArgumentsLength(); }
    QVariant invalid(ZELArguments) { return {}; }
    void nothing(ZELArguments args)
    {
        ++calls;
        hadSender = sender();
        thread = std::this_thread::get_id();
        args.setErrorString("seen");
    }
    int number(const ZELArguments &args) { return args.Length(); }
    QString text(ZELArguments args) { return args[1]; }
    QStringList list() { return {"a", "b"}; }
    Unknown unknown() { return {}; }
    void tooMany(ZELArguments, int) { }
    void throwPointer(ZELArguments args) { args.throwError("bad", "file", 7); }
    void assertion() { zel_assert_x("f", "bad", "a", 7); }
    void standard() { throw std::runtime_error("no luck"); }
    void plain() { throw 5; }
    void crash() { *static_cast<volatile int *>(nullptr) = 1; }
    void wait()
    {
        entered = true;
        while (!leave)
            ::usleep(500);
    }
};

/// Runs body in an outermost frame of a thread of its own and kills that thread once ready.
template <class Body, class Ready>
void killed(Body body, Ready ready)
{
    std::atomic<Qt::HANDLE> id{nullptr};
    std::thread thread([&] {
        ZELFrame frame;
        zelGuard(frame.get(), [&] {
            id = QThread::currentThreadId();
            for (;;)
                body();
        });
    });
    while (!id)
        std::this_thread::yield();
    ready();
    except_stack->Kill(id);
    thread.join();
}

class tst_ZELShellCommand : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void returned_data()
    {
        Table<QByteArray, QVariant> row("member", "value");
        row("variant", QByteArray(SLOT(variant(ZELArguments))), QVariant(2));
        row("invalid", QByteArray(SLOT(invalid(ZELArguments))), {});
        row("nothing", QByteArray(SLOT(nothing(ZELArguments))), {});
        row("number", QByteArray(SLOT(number(const ZELArguments &))), QVariant(3));
        row("text", QByteArray(SLOT(text(ZELArguments))), QVariant("x"));
        row("no argument", QByteArray(SLOT(list())), QVariant(QStringList{"a", "b"}));
        row("unknown type", QByteArray(SLOT(unknown())), {});
        row("spaces", "1 variant ( ZELArguments ) ", QVariant(2));
        row("invokable", "invokable(ZELArguments)", QVariant("cmd"));
        row("signal", QByteArray(SIGNAL(forwarded(ZELArguments))), {});
    }

    void returned()
    {
        QFETCH(QByteArray, member);
        QFETCH(QVariant, value);
        Board board;
        ZELShellCommand command;
        command.BindCommand(&board, member);
        QVERIFY(command.isBound());
        const ZELArguments args(nullptr, "cmd x y");
        command.doExecute(args);
        QCOMPARE(args.getReturnValue(), value);
        QCOMPARE(args.hasRetrunValue(), value.isValid());
        QVERIFY(!args.hasError());
        QVERIFY(!command.IsRunning());
    }

    void refusedMembers()
    {
        Board board;
        ZELShellCommand command;
        QTest::ignoreMessage(
            QtWarningMsg, "ZELShellCommand::BindCommand: Incompatible arguments of Board::tooMany(ZELArguments, int)");
        command.BindCommand(&board, SLOT(tooMany(ZELArguments, int)));
        QTest::ignoreMessage(QtWarningMsg, "ZELShellCommand::BindCommand: invalid null parameter");
        command.BindCommand(&board, nullptr);
        QVERIFY(!command.isBound());
        const ZELArguments args(nullptr, "cmd");
        command.doExecute(args); // nothing to call is no error
        QVERIFY(!args.hasError() && !args.hasRetrunValue());
    }

    void slotRunsOnTheCallersThread()
    {
        Board board;
        ZELShellCommand command;
        command.BindCommand(&board, SLOT(nothing(ZELArguments)));
        std::thread::id caller;
        const ZELArguments args(nullptr, "cmd");
        std::thread thread([&] {
            caller = std::this_thread::get_id();
            command.doExecute(args);
        });
        thread.join();
        QCOMPARE(board.thread == caller, true);
        QVERIFY(!board.hadSender);
        QCOMPARE(args.getErrorString(), QString("seen"));
    }

    void severalBindings()
    {
        auto *first = new Board;
        Board second;
        ZELShellCommand command;
        command.BindCommand(first, SLOT(text(ZELArguments)));
        command.BindCommand(&second, SLOT(number(ZELArguments)));
        command.BindCommand(&second, SLOT(nothing(ZELArguments)));
        ZELArguments args(nullptr, "cmd x");
        command.doExecute(args);
        QCOMPARE(second.calls.load(), 1);
        delete first;
        command.doExecute(args);
        QCOMPARE(second.calls.load(), 2);
    }

    void failures_data()
    {
        Table<QByteArray, QString> row("member", "error");
        row("raised", QByteArray(SLOT(throwPointer(ZELArguments))),
            "EXECUTE_ERROR :Exception in /: bad, file zelarguments, line 624");
        row("assertion", QByteArray(SLOT(assertion())), "EXECUTE_ERROR :ASSERT failure f: \"bad\", file a, line 7");
        row("std::exception", QByteArray(SLOT(standard())), "EXECUTE_ERROR :Aborted (core dumped)");
        row("int", QByteArray(SLOT(plain())), "EXECUTE_ERROR :Aborted (core dumped)");
        row("null write", QByteArray(SLOT(crash())), "EXECUTE_ERROR :Segmentation fault (core dumped)");
    }

    void failures()
    {
        QFETCH(QByteArray, member);
        QFETCH(QString, error);
        zelSetCrashDump(false);
        Board board;
        ZELShellCommand command;
        command.BindCommand(&board, member);
        const ZELArguments args(nullptr, "cmd");
        command.doExecute(args);
        QVERIFY(args.hasError());
        QCOMPARE(args.getErrorString(), error);
        QVERIFY(!args.hasRetrunValue());
        QVERIFY(!command.IsRunning());
    }

    void faultsLeaveTheReceiverIntact()
    {
        zelSetCrashDump(false);
        const Quiet quiet;
        auto *root = new ZELShellCommandTree("Main", nullptr, nullptr);
        auto *board = new Board; // lives in the executing thread
        auto *command = new ZELShellCommand;
        command->BindCommand(board, SLOT(crash()));
        auto *leaf = new ZELShellCommandTree("crash", command, root);
        root->insert(leaf);
        int ended = 0;
        for (int i = 0; i < 50; ++i) {
            const ZELArguments args(nullptr, "crash");
            QVERIFY(Pin::find(root, "crash").execute(args, {}, [&] { ++ended; }));
            QVERIFY(args.hasError());
        }
        QCOMPARE(ended, 50);
        QVERIFY(!command->IsRunning());
        delete board; // would loop for ever, had the slot been connected itself
        QPointer<ZELShellCommand> guard(command);
        delete root;
        QVERIFY(!guard);
    }

    void runningLock()
    {
        Board board;
        ZELShellCommandTree root("Main", nullptr, nullptr);
        auto *command = new ZELShellCommand;
        command->BindCommand(&board, SLOT(wait()));
        root.insert(new ZELShellCommandTree("wait", command, &root));
        std::thread thread([&] { Pin::find(&root, "wait").execute(ZELArguments(nullptr, "wait")); });
        QTRY_VERIFY(board.entered);
        QVERIFY(command->IsRunning());
        bool touched = false;
        const auto touch = [&] { touched = true; };
        QVERIFY(!Pin::find(&root, "wait").execute(ZELArguments(nullptr, "wait"), touch, touch, touch));
        QVERIFY(!touched);
        board.leave = true;
        command->setMultRun(true);
        QVERIFY(Pin::find(&root, "wait").execute(ZELArguments(nullptr, "wait"), touch));
        QVERIFY(touched);
        thread.join();
        QVERIFY(!command->IsRunning());
    }

    void onlyOneOfManyStarts()
    {
        Board board;
        ZELShellCommandTree root("Main", nullptr, nullptr);
        auto *command = new ZELShellCommand;
        command->BindCommand(&board, SLOT(wait()));
        root.insert(new ZELShellCommandTree("wait", command, &root));
        for (int round = 0; round < 20; ++round) {
            std::atomic<int> locked{0}, ran{0};
            board.leave = false;
            std::vector<std::thread> threads;
            for (int t = 0; t < 4; ++t)
                threads.emplace_back([&] {
                    const bool did = Pin::find(&root, "wait").execute(ZELArguments(nullptr, "wait"));
                    ++(did ? ran : locked);
                });
            QTRY_COMPARE(locked.load(), 3);
            board.leave = true;
            for (std::thread &thread : threads)
                thread.join();
            QCOMPARE(ran.load(), 1);
        }
    }

    void timeLimit()
    {
        Board board;
        ZELShellCommand command;
        command.BindCommand(&board, SLOT(wait()));
        const ZELArguments args(nullptr, "wait");
        command.setTimeLimit(30);
        command.doExecute(args);
        QCOMPARE(args.getErrorString(), QString("EXECUTE_ERROR :Application Timerout,Max time is 30"));
        QVERIFY(!command.IsRunning());
    }

    void killGivesEverythingBack()
    {
        Board board;
        ZELShellCommandTree root("Main", nullptr, nullptr);
        QPointer<ZELShellCommandTree> leaf = new ZELShellCommandTree("wait", new ZELShellCommand, &root);
        leaf->Command()->BindCommand(&board, SLOT(wait()));
        root.insert(leaf);
        QStringList order;
        killed(
            [&] {
                Pin::find(&root, "wait")
                    .execute(
                        ZELArguments(nullptr, "wait"), [&] { order << "started"; }, [&] { order << "ended"; },
                        [&] { order << "abandoned"; });
            },
            [&] {
                while (!board.entered)
                    std::this_thread::yield();
            });
        QCOMPARE(order, QStringList({"started", "ended", "abandoned"}));
        QVERIFY(!leaf->Command()->IsRunning());
        ZELShellCommandTree::dispose(root.Remove("wait"));
        QVERIFY(!leaf); // the hold was given back
    }

    void killsAtRandomInstants()
    {
#ifdef __SANITIZE_THREAD__
        QSKIP("a kill may tear what the race detector does for itself");
#endif
        Board board;
        ZELShellCommandTree root("Main", nullptr, nullptr);
        auto *command = new ZELShellCommand;
        command->BindCommand(&board, SLOT(nothing(ZELArguments)));
        root.insert(new ZELShellCommandTree("go", command, &root));
        const ZELArguments args(nullptr, "go");
        std::mt19937 random(1);
        std::atomic<int> open{0};
        for (int i = 0; i < 100; ++i) {
            killed(
                [&] {
                    Pin::find(&root, "go")
                        .execute(
                            args, [&] { ++open; }, [&] { --open; });
                },
                [&] { ::usleep(random() % 200); });
            QVERIFY(!command->IsRunning());
            QCOMPARE(open.load(), 0);
        }
    }
};

QTEST_GUILESS_MAIN(tst_ZELShellCommand)
#include "tst_zelshellcommand.moc"
