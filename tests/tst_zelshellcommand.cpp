// SPDX-License-Identifier: MIT
// Provokes faults: run with -nocrashhandler.
#include "noleakcheck.h"
#include "quiet.h"
#include "table.h"
#include "threads.h"
#include "zelguard_p.h"
#include "zelshellcommand_p.h"
#include "zelshellcommandtree_p.h"

#include <QtTest>
#include <atomic>
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
    void throwPointer(ZELArguments args) { args.throwError("bad", "file", 7); }
    void assertion() { zel_assert_x("f", "bad", "a", 7); }
    void standard() { throw std::runtime_error("no luck"); }
    void crash() { *static_cast<volatile int *>(nullptr) = 1; }
    void wait()
    {
        entered = true;
        while (!leave)
            ::usleep(500);
    }
};

using Action = std::function<void()>;

struct Told : ZELCommandWatcher
{
    Told(Action first, Action second, Action third)
        : actions{std::move(first), std::move(second), std::move(third)}
    {
    }
    void started() override { tell(0); }
    void ended() override { tell(1); }
    void abandoned() override { tell(2); }
    void tell(int which) { actions[which] ? actions[which]() : void(); }

    const Action actions[3];
};

/// One command below the root of a tree.
struct Single
{
    explicit Single(const char *member)
    {
        command->BindCommand(&board, member);
        root.insert(leaf);
    }
    bool execute(const Action &started = {}, const Action &ended = {}, const Action &abandoned = {})
    {
        return Pin::find(&root, "cmd")
            .execute(ZELArguments(nullptr, "cmd"), std::make_shared<Told>(started, ended, abandoned));
    }

    Board board;
    ZELShellCommandTree root{"Main", nullptr, nullptr};
    ZELShellCommand *const command = new ZELShellCommand;
    QPointer<ZELShellCommandTree> leaf = new ZELShellCommandTree("cmd", command, &root);
};

class tst_ZELShellCommand : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void returned_data()
    {
        Table<QByteArray, QVariant> row("member", "value");
        row("variant", QByteArray(SLOT(variant(ZELArguments))), QVariant(2));
        row("nothing", QByteArray(SLOT(nothing(ZELArguments))), {});
        row("text", QByteArray(SLOT(text(ZELArguments))), QVariant("x"));
        row("no argument", QByteArray(SLOT(list())), QVariant(QStringList{"a", "b"}));
        row("unknown type", QByteArray(SLOT(unknown())), {});
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

    void bindings()
    {
        auto *first = new Board;
        Board second;
        ZELShellCommand command;
        command.BindCommand(first, SLOT(text(ZELArguments)));
        command.BindCommand(&second, SLOT(number(ZELArguments)));
        command.BindCommand(&second, SLOT(nothing(ZELArguments)));
        std::thread::id caller;
        const ZELArguments args(nullptr, "cmd x");
        std::thread thread([&] {
            caller = std::this_thread::get_id();
            command.doExecute(args);
        });
        thread.join();
        QVERIFY(second.thread == caller);
        QVERIFY(!second.hadSender);
        QCOMPARE(args.getErrorString(), QString("seen"));
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
            QVERIFY(Pin::find(root, "crash")
                        .execute(args,
                            std::make_shared<Told>(
                                Action(), [&] { ++ended; }, Action())));
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
        Single single(SLOT(wait()));
        std::thread thread([&] { single.execute(); });
        QTRY_VERIFY(single.board.entered);
        QVERIFY(single.command->IsRunning());
        bool touched = false;
        const auto touch = [&] { touched = true; };
        QVERIFY(!single.execute(touch, touch, touch));
        QVERIFY(!touched);
        single.board.leave = true;
        single.command->setMultRun(true);
        QVERIFY(single.execute(touch));
        QVERIFY(touched);
        thread.join();
        QVERIFY(!single.command->IsRunning());
    }

    void onlyOneOfManyStarts()
    {
        Single single(SLOT(wait()));
        for (int round = 0; round < 20; ++round) {
            std::atomic<int> locked{0}, ran{0};
            single.board.leave = false;
            Threads threads(4, [&] { ++(single.execute() ? ran : locked); });
            QTRY_COMPARE(locked.load(), 3);
            single.board.leave = true;
            threads.join();
            QCOMPARE(ran.load(), 1);
        }
    }

    void killGivesEverythingBack()
    {
        Single single(SLOT(wait()));
        QStringList order;
        std::atomic<Qt::HANDLE> id{nullptr};
        std::thread thread([&] {
            ZELFrame frame;
            zelGuard(frame.get(), [&] {
                id = QThread::currentThreadId();
                single.execute([&] { order << "started"; }, [&] { order << "ended"; }, [&] { order << "abandoned"; });
            });
        });
        while (!single.board.entered)
            std::this_thread::yield();
        except_stack->Kill(id);
        thread.join();
        QCOMPARE(order, QStringList({"started", "ended", "abandoned"}));
        QVERIFY(!single.command->IsRunning());
        ZELShellCommandTree::dispose(single.root.Remove("cmd"));
        QVERIFY(!single.leaf); // the hold was given back
    }
};

QTEST_GUILESS_MAIN(tst_ZELShellCommand)
#include "tst_zelshellcommand.moc"
