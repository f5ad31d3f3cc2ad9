// SPDX-License-Identifier: MIT
// Real faults by the thousand on one worker thread; a program of its own, since it lives on faults.
#include "processinfo.h"
#include "quiet.h"
#include "table.h"
#include "zelguard_p.h"
#include "zelthread.h"
#include "zeltsan_p.h"

#include <QtTest>
#include <malloc.h>
#include <stdexcept>
#include <sys/wait.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr int share = 20; // of the count: sanitizers make each fault slow, and measure no memory
#else
static constexpr int share = 1;
#endif

static volatile int *nowhere = nullptr;

[[gnu::noinline, gnu::no_sanitize("address", "undefined", "thread")]] static void writeNull()
{
    *nowhere = 1;
}

[[gnu::noinline, gnu::no_sanitize("address", "undefined", "thread")]] static int overflow(int depth)
{
    volatile char room[4096];
    room[0] = char(depth);
    return (room[0] == 1 && !nowhere && depth < 0) ? 0 : overflow(depth + 1) + room[0];
}

static void provoke(int kind)
{
    if (kind == 0)
        writeNull();
    if (kind == 1)
        overflow(0);
    if (kind == 2)
        throw new Exception("w", "pointer", "f", 1);
    if (kind == 3)
        throw Exception("w", "value", "f", 1);
    if (kind == 4)
        throw std::runtime_error("standard");
    throw 42;
}

static int provokeOften(int kind, int count, const QString &text)
{
    int right = 0;
    for (int i = 0; i < count; ++i) {
        ZELFrame frame;
        zelGuard(frame.get(), [&] { provoke(kind); });
        right += frame->caught && frame->exception->ToString() == text;
    }
    return right;
}

static int fromEnvironment(const char *name, int otherwise)
{
    return qEnvironmentVariableIsSet(name) ? qEnvironmentVariableIntValue(name) : otherwise;
}

static void throwsThrough() noexcept
{
    provoke(3);
}

Q_DECLARE_METATYPE(std::function<void()>)

