// SPDX-License-Identifier: MIT
#include "zellife_p.h"

#include <QtTest>
#include <atomic>

class tst_ZELLife : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void useAfterEnd()
    {
        int object = 7;
        ZELLife<int>::Ref ref;
        QVERIFY(!ref.use());
        {
            ZELLife<int> life(&object);
            ref = life.ref();
            QCOMPARE(*ref.use().get(), 7);
            QCOMPARE(ref.peek(), &object);
        }
        QVERIFY(!ref.use());
        QVERIFY(!ref.peek());
    }

    void endWaitsForOthers()
    {
        int object = 0;
        std::atomic<bool> using_{false}, ended{false};
        bool endedDuringUse = true;
        ZELLife<int> life(&object);
        std::thread user([&, ref = life.ref()] {
            auto use = ref.use();
            using_ = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            endedDuringUse = ended;
        });
        while (!using_)
            std::this_thread::yield();
        life.end();
        ended = true;
        user.join();
        QVERIFY(!endedDuringUse);
    }

    void endDoesNotWaitForItself()
    {
        int object = 0;
        ZELLife<int> life(&object);
        auto use = life.ref().use();
        QElapsedTimer timer;
        timer.start();
        life.end();
        QVERIFY(timer.elapsed() < 1000);
    }
};

QTEST_GUILESS_MAIN(tst_ZELLife)
#include "tst_zellife.moc"
