// SPDX-License-Identifier: MIT
#include "threads.h"
#include "zelshellclient.h"
#include "zelthreadpool.h"

#include <QtTest>
#include <atomic>
#include <mutex>

static ZELShellProcessHeader packet(const char *state, const QByteArray &body, const QByteArray &value = QByteArray())
{
    ZELShellProcessHeader result;
    result.headers.insert("State", state);
    if (!value.isNull())
        result.headers.insert("Return", value.toBase64());
    result.body = body;
    return result;
}

static bool feed(ZELShellProcess &process, const ZELShellProcessHeader &header)
{
    process.append(header);
    return process.doWork();
}

class tst_ZELShellProcess : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void collectsTextAndValue()
    {
        ZELShellProcess process;
        QVERIFY(!process.doWork());
        QVERIFY(!feed(process, packet("EXECUTE_PROCESS", "one ")));
        QVERIFY(!feed(process, packet("EXECUTE_PROCESS", "two ", "early")));
        QVERIFY(feed(process, packet("EXECUTE_RESULT", "three", "42")));
        QVERIFY(process.wait(0));
        QVERIFY2(process.wait(0), "the end stays known to later calls");
        QCOMPARE(process.getTextOutput(0), QString("one two three"));
        QCOMPARE(process.getReturnValue(0), QString("42"));
        QCOMPARE(process.lastPacket().getProcessStatus(), int(ZELShellProcessHeader::Result));

        // Without an end the wait has one, and what came stands.
        ZELShellProcess open;
        feed(open, packet("EXECUTE_PROCESS", "so far"));
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!open.wait(150));
        QVERIFY(timer.elapsed() >= 150);
        QCOMPARE(open.getTextOutput(10), QString("so far"));
        QCOMPARE(open.getReturnValue(10), QString());

        // Only the newest of several packets is worked off.
        ZELShellProcess backlog;
        backlog.append(packet("EXECUTE_PROCESS", "lost"));
        QVERIFY(feed(backlog, packet("EXECUTE_NOTFOUND", "Error")));
        QVERIFY(!backlog.doWork());
        QCOMPARE(backlog.getTextOutput(0), QString("Error"));
    }

    void sendsOnce()
    {
        ZELShellProcess process, released;
        int first = 0, second = 0;
        QThread *thread = nullptr;
        const auto hook = [&](ZELShellProcessHeader) {
            QThread::msleep(20); // holds the receiver
            ++first;
            thread = QThread::currentThread();
        };
        QVERIFY(process.setProcess(hook, false));
        QVERIFY(process.send() && process.isSendOut());
        QVERIFY(!process.send());
        QVERIFY(!process.setProcess([&](ZELShellProcessHeader) { ++second; }, true));
        feed(process, packet("EXECUTE_PROCESS", "a"));
        QCOMPARE(first, 1);
        QVERIFY(thread && thread != QThread::currentThread());
        feed(process, packet("EXECUTE_COMPLETE", ""));
        QCOMPARE(first, 2);
        QCOMPARE(second, 0);
        QVERIFY(process.wait(0));

        std::atomic<int> status{-1};
        released.setProcess([&](ZELShellProcessHeader header) { status = header.getProcessStatus(); }, true);
        released.release();
        QVERIFY(released.wait(5000));
        QCOMPARE(status.load(), int(ZELShellProcessHeader::Unknown));
    }

    void asynchronousHookIsCalledInOrderAndBeforeTheEnd()
    {
        ZELShellProcess process;
        std::mutex mutex;
        QStringList seen;
        process.setProcess(
            [&](ZELShellProcessHeader header) {
                QThread::usleep(header.body.size() % 3 * 200);
                std::lock_guard<std::mutex> lock(mutex);
                seen << header.getRequestBody();
            },
            true);
        QStringList wanted;
        for (int i = 0; i < 100; ++i) {
            wanted << QString(i % 7, 'x') + QString::number(i);
            feed(process, packet(i < 99 ? "EXECUTE_PROCESS" : "EXECUTE_COMPLETE", wanted.last().toUtf8()));
        }
        QVERIFY(process.wait(10000));
        std::lock_guard<std::mutex> lock(mutex);
        QCOMPARE(seen, wanted);
    }

    void failingHookDoesNotHoldUpTheEnd()
    {
        for (bool asynchronous : {true, false}) {
            ZELShellProcess process;
            std::atomic<int> calls{0};
            process.setProcess(
                [&](ZELShellProcessHeader) {
                    ++calls;
                    throw std::runtime_error("hook");
                },
                asynchronous);
            feed(process, packet("EXECUTE_PROCESS", "a"));
            feed(process, packet("EXECUTE_COMPLETE", "b"));
            QVERIFY(process.wait(10000));
            QCOMPARE(calls.load(), 2);
        }
    }

    void clearMakesItReusable()
    {
        ZELShellProcess process;
        int calls = 0;
        process.setProcess([&](ZELShellProcessHeader) { ++calls; }, false);
        process.send();
        feed(process, packet("EXECUTE_RESULT", "first ", "1"));
        process.clear();
        QVERIFY(!process.isSendOut());
        QVERIFY(!process.wait(1));
        QCOMPARE(process.getReturnValue(0), QString());
        QVERIFY(process.send());
        feed(process, packet("EXECUTE_RESULT", "second", "2"));
        QCOMPARE(calls, 1);
        QVERIFY(process.wait(0));
        QCOMPARE(process.getTextOutput(0), QString("first second"));
        QCOMPARE(process.getReturnValue(0), QString("2"));
    }

    void clearForgetsTheHookThatStillRuns()
    {
        ZELShellProcess process;
        std::atomic<bool> entered{false}, leave{false}, left{false};
        process.setProcess(
            [&](ZELShellProcessHeader) {
                entered = true;
                while (!leave)
                    QThread::msleep(1);
                left = true;
            },
            true);
        feed(process, packet("EXECUTE_COMPLETE", ""));
        QTRY_VERIFY(entered);
        process.clear();
        leave = true;
        QTRY_VERIFY(left);
        QVERIFY2(!process.wait(50), "the end of the former command is not that of the next one");
    }

    void destructionWakesWaitersAndSparesTheHook()
    {
        auto process = std::make_unique<ZELShellProcess>();
        std::atomic<int> hooks{0}, woken{0}, waiting{0};
        process->setProcess(
            [&](ZELShellProcessHeader) {
                QThread::msleep(50);
                ++hooks;
            },
            true);
        feed(*process, packet("EXECUTE_PROCESS", "a"));
        Threads waiters(8, [&, raw = process.get()] {
            ++waiting;
            raw->wait(60000);
            ++woken;
        });
        QTRY_COMPARE(waiting.load(), 8);
        QThread::msleep(20); // inside wait(), not in front of it
        process.reset();
        QTRY_COMPARE_WITH_TIMEOUT(woken.load(), 8, 1000);
        QTRY_COMPARE(hooks.load(), 1);
    }

    void killedWaiterLeavesNothingLocked()
    {
        for (int round = 0; round < 10; ++round) {
            ZELShellProcess process;
            std::atomic<bool> waiting{false};
            std::unique_ptr<ZELThread> waiter(ZELThread::run(
                [&](ZELThreadInfo *) {
                    waiting = true;
                    process.wait(60000);
                },
                {}, false));
            QTRY_VERIFY(waiting);
            QThread::msleep(ulong(round) * 7);
            waiter->Kill();
            QVERIFY(waiter->wait(5000));
            QVERIFY(feed(process, packet("EXECUTE_COMPLETE", "x")));
            QVERIFY(process.wait(0));
            QCOMPARE(process.getTextOutput(0), QString("x"));
        }
    }

    // The end comes at every possible moment of the wait's beginning.
    void noWakeUpIsLost()
    {
        qint64 longest = 0;
        for (int i = 0; i < 3000; ++i) {
            ZELShellProcess process;
            std::thread receiver([&, i] {
                for (volatile int spin = 0; spin < i % 100 * 20;)
                    spin = spin + 1;
                feed(process, packet("EXECUTE_COMPLETE", ""));
            });
            QElapsedTimer timer;
            timer.start();
            QVERIFY(process.wait(30000));
            longest = std::max(longest, timer.elapsed());
            receiver.join();
        }
        // Far below the time-out, far above what a busy machine takes.
        QVERIFY2(longest < 10000, qPrintable(QString::number(longest)));
    }
};

QTEST_GUILESS_MAIN(tst_ZELShellProcess)
#include "tst_zelshellprocess.moc"
