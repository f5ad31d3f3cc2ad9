// SPDX-License-Identifier: MIT
#include "zelrttimer.h"

#include <QtTest>
#include <csignal>
#include <pthread.h>
#include <thread>

class tst_ZELRtTimer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void addTimespec()
    {
        const auto sum = [](long nsec, quint64 add) {
            timespec t{0, nsec};
            ZELRtTimer::add_timespec(&t, add);
            return qMakePair(qint64(t.tv_sec), qint64(t.tv_nsec));
        };
        QCOMPARE(sum(999999999, 1), qMakePair(0LL, 1000000000LL)); // an exact second stays
        QCOMPARE(sum(999999999, 2), qMakePair(1LL, 1LL));
        QCOMPARE(sum(1000000000, 1), qMakePair(1LL, 1LL));
        QCOMPARE(sum(5, 86400000000001u), qMakePair(86400LL, 6LL));
    }

    void timespecOperators()
    {
        const timespec a{1, 900000000}, b{2, 400000000};
        QVERIFY(a < b && b > a && !(b < a) && !(a > b) && !(a == b) && a == a && !(a < a));
        QCOMPARE(b - a, 500.0f);
        QCOMPARE(a - b, -500.0f);
        QCOMPARE(a + b, 4300.0f);
    }

    // Wake-ups may be late on a busy machine, but never early, and lateness must not add up.
    void doesNotDrift()
    {
        ZELRtTimer timer(10000);
        QElapsedTimer clock;
        clock.start();
        int slept = 0;
        for (int i = 1; i <= 20; ++i) {
            slept += timer.sleepToNextTime();
            QVERIFY2(clock.nsecsElapsed() > qint64(slept) * 10000000 - 500000, "woke early");
        }
        QVERIFY(timer.timeMs() >= 0.0f);
        if (slept == 20)
            QVERIFY(clock.elapsed() < 400);
    }

    void overrunRestartsTheSchedule()
    {
        ZELRtTimer timer(60000);
        QVERIFY(timer.sleepToNextTime());
        QTest::qSleep(150);
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!timer.sleepToNextTime());
        QVERIFY(clock.elapsed() < 50);
        clock.start();
        timer.setIntervalUs(250000);
        QVERIFY(timer.sleepToNextTime());
        QVERIFY2(clock.elapsed() >= 50 && clock.elapsed() < 240, "the period that runs keeps its end");
        clock.start();
        QVERIFY(timer.sleepToNextTime());
        QVERIFY(clock.elapsed() > 100);
    }

    void signalDoesNotShortenTheSleep()
    {
        struct sigaction action = {}, old = {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR2, &action, &old);
        std::thread pest([self = pthread_self()] {
            for (int i = 0; i < 5; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                pthread_kill(self, SIGUSR2);
            }
        });
        QElapsedTimer clock;
        ZELRtTimer timer(60000);
        clock.start();
        const bool slept = timer.sleepToNextTime();
        const qint64 took = clock.elapsed();
        pest.join();
        sigaction(SIGUSR2, &old, nullptr);
        QVERIFY(slept);
        QVERIFY(took >= 55);
    }
};

QTEST_GUILESS_MAIN(tst_ZELRtTimer)
#include "tst_zelrttimer.moc"
