// SPDX-License-Identifier: MIT
#include "zelfault.h"
#include "zelguard_p.h"

#include <QThread>
#include <QtTest>
#include <memory>
#include <thread>

class tst_ZELCatch : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void formats();
    void constructors();
    void assertInFrame();
    void raiseWithoutFrame();
    void normalEnd();
    void frameByHand();
    void thrown_data();
    void thrown();
    void signalTexts_data();
    void signalTexts();
    void nestedFramesCatchTheirOwn();
    void killReturnsToTheOutermost();
    void killWaitsForCriticalSection();
    void killWithoutFrames();
    void killedWhileOpenerWorks();
    void timeLimit();
    void timeLimitReturnsToItsOwnFrame();
    void exceptionsLeftInCatchBlocks();
    void failingAbandonedAction();
    void recoveryFlag();
};

void tst_ZELCatch::initTestCase()
{
    zelSetCrashDump(false);
    ZELFault::setReport(SIGALRM, false);
}

void tst_ZELCatch::cleanup()
{
    QCOMPARE(except_stack->Depth(), 0);
    QCOMPARE(int(zelThreadFaults.critical), 0);
}

void tst_ZELCatch::formats()
{
    const Exception plain("f", "bad", "a", 7);
    QCOMPARE(plain.ToString(), QStringLiteral("Exception in f: bad, file a, line 7"));
    QCOMPARE(
        AssertException("f", "bad", "a", 7).ToString(), QStringLiteral("ASSERT failure f: \"bad\", file a, line 7"));
    QCOMPARE(ErrorException("bad").ToString(), QStringLiteral("bad"));
    Exception percent("%2", "%1", "%4", 7);
    QCOMPARE(percent.ToString(), QStringLiteral("Exception in %2: %1, file %4, line 7"));
}

void tst_ZELCatch::constructors()
{
    Exception e;
    QCOMPARE(e.line(), QStringLiteral("0"));
    QVERIFY(!e.where().isNull());
    e.setsingle(11);
    QCOMPARE(e.single(), QStringLiteral("Receive signal number is:'11'"));
    const Exception three("what", "file", 3);
    QCOMPARE(three.what() + three.file() + three.line() + three.where(), QStringLiteral("whatfile3"));
    e.copy(three);
    QCOMPARE(e.what() + e.single(), QStringLiteral("whatReceive signal number is:'0'"));
    QCOMPARE(exception_creat(Exception("w"), "f", 5).ToString(), QStringLiteral("Exception in : w, file f, line 5"));
    std::unique_ptr<Exception> down(exception_down());
    QCOMPARE(down->what(), QStringLiteral("timer stoped"));
}

void tst_ZELCatch::assertInFrame()
{
    ZELFrame frame;
    QCOMPARE(zelGuard(frame.get(), [] { zel_assert_x("f", "bad", "a", 7); }), 6);
    QVERIFY(frame->caught);
    QVERIFY(dynamic_cast<AssertException *>(frame->exception));
    QCOMPARE(frame->exception->ToString(), QStringLiteral("ASSERT failure f: \"bad\", file a, line 7"));
    QCOMPARE(frame->exception->single(), QStringLiteral("Receive signal number is:'0'"));
}

void tst_ZELCatch::raiseWithoutFrame()
{
    auto *raised = new ErrorException("none");
    try {
        exception_raise(raised, "a", 3);
        QFAIL("returned");
    } catch (Exception *e) {
        QCOMPARE(e, raised);
        QCOMPARE(e->line(), QStringLiteral("3"));
        delete e;
    }
}

void tst_ZELCatch::normalEnd()
{
    ZELFrame frame;
    bool ran = false;
    QCOMPARE(zelGuard(frame.get(), [&] { ran = true; }), 0);
    QVERIFY(ran && !frame->caught);
    QCOMPARE(frame->exception->what(), QStringLiteral("no exception"));
}

