// SPDX-License-Identifier: MIT
#include "zelcodemap_p.h"
#include "zelguard_p.h"
#include "zelresolver_p.h"
#include "zelsignals_p.h"

#include <QDebug>
#include <QThread>
#include <cxxabi.h>
#include <exception>
#include <sys/mman.h>
#include <unistd.h>

// Jumps start in the handlers (zelsignals.cpp), in zelRaise() and in zelTakePending(), and all of them come back in
// recover(). Between the start and the end of recover() the thread counts as inside a critical section.

__thread ZELThreadFaults zelThreadFaults;

static Except_frame theRegistry;
Except_frame *except_stack = &theRegistry;

namespace {

bool useSignalStack(void *memory, size_t size)
{
    stack_t present{};
    if (sigaltstack(nullptr, &present) != 0 || !(present.ss_flags & SS_DISABLE))
        return false; // the host's own stays
    stack_t stack{};
    stack.ss_sp = memory;
    stack.ss_size = size;
    return sigaltstack(&stack, nullptr) == 0;
}

void dropSignalStack()
{
    stack_t stack{};
    stack.ss_flags = SS_DISABLE;
    sigaltstack(&stack, nullptr);
}

/// Registration and signal stack of a thread that is not one of the library's own, until the thread ends.
struct ForeignThread
{
    ForeignThread()
    {
        zelSetRegistered(true);
        m_memory = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (m_memory != MAP_FAILED) {
            mprotect(m_memory, 4096, PROT_NONE);
            m_used = useSignalStack(static_cast<char *>(m_memory) + 4096, m_size - 4096);
        }
    }
    ~ForeignThread()
    {
        zelSetRegistered(false);
        zelThreadFaults.ended = true;
        if (m_used)
            dropSignalStack();
        if (m_memory != MAP_FAILED)
            munmap(m_memory, m_size);
    }
    void use() { }

private:
    static constexpr size_t m_size = ZELThreadFaultScope::StackSize + 4096;
    void *m_memory = nullptr;
    bool m_used = false;
};

void ensureRegistered()
{
    if (zelThreadFaults.registered || zelThreadFaults.ended)
        return;
    static thread_local ForeignThread thread;
    thread.use();
    if (!zelThreadFaults.registered)
        zelSetRegistered(true); // once a library thread, now opening a frame after its body
}

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
    self.target = nullptr;
    self.jumped = false;
    self.recovered = true;
    self.critical = target->link.critical;
    zelSafePoint();
}

void arm(ExceptionHelp *frame)
{
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
    frame->state = SIGABRT;
    frame->exception = e;
    frame->link.note = QString::fromUtf8(note);
    zelThreadFaults.target = frame;
    recover();
}

/// Apart from zelGuardCall(), so that nothing of it is read after a jump.
[[gnu::noinline]] void runGuarded(ExceptionHelp *frame, void (*call)(void *), void *argument)
{
    try {
        installUnixSignal();
        armWithLimit(frame);
        call(argument);
    } catch (abi::__forced_unwind &) { // the thread is being cancelled: that goes on
        ZELCriticalSection section;
        dropInnerFrames(frame);
        disarm(frame);
        unlinkInnermost();
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
    except_stack->CleanUp();
    except_stack->Pop();
    return frame->caught ? frame->state : 0;
}

ExceptionHelp *Except_frame::Push(ExceptionHelp *frame)
{
    ZELThreadFaults &self = zelThreadFaults;
    ZELCriticalSection section;
    frame->link.stack = reinterpret_cast<quintptr>(__builtin_frame_address(0));
    ensureRegistered();
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
    while (frame && !frame->link.armed)
        frame = frame->link.outer;
    return frame;
}

template <class Wanted>
static ExceptionHelp *outermostInLoop(Wanted wanted)
{
    const ZELThreadFaults &self = zelThreadFaults;
    const ExceptionHelp *end = self.loops ? self.loopFrame : nullptr;
    ExceptionHelp *target = nullptr;
    for (ExceptionHelp *frame = self.innermost; frame && frame != end; frame = frame->link.outer) {
        if (frame->link.armed && wanted(frame->link))
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

ZELThreadFaultScope::ZELThreadFaultScope(void *memory, size_t size)
    : m_ownStack(useSignalStack(memory, size))
{
    zelSetRegistered(true);
}

ZELThreadFaultScope::~ZELThreadFaultScope()
{
    zelSetRegistered(false);
    if (m_ownStack)
        dropSignalStack();
}
