// SPDX-License-Identifier: MIT
#include "threads.h"
#include "zelfault.h"
#include "zelwait.h"

#include <QtTest>
#include <csignal>
#include <thread>

class tst_ZELWait : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void oneSetReleasesOneWait()
    {
        ZELWait event;
        event.set();
        event.set();
        QElapsedTimer timer;
        timer.start();
        QVERIFY(event.waitOne(100));
        QVERIFY(timer.elapsed() < 50);
        timer.start();
        QVERIFY(!event.waitOne(100));
        QVERIFY(timer.elapsed() >= 99);
        QVERIFY(!event.isWaiting());
    }

    void setWakesTheWaiter()
    {
        ZELWait event;
        bool woken = false;
        std::thread waiter([&] { woken = event.waitOne(20000); });
        QTRY_VERIFY(event.isWaiting());
        QElapsedTimer timer;
        timer.start();
        event.set();
        waiter.join();
        QVERIFY(woken);
        QVERIFY(timer.elapsed() < 5000);
        QVERIFY2(!event.waitOne(0), "the set that woke the waiter must be used up");
    }

    void noLimitWaitsForTheSet()
    {
        for (int ms : {-1, -2, INT_MIN}) {
            ZELWait event;
            bool woken = false;
            std::thread waiter([&] { woken = event.waitOne(ms); });
            QTRY_VERIFY(event.isWaiting());
            QTest::qWait(20);
            QVERIFY(event.isWaiting());
            event.set();
            waiter.join();
            QVERIFY(woken);
        }
    }

    void manySettersAndOneWaiter()
    {
        ZELWait event;
        std::atomic<bool> stop{false};
        Threads setters(4, [&] {
            while (!stop) {
                event.set();
                std::this_thread::yield();
            }
        });
        int woken = 0;
        for (int i = 0; i < 2000; ++i)
            woken += event.waitOne(1000);
        stop = true;
        setters.join();
        QCOMPARE(woken, 2000);
    }

    void waiterIsStopped()
    {
        ZELFault::setReport(SIGALRM, false);
        ZELWait event;
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(ZELFault::call([&] { event.waitOne(-1); }, 20).state, int(SIGALRM));
        QVERIFY(timer.elapsed() < 2000); // not by force
        event.set();
        QVERIFY(event.waitOne(1000));
        QVERIFY(!event.waitOne(0));
    }
};

QTEST_GUILESS_MAIN(tst_ZELWait)
#include "tst_zelwait.moc"