static ExceptionHelp *openByHand(void (*work)())
{
    ExceptionHelp *frame = except_stack->Push(new ExceptionHelp);
    except_stack->setJumped(sigsetjmp(frame->env, 1) != 0);
    if (except_stack->StartTimer(20000))
        work();
    except_stack->CleanUp();
    except_stack->Pop();
    return frame;
}

void tst_ZELCatch::frameByHand()
{
    ExceptionHelp *frame = openByHand([] {
        except_stack->Push(new ExceptionHelp); // never closed: the jump drops it
        raise(SIGSEGV);
    });
    QVERIFY(frame->caught && !frame->timerArmed);
    QCOMPARE(frame->exception->ToString(), QStringLiteral("Segmentation fault (core dumped)"));
    delete frame->exception;
    delete frame;
    frame = openByHand(zel_noop);
    QVERIFY(!frame->caught);
    delete frame->exception;
    delete frame;
}

void tst_ZELCatch::thrown_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("where");
    QTest::newRow("pointer") << 0 << "ASSERT failure w: \"x\", file f, line 1"
                             << "w";
    QTest::newRow("value") << 1 << "Exception in w: x, file f, line 1"
                           << "w";
    QTest::newRow("std") << 2 << "Aborted (core dumped)"
                         << "because";
    QTest::newRow("int") << 3 << "Aborted (core dumped)"
                         << "";
}

static void throwKind(int kind)
{
    if (kind == 0)
        throw static_cast<Exception *>(new AssertException("w", "x", "f", 1));
    if (kind == 1)
        throw AssertException("w", "x", "f", 1); // a value is kept as a plain Exception
    if (kind == 2)
        throw std::runtime_error("because");
    throw 42;
}

void tst_ZELCatch::thrown()
{
    QFETCH(int, kind);
    ZELFrame frame;
    auto counted = std::make_shared<int>(0);
    zelGuard(frame.get(), [&] {
        auto copy = counted;
        throwKind(kind);
    });
    QTEST(frame->exception->ToString(), "text");
    QTEST(frame->exception->where(), "where");
    QCOMPARE(counted.use_count(), 1L); // a throw runs destructors
}

void tst_ZELCatch::signalTexts_data()
{
    QTest::addColumn<int>("sig");
    QTest::addColumn<QString>("text");
    QTest::newRow("segv") << SIGSEGV << "Segmentation fault (core dumped)";
    QTest::newRow("abort") << SIGABRT << "Aborted (core dumped)";
    QTest::newRow("quit") << SIGQUIT << "Thread or Process is forced exit!";
    QTest::newRow("fpe") << SIGFPE << "unknow error fault";
    QTest::newRow("xfsz") << SIGXFSZ << "unknow error fault";
}

void tst_ZELCatch::signalTexts()
{
    QFETCH(int, sig);
    ZELFrame frame;
    QCOMPARE(zelGuard(frame.get(), [&] { raise(sig); }), sig);
    QTEST(frame->exception->ToString(), "text");
    QCOMPARE(frame->exception->single(), QStringLiteral("Receive signal number is:'%1'").arg(sig));
}

void tst_ZELCatch::nestedFramesCatchTheirOwn()
{
    ZELFrame outer;
    int innerState = 0;
    zelGuard(outer.get(), [&] {
        {
            ZELFrame inner;
            innerState = zelGuard(inner.get(), [] { raise(SIGFPE); });
        }
        zel_assert_x("outer", "x", "f", 1);
    });
    QCOMPARE(innerState, SIGFPE);
    QCOMPARE(outer->exception->where(), QStringLiteral("outer"));
}

void tst_ZELCatch::killReturnsToTheOutermost()
{
    QStringList abandoned;
    ZELFrame outer;
    const int state = zelGuard(outer.get(), [&] {
        ZELFrame middle;
        middle->abandoned = [&] { abandoned << QStringLiteral("middle"); };
        zelGuard(middle.get(), [&] {
            ZELFrame inner;
            inner->abandoned = [&] { abandoned << QStringLiteral("inner"); };
            zelGuard(inner.get(), [] { except_stack->Kill(QThread::currentThreadId()); });
        });
        QFAIL("went on after the kill");
    });
    QCOMPARE(state, SIGQUIT);
    QCOMPARE(abandoned, QStringList({QStringLiteral("inner"), QStringLiteral("middle")}));
    QCOMPARE(outer->exception->ToString(), QStringLiteral("Thread or Process is forced exit!"));
}

