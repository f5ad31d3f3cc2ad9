// SPDX-License-Identifier: MIT
#include "table.h"
#include "zelfault.h"
#include "zelguard_p.h"

#include <QThread>
#include <QtTest>
#include <memory>

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

class tst_ZELCatch : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        zelSetCrashDump(false);
        ZELFault::setReport(SIGALRM, false);
    }

    void cleanup()
    {
        QCOMPARE(except_stack->Depth(), 0);
        QCOMPARE(int(zelThreadFaults.critical), 0);
    }

    void texts()
    {
        QCOMPARE(Exception("%2", "%1", "%4", 7).ToString(), QStringLiteral("Exception in %2: %1, file %4, line 7"));
        const Exception three("what", "file", 3);
        Exception e;
        e.setsingle(11);
        QCOMPARE(e.single(), QStringLiteral("Receive signal number is:'11'"));
        e.copy(three);
        QCOMPARE(e.what() + e.file() + e.line() + e.where(), QStringLiteral("whatfile3"));
        QCOMPARE(e.single(), QStringLiteral("Receive signal number is:'0'"));
        QCOMPARE(
            exception_creat(Exception("w"), "f", 5).ToString(), QStringLiteral("Exception in : w, file f, line 5"));
        std::unique_ptr<Exception> down(exception_down());
        QCOMPARE(down->what(), QStringLiteral("timer stoped"));
    }

    void raiseWithoutFrame()
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

    void frameByHand()
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

    void thrown()
    {
        const struct
        {
            void (*raise)();
            int state;
            const char *text, *where;
        } all[] = {
            {[] {}, 0, "Exception in : no exception, file , line 0", ""},
            {[] { throw static_cast<Exception *>(new AssertException("w", "x", "f", 1)); }, 6,
                "ASSERT failure w: \"x\", file f, line 1", "w"},
            // A value is kept as a plain Exception.
            {[] { throw AssertException("w", "x", "f", 1); }, 6, "Exception in w: x, file f, line 1", "w"},
            {[] { throw std::runtime_error("because"); }, 6, "Aborted (core dumped)", "because"},
            {[] { throw 42; }, 6, "Aborted (core dumped)", ""},
        };
        for (const auto &one : all) {
            ZELFrame frame;
            auto counted = std::make_shared<int>(0);
            const int state = zelGuard(frame.get(), [&] {
                auto copy = counted;
                one.raise();
            });
            QCOMPARE(state, one.state);
            QCOMPARE(frame->exception->ToString(), QString(one.text));
            QCOMPARE(frame->exception->where(), QString(one.where));
            QCOMPARE(frame->caught, one.state != 0);
            QCOMPARE(counted.use_count(), 1L); // a throw runs destructors
        }
    }

    void signalTexts()
    {
        const std::pair<int, const char *> all[]
            = {{SIGSEGV, "Segmentation fault (core dumped)"}, {SIGABRT, "Aborted (core dumped)"},
                {SIGQUIT, "Thread or Process is forced exit!"}, {SIGFPE, "unknow error fault"}};
        for (const auto &[number, text] : all) {
            ZELFrame frame;
            QCOMPARE(zelGuard(frame.get(), [sig = number] { raise(sig); }), number);
            QCOMPARE(frame->exception->ToString(), QString(text));
            QCOMPARE(frame->exception->single(), QStringLiteral("Receive signal number is:'%1'").arg(number));
        }
    }

    void nestedFramesCatchTheirOwn()
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
        QCOMPARE(outer->state, 6);
        QVERIFY(dynamic_cast<AssertException *>(outer->exception));
        QCOMPARE(outer->exception->where(), QStringLiteral("outer"));
    }

    void killReturnsToTheOutermost()
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

    void killWithoutFrames()
    {
        QCOMPARE(except_stack->Kill(QThread::currentThreadId()), ESRCH);
        QCOMPARE(except_stack->Kill(nullptr), ESRCH);
        raise(SIGQUIT); // not turned into a jump, nor the end of the process
    }

    void killedWhileOpenerWorks()
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

    void timeLimitReturnsToItsOwnFrame()
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

    void timerOfTheCaller()
    {
        timer_t timer;
        ZELFrame outer;
        int innerState = 0;
        zelGuard(outer.get(), [&] {
            ZELFrame inner;
            innerState = zelGuard(inner.get(), [&] {
                installTimer(timer, 20);
                QTest::qSleep(5000);
            });
            timer_delete(timer);
        });
        QCOMPARE(innerState, SIGALRM); // whoever is innermost, since no frame is the timer's own
        QVERIFY(!outer->caught);
    }

    void signalsLeftBlocked()
    {
        sigset_t all, after;
        sigfillset(&all);
        int state = 0;
        ZELFrame outer;
        zelGuard(outer.get(), [&] {
            ZELFrame careless, next;
            zelGuard(careless.get(), [&] { pthread_sigmask(SIG_SETMASK, &all, nullptr); });
            pthread_sigmask(SIG_SETMASK, nullptr, &after);
            state = zelGuard(next.get(), [] { raise(SIGFPE); });
        });
        pthread_sigmask(SIG_UNBLOCK, &all, nullptr);
        QCOMPARE(state, SIGFPE);
        for (int sig : {SIGSEGV, SIGQUIT, SIGALRM})
            QVERIFY(!sigismember(&after, sig));
        QVERIFY(sigismember(&after, SIGUSR1)); // the caller's own affair
    }

    void exceptionsLeftInCatchBlocks()
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

    void failingAbandonedAction()
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

    void recoveryFlag()
    {
        zelTakeFaultRecovery();
        ZELFrame quiet, loud;
        zelGuard(quiet.get(), [] {});
        QVERIFY(!zelTakeFaultRecovery());
        zelGuard(loud.get(), [] { raise(SIGBUS); });
        QVERIFY(zelTakeFaultRecovery());
        QVERIFY(!zelTakeFaultRecovery());
    }
};

QTEST_GUILESS_MAIN(tst_ZELCatch)
#include "tst_zelcatch.moc"
