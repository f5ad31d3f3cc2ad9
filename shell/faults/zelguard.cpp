// SPDX-License-Identifier: MIT
#include "zelcodemap_p.h"
#include "zelguard_p.h"
#include "zelresolver_p.h"
#include "zelsignals_p.h"

#include <QDebug>
#include <QThread>
#include <cstdlib>
#include <cxxabi.h>
#include <exception>
#include <unistd.h>

// Jumps start in the handlers (zelsignals.cpp), in zelRaise() and in zelTakePending(), and all of them come back in
// recover(). Between the start and the end of recover() the thread counts as inside a critical section.

__thread ZELThreadFaults zelThreadFaults;

static Except_frame theRegistry;
Except_frame *except_stack = &theRegistry;

namespace {

/// The head of the C++ runtime's per-thread exception state, as the Itanium ABI lays it out.
struct ExceptionState
{
    void *caught;
    unsigned uncaught;
};

ExceptionState *exceptionState()
{
    return reinterpret_cast<ExceptionState *>(abi::__cxa_get_globals());
}

/// A jump may have left catch blocks open; their exceptions are ended here.
void popExceptionState(const ExceptionHelp::Link &link)
{
    ExceptionState *state = exceptionState();
    while (state->caught && state->caught != link.caughtExceptions)
        abi::__cxa_end_catch();
    state->uncaught = link.uncaughtExceptions;
}

/// In a copy of the process that has opened the frame nobody is there to catch what is raised.
void endForkedChild(const ExceptionHelp *frame)
{
    if (frame->link.process != getpid())
        std::abort();
}

void stopTimer(ExceptionHelp *frame)
{
    if (frame->timerArmed)
        timer_delete(frame->timer);
    frame->timerArmed = false;
}

/// Takes the frame out of reach for jumps; its time limit ends with it.
void disarm(ExceptionHelp *frame)
{
    frame->link.armed = false;
    frame->link.expired = false;
    frame->link.interrupted = false;
    stopTimer(frame);
}

void unlinkInnermost()
{
    ZELThreadFaults &self = zelThreadFaults;
    if (!self.innermost->link.outer) {
        zelSetHasFrames(false);
        zelStopRetrying();
    }
    self.innermost = self.innermost->link.outer;
}

void runAbandoned(ExceptionHelp *dropped)
{
    ZELFrame frame;
    if (zelGuard(frame.get(), dropped->abandoned))
        qWarning(
            "ExceptionHelp: the action of an abandoned frame failed: %s", qPrintable(frame->exception->ToString()));
}

/// The openers of the frames inside of target are gone with the jump: their duties are done here.
void dropInnerFrames(ExceptionHelp *target)
{
    while (zelThreadFaults.innermost != target) {
        ExceptionHelp *dropped = zelThreadFaults.innermost;
        disarm(dropped);
        unlinkInnermost();
        if (dropped->abandoned)
            runAbandoned(dropped);
        delete dropped->exception;
        delete dropped;
    }
}

/// Where every jump comes back, in normal context on the stack of the target's opener.
void recover()
{
    ZELThreadFaults &self = zelThreadFaults;
    ExceptionHelp *target = self.target ? self.target : self.innermost;
    self.critical = target->link.critical + 1;
    self.context = nullptr;
    self.signalInfo = nullptr;
    self.attempt = nullptr;
    self.stop = nullptr;
    self.reporting = false;
    self.loops = target->link.loops;
    self.loopFrame = target->link.loopFrame;
    if (!self.loops)
        self.loopThread = nullptr;
    zelStopRetrying();
    target->link.armed = false;
    popExceptionState(target->link);
    if (target->state == SIGQUIT || target->state == SIGALRM || target->state == SIGINT)
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr); // a blocking call that was left has changed it
    if (target->state == SIGQUIT && !self.loops)
        self.kill = 0; // inside of an event loop the kill goes on once the loop has been left
    dropInnerFrames(target);
    disarm(target);
    target->Config();
    target->caught = true;
    zelCountJump(target);
    zelGiveBackStack();
    self.target = nullptr;
    self.jumped = false;
    self.recovered = true;
    self.critical = target->link.critical;
    zelSafePoint();
}

const sigset_t *savedMask(const ExceptionHelp *frame)
{
    return &reinterpret_cast<const sigset_t &>(frame->env->__saved_mask);
}