void tst_ZELCatch::killWaitsForCriticalSection()
{
    bool sectionEnded = false, wentOn = false;
    ZELFrame frame;
    zelGuard(frame.get(), [&] {
        {
            ZELCriticalSection section;
            QCOMPARE(frame->Kill(), 0);
            QTest::qSleep(20);
            sectionEnded = true;
        }
        wentOn = true;
    });
    QVERIFY(sectionEnded && !wentOn);
    QCOMPARE(frame->state, SIGQUIT);
}

void tst_ZELCatch::killWithoutFrames()
{
    QCOMPARE(except_stack->Kill(QThread::currentThreadId()), ESRCH);
    QCOMPARE(except_stack->Kill(nullptr), ESRCH);
    raise(SIGQUIT); // not turned into a jump, nor the end of the process
}

void tst_ZELCatch::killedWhileOpenerWorks()
{
    bool openerFinished = false, abandoned = false;
    ZELFrame outer;
    zelGuard(outer.get(), [&] {
        ZELFrame inner;
        inner->abandoned = [&] { abandoned = true; };
        zelGuard(inner.get(), [] {});
        except_stack->Kill(QThread::currentThreadId());
        openerFinished = true;
    });
    QCOMPARE(outer->state, SIGQUIT);
    QVERIFY(openerFinished && !abandoned); // one or the other, never both
}

void tst_ZELCatch::timeLimit()
{
    ZELFrame frame;
    frame->timeoutMs = 50;
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(zelGuard(frame.get(), [] { pause(); }), SIGALRM);
    QVERIFY(timer.elapsed() >= 45 && timer.elapsed() < 10000);
    QCOMPARE(frame->exception->ToString(), QStringLiteral("Application Timerout,Max time is 50"));
}

void tst_ZELCatch::timeLimitReturnsToItsOwnFrame()
{
    bool outerWentOn = false;
    ZELFrame outer, limited;
    zelGuard(outer.get(), [&] {
        limited->timeoutMs = 30;
        zelGuard(limited.get(), [] {
            ZELFrame inner;
            inner->timeoutMs = 60000;
            zelGuard(inner.get(), [] { pause(); });
            QFAIL("the limit ended a frame further in");
        });
        outerWentOn = true;
    });
    QVERIFY(outerWentOn && !outer->caught);
    QCOMPARE(limited->state, SIGALRM);
}

void tst_ZELCatch::exceptionsLeftInCatchBlocks()
{
    ZELFrame frame;
    zelGuard(frame.get(), [] {
        try {
            throw std::runtime_error("open");
        } catch (...) {
            raise(SIGSEGV);
        }
    });
    QVERIFY(!std::current_exception());
    QCOMPARE(std::uncaught_exceptions(), 0);
}

void tst_ZELCatch::failingAbandonedAction()
{
    QTest::ignoreMessage(
        QtWarningMsg, "ExceptionHelp: the action of an abandoned frame failed: Segmentation fault (core dumped)");
    ZELFrame outer;
    zelGuard(outer.get(), [] {
        ZELFrame inner;
        inner->abandoned = [] { raise(SIGSEGV); };
        zelGuard(inner.get(), [] { except_stack->Kill(QThread::currentThreadId()); });
    });
    QCOMPARE(outer->state, SIGQUIT);
}

void tst_ZELCatch::recoveryFlag()
{
    zelTakeFaultRecovery();
    ZELFrame quiet, loud;
    zelGuard(quiet.get(), [] {});
    QVERIFY(!zelTakeFaultRecovery());
    zelGuard(loud.get(), [] { raise(SIGBUS); });
    QVERIFY(zelTakeFaultRecovery());
    QVERIFY(!zelTakeFaultRecovery());
}

QTEST_GUILESS_MAIN(tst_ZELCatch)
#include "tst_zelcatch.moc"
