// SPDX-License-Identifier: MIT
// Kills and faults whose jumps leave memory behind by design, so that nothing is asked about leaks here.
#include "noleakcheck.h"
#include "threadend.h"
#include "zelcatch.h"
#include "zelthread.h"

#include <QSemaphore>
#include <QTimer>
#include <QtTest>

static void expectKillLine()
{
    QTest::ignoreMessage(QtDebugMsg,
        QRegularExpression(
            QStringLiteral("^ERROR:in ZELThread::run \"\" \"Thread or Process is forced exit!\" \"\" .*")));
}

class tst_Kills : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { zelSetCrashDump(false); }

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
};

QTEST_GUILESS_MAIN(tst_Kills)
#include "tst_kills.moc"
