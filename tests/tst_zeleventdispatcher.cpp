// SPDX-License-Identifier: MIT
#include "processinfo.h"
#include "zeleventdispatcher_p.h"
#include "zeltsan_p.h"

#include <QSocketNotifier>
#include <QThread>
#include <QTimer>
#include <QtTest>

#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <unistd.h>

namespace {

/// A thread with the dispatcher under test; runs the function in it, with the loop behind.
class Thread : public QThread
{
public:
    explicit Thread(std::function<void()> task = {}, bool loop = true)
        : m_task(std::move(task))
        , m_loop(loop)
    {
        setEventDispatcher(new ZELEventDispatcher);
    }
    ~Thread() override
    {
        quit();
        end(-1);
    }
    bool end(int ms)
    {
        if (!wait(ms < 0 ? ULONG_MAX : ulong(ms)))
            return false;
        ZEL_TSAN_ACQUIRE(this);
        return true;
    }
    void run() override
    {
        if (m_task)
            m_task();
        if (m_loop)
            exec();
        ZEL_TSAN_RELEASE(this);
    }

private:
    std::function<void()> m_task;
    bool m_loop;
};

template <class F>
void post(QObject *receiver, F task)
{
    QMetaObject::invokeMethod(receiver, task, Qt::QueuedConnection);
}

} // namespace

