// SPDX-License-Identifier: MIT
#include "table.h"
#include "zelrttimer.h"

#include <QtTest>
#include <csignal>
#include <pthread.h>
#include <thread>

class tst_ZELRtTimer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void addTimespec_data()
    {
        Table<qint64, quint64, qint64, qint64> row("nsec", "add", "wantedSec", "wantedNsec");
        row("exact second stays", qint64(999999999), quint64(1), qint64(0), qint64(1000000000));
        row("beyond it is carried", qint64(999999999), quint64(2), qint64(1), qint64(1));
        row("whole seconds", qint64(5), quint64(3000000000u), qint64(3), qint64(5));
        row("from the boundary", qint64(1000000000), quint64(1), qint64(1), qint64(1));
        row("beyond 32 bits", qint64(0), quint64(86400000000001u), qint64(86400), qint64(1));
    }

    void addTimespec()
    {
        QFETCH(qint64, nsec);
        QFETCH(quint64, add);
        timespec t{0, static_cast<long>(nsec)};
        ZELRtTimer::add_timespec(&t, add);
        QTEST(qint64(t.tv_sec), "wantedSec");
        QTEST(qint64(t.tv_nsec), "wantedNsec");
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