class tst_Faults : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { zelSetCrashDump(false); }

    void inARow_data()
    {
        Table<int, int, QString> row("kind", "count", "text");
        row("null write", 0, 1000, "Segmentation fault (core dumped)");
        row("stack overflow", 1, 1000, "Segmentation fault (core dumped)");
        row("Exception*", 2, 10000, "Exception in w: pointer, file f, line 1");
        row("Exception", 3, 10000, "Exception in w: value, file f, line 1");
        row("std::exception", 4, 10000, "Aborted (core dumped)");
        row("int", 5, 10000, "Aborted (core dumped)");
    }

    void inARow()
    {
        QFETCH(int, kind);
        QFETCH(int, count);
        QFETCH(QString, text);
        const Quiet quiet;
        count /= share;
        int right = 0;
        int growth = 0;
        ZELThread thread;
        thread.setCallback([&](ZELThreadInfo *) {
            right = provokeOften(kind, count / 10, text); // warm: arenas, unwinder tables
            const int before = processinfo::resident();
            right += provokeOften(kind, count - count / 10, text);
            growth = processinfo::resident() - before;
        });
        thread.start();
        const bool ended = thread.wait(100000);
        ZEL_TSAN_ACQUIRE(&thread);
        QVERIFY(ended);
        QCOMPARE(right, count);
        if (share == 1)
            QVERIFY2(growth < 1024, qPrintable(QStringLiteral("grew by %1 kB").arg(growth)));
    }

    void threadsWithFramesOfTheirOwn()
    {
        std::atomic<int> right{0};
        for (int i = 0; i < 50; ++i) {
            std::thread([&] {
                right += provokeOften(1, 1, QStringLiteral("Segmentation fault (core dumped)"));
            }).join();
        }
        QCOMPARE(right.load(), 50);
        QCOMPARE(provokeOften(1, 3, QStringLiteral("Segmentation fault (core dumped)")), 3); // the main thread
    }

    /// By hand with ZEL_TEST_THREADS=200 ZEL_TEST_KILLS=10000.
    void registryUnderKills()
    {
        const int threads = fromEnvironment("ZEL_TEST_THREADS", 16);
        const int kills = fromEnvironment("ZEL_TEST_KILLS", 3000 / share);
        std::atomic<bool> stop{false};
        std::atomic<int> strange{0};
        std::vector<std::thread> workers;
        std::vector<std::atomic<void *>> ids(static_cast<size_t>(threads));
        for (auto &id : ids) {
            workers.emplace_back([&] {
                id = QThread::currentThreadId();
                while (!stop) {
                    ZELFrame outer;
                    const int state = zelGuard(outer.get(), [] {
                        for (int i = 0; i < 20; ++i) {
                            ZELFrame inner;
                            zelGuard(inner.get(), [] {});
                        }
                    });
                    strange += (state != 0 && state != SIGQUIT) || except_stack->Depth() != 0;
                }
                id = nullptr;
            });
        }
        for (int i = 0; i < kills; ++i)
            except_stack->Kill(ids[size_t(i % threads)]);
        stop = true;
        for (auto &worker : workers)
            worker.join();
        QCOMPARE(strange.load(), 0);
    }

    void faultWithoutFrames_data()
    {
        Table<int> row("sig");
        row("real", 0);
        row("sent segv", SIGSEGV);
        row("abort", SIGABRT);
        row("cpu time", SIGXCPU);
    }

    void faultWithoutFrames()
    {
#if defined(__SANITIZE_THREAD__)
        QSKIP("a forked child of a threaded program is not supported here");
#endif
        QFETCH(int, sig);
        const pid_t child = fork();
        if (child == 0) {
            alarm(20); // the watchdog of a process that spins on its fault
            installUnixSignal();
            if (sig)
                raise(sig);
            else
                writeNull();
            _exit(0);
        }
        int status = 0;
        QCOMPARE(waitpid(child, &status, 0), child);
        QVERIFY(WIFSIGNALED(status));
        QCOMPARE(WTERMSIG(status), sig ? sig : SIGSEGV);
    }

    void forkedChild_data()
    {
        Table<std::function<void()>, int> row("go", "sig");
        row(
            "fault", [] { writeNull(); }, SIGSEGV);
        row(
            "abort", [] { abort(); }, SIGABRT);
        row(
            "thrown", [] { provoke(2); }, SIGABRT);
        row(
            "raised", [] { zel_assert_x("w", "x", "f", 1); }, SIGABRT);
        row(
            "quit", [] { kill(getpid(), SIGQUIT); }, SIGQUIT);
        row(
            "own frame",
            [] {
                ZELFrame frame;
                _exit(zelGuard(frame.get(), writeNull));
            },
            0);
    }

    /// A frame is no place for another process to come back to: it would go on as a second copy of the caller.
    void forkedChild()
    {
#if defined(__SANITIZE_THREAD__)
        QSKIP("a forked child of a threaded program is not supported here");
#endif
        QFETCH(std::function<void()>, go);
        QFETCH(int, sig);
        const pid_t parent = getpid();
        pid_t child = -1;
        ZELFrame frame;
        zelGuard(frame.get(), [&] {
            child = fork();
            if (child == 0)
                go();
        });
        if (getpid() != parent)
            _exit(99);
        int status = 0;
        QCOMPARE(waitpid(child, &status, 0), child);
        QCOMPARE(WIFSIGNALED(status) ? WTERMSIG(status) : 0, sig);
        if (sig == 0)
            QCOMPARE(WEXITSTATUS(status), SIGSEGV);
    }

    void noexceptBarrier()
    {
        for (int i = 0; i < 100; ++i) {
            ZELFrame frame;
            QCOMPARE(zelGuard(frame.get(), throwsThrough), SIGABRT);
            QCOMPARE(frame->exception->what(), QStringLiteral("value"));
            QVERIFY(!std::current_exception());
        }
    }
};

QTEST_GUILESS_MAIN(tst_Faults)
#include "tst_faults.moc"