class tst_ZELEventDispatcher : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void timers()
    {
        QStringList order;
        int remaining = -2, unknown = 0, deepest = 0;
        QElapsedTimer clock;
        Thread thread([&] {
            clock.start();
            QTimer late, early, repeated, dropped, nesting;
            const auto note = [&](const char *name) { return [&order, name] { order += QLatin1String(name); }; };
            connect(&late, &QTimer::timeout, note("late"));
            connect(&early, &QTimer::timeout, note("early"));
            connect(&dropped, &QTimer::timeout, note("dropped"));
            connect(&early, &QTimer::timeout, &dropped, &QTimer::stop);
            int rounds = 0, depth = 0;
            connect(&repeated, &QTimer::timeout, [&] {
                if (++rounds == 5)
                    QThread::currentThread()->quit();
            });
            connect(&nesting, &QTimer::timeout, [&] { // the loop in it serves the others, and not this one
                deepest = qMax(deepest, ++depth);
                QEventLoop loop;
                QTimer::singleShot(20, &loop, &QEventLoop::quit);
                loop.exec();
                --depth;
            });
            late.setSingleShot(true);
            late.start(70);
            early.setSingleShot(true);
            early.start(30);
            dropped.start(55);
            repeated.start(30);
            nesting.start(1);
            remaining = late.remainingTime();
            unknown = QAbstractEventDispatcher::instance()->remainingTime(1 << 20);
            QEventLoop().exec();
        });
        thread.start();
        QVERIFY(thread.end(5000));
        QCOMPARE(order, QStringList({"early", "late"}));
        QVERIFY(remaining > 60 && remaining <= 70);
        QCOMPARE(unknown, -1);
        QCOMPARE(deepest, 1);
        QVERIFY2(clock.elapsed() >= 150, "five rounds of 30 ms");
    }

    void zeroTimerStarvesNobody()
    {
        int zero = 0;
        bool posted = false;
        Thread thread([&] {
            QTimer idle, end;
            connect(&idle, &QTimer::timeout, [&] {
                if (++zero == 10)
                    post(&end, [&] { posted = true; });
            });
            end.setSingleShot(true);
            connect(&end, &QTimer::timeout, QThread::currentThread(), &QThread::quit, Qt::DirectConnection);
            idle.start(0);
            end.start(30);
            QEventLoop().exec();
        });
        thread.start();
        QVERIFY(thread.end(5000));
        QVERIFY(zero > 10);
        QVERIFY(posted);
    }

    void noPostIsLost()
    {
#ifdef __SANITIZE_THREAD__
        QSKIP("Qt hands blocking calls over in code that the race detector does not see");
#endif
        std::atomic<int> seen{0};
        Thread target;
        QObject receiver;
        receiver.moveToThread(&target);
        target.start();
        const int each = 5000;
        {
            std::vector<std::unique_ptr<Thread>> posters;
            for (int i = 0; i < 4; ++i)
                posters.emplace_back(new Thread(
                    [&] {
                        for (int n = 0; n < each; ++n)
                            if (n % 8)
                                post(&receiver, [&] { ++seen; });
                            else
                                QMetaObject::invokeMethod(
                                    &receiver, [&] { ++seen; }, Qt::BlockingQueuedConnection);
                    },
                    false));
            for (auto &poster : posters)
                poster->start();
            for (auto &poster : posters)
                QVERIFY(poster->end(60000));
        }
        QTRY_COMPARE(seen.load(), 4 * each);
    }

    void quitIsNeverMissed()
    {
        for (int i = 0; i < 2000; ++i) {
            Thread thread;
            thread.start();
            for (int spin = 0; spin < i % 64 * 50; ++spin)
                asm volatile("");
            thread.quit();
            QVERIFY2(thread.end(5000), "the loop sleeps although it was told to end");
        }
    }

    void notifiersMayDieInHandlers()
    {
        int fds[2][2];
        QVERIFY(pipe2(fds[0], O_CLOEXEC) == 0 && pipe2(fds[1], O_CLOEXEC) == 0);
        int called = 0;
        Thread thread(
            [&] {
                std::unique_ptr<QSocketNotifier> notifiers[2];
                for (int i = 0; i < 2; ++i) {
                    notifiers[i].reset(new QSocketNotifier(fds[i][0], QSocketNotifier::Read));
                    connect(notifiers[i].get(), &QSocketNotifier::activated, [&, i] {
                        ++called;
                        notifiers[1 - i].reset();
                        notifiers[i]->setEnabled(false);
                    });
                }
                QEventLoop loop;
                QTimer::singleShot(20, &loop, &QEventLoop::quit);
                QVERIFY(write(fds[0][1], "x", 1) == 1 && write(fds[1][1], "x", 1) == 1);
                loop.exec();
            },
            false);
        thread.start();
        QVERIFY(thread.end(5000));
        QCOMPARE(called, 1);
        for (auto &pair : fds)
            close(pair[0]), close(pair[1]);
    }

    void invalidSocket()
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("invalid socket \\d+, its notifier is disabled"));
        bool enabled = true;
        Thread thread(
            [&] {
                QCoreApplication::processEvents(); // or the loop's own descriptor takes the number
                const int fd = dup(0);
                QSocketNotifier notifier(fd, QSocketNotifier::Read);
                close(fd);
                QEventLoop loop;
                QTimer::singleShot(20, &loop, &QEventLoop::quit);
                loop.exec();
                enabled = notifier.isEnabled();
            },
            false);
        thread.start();
        QVERIFY(thread.end(5000));
        QVERIFY(!enabled);
    }

    void descriptors()
    {
        const int before = processinfo::descriptors();
        QSemaphore go;
        Thread plain([&] { go.acquire(); }, false), loop;
        plain.start();
        QTest::qWait(20);
        QCOMPARE(processinfo::descriptors(), before);
        loop.start();
        QTRY_COMPARE(processinfo::descriptors(), before + 1);
        loop.quit();
        QVERIFY(loop.end(5000));
        QCOMPARE(processinfo::descriptors(), before);
        go.release();
    }

    void withoutDescriptors()
    {
#ifdef __SANITIZE_THREAD__
        QSKIP("Qt hands blocking calls over in code that the race detector does not see");
#endif
        rlimit old;
        getrlimit(RLIMIT_NOFILE, &old);
        const rlimit none{0, old.rlim_max};
        QCOMPARE(setrlimit(RLIMIT_NOFILE, &none), 0);
        std::atomic<int> sum{0};
        {
            Thread thread;
            QObject receiver;
            receiver.moveToThread(&thread);
            thread.start();
            for (int i = 0; i < 5; ++i)
                QMetaObject::invokeMethod(
                    &receiver, [&] { ++sum; }, Qt::BlockingQueuedConnection);
        }
        setrlimit(RLIMIT_NOFILE, &old);
        QCOMPARE(sum.load(), 5);
    }
};

QTEST_GUILESS_MAIN(tst_ZELEventDispatcher)
#include "tst_zeleventdispatcher.moc"
