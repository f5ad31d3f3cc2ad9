// SPDX-License-Identifier: MIT
#include "threadend.h"
#include "threads.h"
#include "zelcatch.h"
#include "zelthreadpool.h"

#include <QSemaphore>
#include <QtTest>
#include <atomic>

class tst_ZELThreadPool : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { QTRY_COMPARE((pool->Clear(true), pool->NumberOfThread()), 0); }

    void reusesIdleThread()
    {
        QSemaphore done;
        ZELThread *first = pool->BeginInvoke([&] { done.release(); });
        done.acquire();
        QTRY_VERIFY(!first->IsBusy());
        QCOMPARE(pool->BeginInvoke([&] { done.release(); }), first);
        done.acquire();
        QTRY_VERIFY(!first->IsBusy());
        bool ran = false;
        QCOMPARE(pool->Invoke([&] { ran = true; }), first);
        QVERIFY(ran);
        QCOMPARE(pool->NumberOfThread(), 1);
    }

    void runSweeps()
    {
        std::atomic<int> sum{0};
        std::atomic<bool> go{false}; // the second call must not find the first thread at its end
        const auto add = [&](ZELThreadInfo *info) {
            while (!go)
                QThread::yieldCurrentThread();
            sum += info->ThreadData().toInt();
        };
        ZELThread *a = pool->run(add, 1);
        ZELThread *b = pool->run(add, 2);
        go = true;
        QVERIFY(a != b);
        QTRY_VERIFY(a->isFinished() && b->isFinished());
        QCOMPARE(sum.load(), 3);
        pool->StartNewThread();
        QCOMPARE(pool->NumberOfThread(), 3); // only the calls below sweep
        pool->run([](ZELThreadInfo *) {}, QVariant());
        QCOMPARE(pool->NumberOfThread(), 2);
    }

    // Tasks that wait for each other must not stand in one queue, also when the thread has not begun with the first.
    void aThreadTakesOneTaskAtATime()
    {
        for (int i = 0; i < 50; ++i) {
            QSemaphore first, second;
            pool->BeginInvoke([&] {
                const bool came = first.tryAcquire(1, 5000);
                second.release(came ? 2 : 1);
            });
            pool->BeginInvoke([&] { first.release(); });
            QVERIFY(second.tryAcquire(2, 10000));
        }
    }

    void callbackThreadsAreNotChosen()
    {
        // A callback's thread looks idle before its callback began and after it has ended.
        for (int i = 0; i < 100; ++i) {
            ZELThread *runner = pool->run([](ZELThreadInfo *) {}, QVariant());
            bool ran = false;
            QVERIFY(pool->Invoke([&] { ran = true; }) != runner);
            QVERIFY(ran);
        }
    }

    void failedThreadIsNotChosen()
    {
        for (int i = 0; i < 10; ++i) {
            QTest::ignoreMessage(QtDebugMsg, QRegularExpression(QStringLiteral("^ERROR:in ZELThread::run .*")));
            pool->Invoke([] { zel_assert_x("w", "x", "f", 1); });
            bool ran = false;
            ZELThread *thread = pool->Invoke([&] { ran = true; });
            QVERIFY(ran);
            thread->quit();
            QTRY_VERIFY(pool->Clear(false) >= 0 && pool->NumberOfThread() == 0);
        }
    }

    void clear()
    {
        QSemaphore working, finish;
        ZELThread *idle = pool->StartNewThread();
        Q_UNUSED(idle)
        pool->run(
            [&](ZELThreadInfo *) {
                working.release();
                finish.acquire();
            },
            QVariant());
        // The callback may not have begun yet; it is kept all the same.
        QCOMPARE(pool->Clear(false), 0);
        QCOMPARE(pool->Clear(true), 1);
        QCOMPARE(pool->NumberOfThread(), 1);
        working.acquire();
        finish.release();
        QTRY_COMPARE((pool->Clear(false), pool->NumberOfThread()), 0);
    }

    void report()
    {
        QCOMPARE(pool->ToString(), QStringLiteral("ZELThread Number:0\n"));
        ZELThread *thread = pool->StartNewThread();
        thread->Invoke([] {});
        const auto line = [&](const char *state) {
            return QStringLiteral("ZELThread Number:1\n\tZELrThread id=%1 state='%2'\n")
                .arg(quint64(quintptr(thread->ThreadId())))
                .arg(QLatin1String(state));
        };
        QTRY_COMPARE(pool->ToString(), line("is in idle"));
        QString during;
        thread->Invoke([&] { during = pool->ToString(); });
        QCOMPARE(during, line("is do work"));
        thread->quit();
        QVERIFY(hasEnded(thread));
        QVERIFY(pool->ToString().endsWith(QStringLiteral(" state='is stoped'\n")));
        QVERIFY(pool->ToString().contains(QStringLiteral("\tZELThread id=")));
    }

    void fromManyThreads()
    {
        std::atomic<int> ran{0};
        Threads(4, [&](int t) {
            for (int i = 0; i < 50; ++i) {
                pool->Invoke([&] { ++ran; });
                pool->run([&](ZELThreadInfo *) { ++ran; }, QVariant());
                pool->getMutex(QString::number(i))->lock();
                pool->getMutex(QString::number(i))->unlock();
                pool->ToString();
                if (t == 0 && i % 10 == 0)
                    pool->Clear(false);
            }
        }).join();
        QTRY_COMPARE(ran.load(), 400);
    }

private:
    ZELThreadPool *pool = ZELThreadPool::Pool();
};

QTEST_GUILESS_MAIN(tst_ZELThreadPool)
#include "tst_zelthreadpool.moc"
