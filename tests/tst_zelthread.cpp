// SPDX-License-Identifier: MIT
#include "noleakcheck.h"
#include "threadend.h"
#include "zelcatch.h"
#include "zelthread.h"

#include <QAbstractEventDispatcher>
#include <QSemaphore>
#include <QTimer>
#include <QtTest>
#include <cstring>
#include <thread>
#include <typeinfo>

static void expectKillLine()
{
    QTest::ignoreMessage(QtDebugMsg,
        QRegularExpression(
            QStringLiteral("^ERROR:in ZELThread::run \"\" \"Thread or Process is forced exit!\" \"\" .*")));
}

class tst_ZELThread : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { zelSetCrashDump(false); }

    void metaObject()
    {
        const QMetaObject &meta = ZELSync::staticMetaObject;
        const QMetaMethod slot = meta.method(meta.indexOfSlot("doSync(std::function<void()>)"));
        QCOMPARE(slot.parameterNames(), QList<QByteArray>{"task"});
        const QMetaObject &thread = ZELThread::staticMetaObject;
        QCOMPARE(thread.method(thread.methodOffset()).methodSignature(), QByteArray("completed()"));
        QCOMPARE(thread.method(thread.methodOffset() + 1).parameterNames(), QList<QByteArray>{"lableName"});
        ZELThread registers;
        QVERIFY(QMetaType::type("std::function<void()>") != QMetaType::UnknownType);
    }

    void runAndAutoDelete()
    {
        QSemaphore go;
        QString payload;
        auto *thread = ZELThread::run(
            [&](ZELThreadInfo *info) {
                go.acquire();
                payload = info->ThreadData().toString() + info->Thread()->getLabel();
                QCOMPARE(info->ThreadId(), QThread::currentThreadId());
            },
            QStringLiteral("data "), true);
        QPointer<ZELThread> watched(thread);
        int completed = 0;
        QString label; // both arrive in this thread: a spy would count in the other one
        connect(thread, &ZELThread::completed, this, [&] { ++completed; });
        connect(thread, &ZELThread::sigCompleted, this, [&](const QString &name) { label = name; });
        QVERIFY(thread->isAutoDelete());
        go.release();
        QTRY_VERIFY(!watched);
        QCOMPARE(payload, QStringLiteral("data NULL"));
        QTRY_COMPARE(completed, 1);
        QTRY_COMPARE(label, QStringLiteral("NULL"));
    }

    void failureLine()
    {
        ZELThread thread;
        thread.setLabel(QStringLiteral("my label"));
        thread.setCallback([](ZELThreadInfo *) { zel_assert_x("there", "broken", "file.cpp", 9); });
        QTest::ignoreMessage(QtDebugMsg,
            QRegularExpression(QStringLiteral("^ERROR:in ZELThread::run \"file.cpp\" \"broken\" \"there\" "
                                              "\\[ZELThread id =  0x[0-9a-f]+ \\] Label: \"my label\"$")));
        int completed = 0;
        connect(&thread, &ZELThread::completed, this, [&] { ++completed; });
        thread.start();
        QVERIFY(hasEnded(&thread));
        QTRY_COMPARE(completed, 1);
        QVERIFY(!thread.IsBusy());
    }

    void tasksInOrder()
    {
        ZELThread thread;
        QByteArray order;
        bool busy = false, there = false, nested = false;
        for (char c : {'a', 'b', 'c'})
            thread.BeginInvoke([&order, c] { order += c; }); // before the start: they wait for the loop
        thread.start();
        thread.Invoke([&] {
            busy = thread.IsBusy();
            there = QThread::currentThread() == &thread;
            thread.Invoke([&] { nested = true; });
        });
        QCOMPARE(order, QByteArray("abc"));
        QVERIFY(busy && there && nested);
        for (int i = 1, value = 0; i <= 200; ++i) {
            thread.Invoke([&] { value = i; });
            QCOMPARE(value, i);
        }
        QTRY_VERIFY(!thread.IsBusy());
        thread.quit();
        QVERIFY(hasEnded(&thread));
    }

    void loopCodes()
    {
        ZELThread thread;
        QList<int> codes;
        thread.setCallback([&](ZELThreadInfo *info) {
            QTimer::singleShot(0, [&] { thread.exit(3); });
            codes << info->exec();
            thread.exit(4); // before the loop: it is not entered
            codes << info->exec();
            QTimer::singleShot(0, [&] { thread.exit(-1); });
            codes << info->exec();
            QTimer::singleShot(0, [&] { thread.exit(5); });
            codes << info->exec();
        });
        thread.start();
        QVERIFY(hasEnded(&thread));
        QCOMPARE(codes, QList<int>({3, 4, -1, 5}));
    }

    void killWorking()
    {
        for (bool inTask : {false, true}) {
            expectKillLine();
            ZELThread thread;
            QSemaphore started;
            const auto work = [&] {
                started.release();
                for (;;)
                    pause();
            };
            int completed = 0;
            connect(&thread, &ZELThread::completed, this, [&] { ++completed; });
            QCOMPARE(thread.Kill(), ESRCH); // before its start
            if (!inTask)
                thread.setCallback([&](ZELThreadInfo *) { work(); });
            thread.start();
            if (inTask)
                thread.BeginInvoke(work);
            started.acquire();
            QCOMPARE(thread.Kill(), 0);
            QVERIFY(hasEnded(&thread));
            QTRY_COMPARE(completed, 1);
            QCOMPARE(thread.Kill(), ESRCH);
            thread.quit();
            QVERIFY(!thread.IsBusy());
        }
    }

    void killIdleLoop()
    {
        for (int i = 0; i < 50; ++i) {
            expectKillLine();
            ZELThread thread;
            thread.start();
            if (i % 2)
                thread.Invoke([] {});
            while (thread.Kill() == ESRCH) // not yet in its frame
                std::this_thread::yield();
            QVERIFY(hasEnded(&thread));
            thread.quit(); // must find no loop that is gone
        }
    }

    void faultInTask()
    {
        QTest::ignoreMessage(QtDebugMsg,
            QRegularExpression(
                QStringLiteral("^ERROR:in ZELThread::run \"\" \"Segmentation fault \\(core dumped\\)\" .*")));
        ZELThread thread;
        thread.start();
        bool second = false;
        thread.Invoke([&] {
            thread.BeginInvoke([&] { second = true; });
            raise(SIGSEGV);
        });
        QVERIFY(hasEnded(&thread));
        thread.quit();
        bool third = false;
        thread.Invoke([&] { third = true; }); // into a thread that is over: returns, does not run
        QVERIFY(!third);
    }

    void startedAgain()
    {
        ZELThread thread;
        std::atomic<int> ran{0};
        int foreign = 0;
        for (int i = 0; i < 200; ++i) {
            thread.start();
            thread.Invoke([&] {
                ++ran;
                foreign += !strstr(typeid(*thread.eventDispatcher()).name(), "ZELEventDispatcher");
            });
            thread.quit();
            QVERIFY(hasEnded(&thread));
            thread.BeginInvoke([&] { ran = 1000; }); // it is over: lost, also after the next start
            QCOMPARE(thread.Kill(), ESRCH);
        }
        QCOMPARE(ran.load(), 200);
        QCOMPARE(foreign, 0);
    }

    void invokeIntoEndingThread()
    {
        for (int i = 0; i < 100; ++i) {
            ZELThread thread;
            thread.start();
            std::thread quitter([&] { thread.quit(); });
            thread.Invoke([] {});
            quitter.join();
            QVERIFY(hasEnded(&thread));
        }
    }

    void killedCaller()
    {
        expectKillLine();
        ZELThread target, caller;
        QSemaphore calling, release;
        target.start();
        caller.setCallback([&](ZELThreadInfo *) {
            target.Invoke([&] {
                calling.release();
                release.acquire();
            });
        });
        caller.start();
        calling.acquire();
        QCOMPARE(caller.Kill(), 0);
        QVERIFY(hasEnded(&caller));
        release.release();
        bool alive = false;
        target.Invoke([&] { alive = true; });
        QVERIFY(alive);
    }

    void faultInSlotOfLoop()
    {
        QTest::ignoreMessage(QtDebugMsg,
            QRegularExpression(
                QStringLiteral("^ERROR:in ZELThread::run \"\" \"Segmentation fault \\(core dumped\\)\" .*")));
        ZELThread thread;
        thread.start();
        thread.Invoke([] { QTimer::singleShot(0, [] { raise(SIGSEGV); }); }); // not in a task's frame
        QVERIFY(hasEnded(&thread));
        thread.quit();
        thread.exit(3);
    }

    void postedTasksAreFreed()
    {
        auto counted = std::make_shared<int>(0);
        {
            ZELThread never, ended;
            never.BeginInvoke([counted] {});
            ended.start();
            ended.quit();
            QVERIFY(hasEnded(&ended));
            ended.BeginInvoke([counted] {});
        }
        QCOMPARE(counted.use_count(), 1L);
    }
};

QTEST_GUILESS_MAIN(tst_ZELThread)
#include "tst_zelthread.moc"