void arm(ExceptionHelp *frame)
{
    if (!frame->env->__mask_was_saved || !sigisemptyset(savedMask(frame)))
        zelOpenSignals();
    frame->link.armed = true;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    zelThreadFaults.critical = frame->link.critical - frame->link.held;
    zelSafePoint();
}

void armWithLimit(ExceptionHelp *frame)
{
    if (frame->timeoutMs > 0) {
        ZELCriticalSection section;
        zelRefreshCodeMap();
        frame->link.generation = ++zelThreadFaults.generation;
        frame->timerArmed = true; // before the timer runs: its signal may come at once
        frame->timerArmed = zelCreateTimer(&frame->timer, frame->timeoutMs, frame->link.generation);
        if (!frame->timerArmed)
            qWarning("StartTimer: no timer left, the call runs without its limit of %d ms", frame->timeoutMs);
        frame->link.armed = true; // the end of the section takes a limit that is reached already
    }
    arm(frame);
}

void caughtByGuard(ExceptionHelp *frame, Exception *e, const char *note)
{
    endForkedChild(frame);
    frame->state = SIGABRT;
    frame->exception = e;
    frame->link.note = QString::fromUtf8(note);
    zelThreadFaults.target = frame;
    recover();
}

/// The thread is being cancelled, or has called pthread_exit(): its frames end without having been left by a jump.
void dropForUnwinding(ExceptionHelp *frame)
{
    ZELCriticalSection section;
    dropInnerFrames(frame);
    disarm(frame);
    unlinkInnermost();
    if (frame->abandoned)
        runAbandoned(frame);
}

/// Apart from zelGuardCall(), so that nothing of it is read after a jump.
[[gnu::noinline]] void runGuarded(ExceptionHelp *frame, void (*call)(void *), void *argument)
{
    try {
        installUnixSignal();
        armWithLimit(frame);
        call(argument);
    } catch (abi::__forced_unwind &) {
        dropForUnwinding(frame);
        throw;
    } catch (Exception *e) {
        caughtByGuard(frame, e, nullptr);
    } catch (const Exception &e) {
        caughtByGuard(frame, new Exception(e), nullptr);
    } catch (const std::exception &e) {
        caughtByGuard(frame, nullptr, e.what());
    } catch (...) {
        caughtByGuard(frame, nullptr, nullptr);
    }
}

} // namespace

int zelGuardCall(ExceptionHelp *frame, void (*call)(void *), void *argument)
{
    except_stack->Push(frame);
    if (sigsetjmp(frame->env, 1) == 0)
        runGuarded(frame, call, argument);
    else
        recover();
    zelThreadFaults.critical = frame->link.critical; // the opener's code goes on as it began
    ZELCriticalSection section;
    zelOpenSignals(savedMask(frame)); // which the code may have left blocked
    except_stack->CleanUp();
    except_stack->Pop();
    return frame->caught ? frame->state : 0;
}

ExceptionHelp *Except_frame::Push(ExceptionHelp *frame)
{
    ZELThreadFaults &self = zelThreadFaults;
    ZELCriticalSection section;
    frame->link.stack = reinterpret_cast<quintptr>(__builtin_frame_address(0));
    zelEnsureRegistered();
    // Before the first frame of all can be found by a kill, whose signal would end the process otherwise.
    static const bool handled = (installUnixSignal(), true);
    Q_UNUSED(handled)
    if (!self.innermost)
        zelSetHasFrames(true);
    const ExceptionState *state = exceptionState();
    frame->link.caughtExceptions = state->caught;
    frame->link.uncaughtExceptions = state->uncaught;
    frame->link.critical = self.critical - 1;
    frame->link.loops = self.loops;
    frame->link.loopFrame = self.loopFrame;
    frame->link.outer = self.innermost;
    frame->link.process = getpid();
    self.innermost = frame;
    return frame;
}

ExceptionHelp *Except_frame::Pop()
{
    ZELCriticalSection section;
    ExceptionHelp *frame = zelThreadFaults.innermost;
    if (frame) {
        disarm(frame);
        unlinkInnermost();
    }
    return frame;
}

ExceptionHelp *Except_frame::Innermost() const
{
    return zelThreadFaults.innermost;
}

int Except_frame::Depth() const
{
    int depth = 0;
    for (ExceptionHelp *frame = zelThreadFaults.innermost; frame; frame = frame->link.outer)
        ++depth;
    return depth;
}

void Except_frame::setJumped(bool jumped)
{
    zelThreadFaults.jumped = jumped;
}

bool Except_frame::StartExcept()
{
    if (zelThreadFaults.jumped) {
        recover();
        return false;
    }
    installUnixSignal();
    if (ExceptionHelp *frame = zelThreadFaults.innermost)
        arm(frame);
    return true;
}

bool Except_frame::StartTimer(int ms)
{
    if (zelThreadFaults.jumped) {
        if (zelThreadFaults.target)
            zelThreadFaults.target->timeoutMs = ms;
        recover();
        return false;
    }
    installUnixSignal();
    if (ExceptionHelp *frame = zelThreadFaults.innermost) {
        frame->timeoutMs = ms;
        armWithLimit(frame);
    }
    return true;
}

void Except_frame::CleanUp()
{
    ZELCriticalSection section;
    ExceptionHelp *frame = zelThreadFaults.innermost;
    if (!frame)
        return;
    disarm(frame);
    if (!frame->exception) {
        frame->exception = new Exception;
        frame->exception->setwhat(QStringLiteral("no exception"));
    }
}

ExceptionHelp *zelArmedFrame()
{
    ExceptionHelp *frame = zelThreadFaults.innermost;
    const pid_t process = frame ? frame->link.process : 0;
    while (frame && !frame->link.armed)
        frame = frame->link.outer;
    return frame && frame->link.process == process ? frame : nullptr;
}

template <class Wanted>
static ExceptionHelp *outermostInLoop(Wanted wanted)
{
    const ZELThreadFaults &self = zelThreadFaults;
    const ExceptionHelp *end = self.loops ? self.loopFrame : nullptr;
    ExceptionHelp *target = nullptr;
    for (ExceptionHelp *frame = self.innermost; frame && frame != end; frame = frame->link.outer) {
        if (frame->link.armed && frame->link.process == self.innermost->link.process && wanted(frame->link))
            target = frame;
    }
    return target;
}

ExceptionHelp *zelKillTarget()
{
    return outermostInLoop([](const ExceptionHelp::Link &) { return true; });
}

ExceptionHelp *zelLimitTarget()
{
    return outermostInLoop([](const ExceptionHelp::Link &link) { return bool(link.expired); });
}

void zelTakePending()
{
    ZELThreadFaults &self = zelThreadFaults;
    if (self.critical)
        return;
    if (self.attention && !zelLimitTarget())
        self.attention = self.loops; // what lies beyond an event loop waits for its end
    // A walk at each of many safe points that are called from delicate code would leave the thread no time.
    if (!self.refusedAt || zelMonotonicMs() > self.refusedAt + 1)
        zelTakeWhereSafe();
}

void zelJump(ExceptionHelp *frame, int state)
{
    ZELThreadFaults &self = zelThreadFaults;
    self.critical = self.critical + 1;
    self.deepest = self.context ? zelInterruptedStack(self.context) : quintptr(__builtin_frame_address(0));
    frame->state = state;
    self.target = frame;
    self.jumped = true;
    siglongjmp(frame->env, 1);
}

void zelRaise(Exception *e, int state)
{
    ExceptionHelp *frame = zelArmedFrame();
    if (!frame)
        throw e;
    endForkedChild(frame);
    zelThreadFaults.critical = zelThreadFaults.critical + 1;
    delete frame->exception;
    frame->exception = e;
    zelJump(frame, state);
}

bool zelTakeFaultRecovery()
{
    return std::exchange(zelThreadFaults.recovered, false);
}

ZELLoopScope::ZELLoopScope(QThread *thread)
    : m_outerFrame(zelThreadFaults.loopFrame)
    , m_outerThread(zelThreadFaults.loopThread)
{
    ZELCriticalSection section;
    zelThreadFaults.loopFrame = zelThreadFaults.innermost;
    ++zelThreadFaults.loops;
    zelThreadFaults.loopThread = thread;
}

ZELLoopScope::~ZELLoopScope()
{
    ZELCriticalSection section; // its end takes the kill that waited for the loop
    zelThreadFaults.loopFrame = m_outerFrame;
    --zelThreadFaults.loops;
    zelThreadFaults.loopThread = m_outerThread;
}

bool ZELLoopScope::killed() const
{
    return zelThreadFaults.kill.load() != 0;
}
