// SPDX-License-Identifier: MIT
#ifndef ZELGUARD_P_H
#define ZELGUARD_P_H

#include "zelcatch.h"

#include <atomic>
#include <memory>
#include <utility>

class QThread;
class ZELSemaphore;

/**
 * What the signal handlers know of their thread. Plain data in the initial-exec model, so that reaching it in a
 * handler neither allocates nor locks. Other threads touch the atomic fields only, under the lock of the registry.
 */
struct ZELThreadFaults
{
    ExceptionHelp *innermost;
    ExceptionHelp *target; ///< where the jump under way leads
    ExceptionHelp *loopFrame; ///< innermost frame when the event loop was entered: kills do not jump beyond it
    int loops; ///< event loops of the thread on the stack
    volatile int critical; ///< depth of critical sections, also held while a jump is under way
    volatile int attention; ///< a time limit waits to be taken
    std::atomic<int> kill; ///< a kill waits to be taken
    std::atomic<int> interrupt; ///< the interruptible frame is to be left
    std::atomic<QThread *> loopThread; ///< whose event loop runs
    sigjmp_buf *attempt; ///< where a fault of the handler itself returns to
    sigjmp_buf *stop; ///< where a system call inside a critical section is left for, when there is a kill or limit
    quintptr stopStack; ///< of the function that keeps that
    ZELSemaphore *wakeUp; ///< what a wait inside a critical section waits for, posted when there is a kill or limit
    void *context; ///< where the signal under way interrupted the thread
    siginfo_t *signalInfo;
    long long waitingSince; ///< monotonic ms of the first attempt to take what is pending, 0 for none
    unsigned tries;
    int retryTimer; ///< kernel timer that repeats the attempt
    bool hasRetryTimer;
    volatile bool retrying; ///< it will expire
    long long refusedAt; ///< monotonic ms of the last safe point that was none
    bool forced; ///< the jump under way was not safe
    bool faulted; ///< it comes from a fatal signal
    bool suspicious; ///< which came out of library code
    unsigned generation; ///< of the last frame with a time limit
    bool hasFrames; ///< guarded by the registry
    bool registered;
    bool ended; ///< the thread's storage is being destroyed
    bool reporting; ///< a report is being written, whose failing writes are no faults
    quintptr stackLow; ///< the thread's own stack, 0 where it is not known
    quintptr stackHigh;
    quintptr deepest; ///< how far down it was used by what is left in the jump under way; 0 where that is not known
    bool jumped;
    bool recovered;
};
extern __thread ZELThreadFaults zelThreadFaults __attribute__((tls_model("initial-exec"), visibility("hidden")));

/// Jumps for a remembered kill or time limit; returns when there is nowhere to jump to yet.
void zelTakePending();

/// Takes a remembered kill or time limit, if any, where nothing of the caller's is torn by it.
inline void zelSafePoint()
{
    ZELThreadFaults &self = zelThreadFaults;
    if (self.critical == 0 && (self.attention || self.kill.load(std::memory_order_relaxed)))
        zelTakePending();
}

inline void zelEnterCritical()
{
    zelThreadFaults.critical = zelThreadFaults.critical + 1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

inline void zelLeaveCritical()
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
    zelThreadFaults.critical = zelThreadFaults.critical - 1;
    zelSafePoint();
}

/**
 * While one stands, kills and time limits of the thread are remembered; the end of the outermost one takes them.
 * Around every lock of the library and around bookkeeping that must not be left half done. Not for long waits.
 *
 *     ZELCriticalSection section;      // first, so that it ends last
 *     QMutexLocker lock(&m_mutex);
 */
class ZELCriticalSection
{
public:
    ZELCriticalSection() { zelEnterCritical(); }
    ~ZELCriticalSection() { zelLeaveCritical(); }
    ZELCriticalSection(const ZELCriticalSection &) = delete;
    ZELCriticalSection &operator=(const ZELCriticalSection &) = delete;
};

/// Whether a kill or time limit waits for the end of the critical section that the thread is in: a wait for somebody
/// else's pace is to be given up.
bool zelStopWanted();
/// call(argument), one system call with nothing to undo, in a critical section; false when a kill or time limit came
/// before it or ended it. How far it got is not known then.
bool zelInterruptibly(void (*call)(void *), void *argument);
/// Waits inside a critical section; false when the thread is to be stopped. What it waits for may still come.
bool zelWaitInterruptibly(ZELSemaphore &semaphore);

/// Opens frame, runs call(argument), closes it.
int zelGuardCall(ExceptionHelp *frame, void (*call)(void *), void *argument);

/**
 * Runs fn in frame. 0 when it ran to its end, else the frame's state; then frame->caught is set and frame->exception
 * says why. With frame->timeoutMs the code is abandoned after that time. What fn threw is caught here with its
 * destructors run; a jump runs none, so fn holds its resources in objects that outlive it.
 *
 *     ZELFrame frame;
 *     frame->abandoned = [record] { record.finish(); };
 *     if (zelGuard(frame.get(), [&] { command.run(); }))
 *         qDebug() << frame->exception->ToString();
 */
template <class F>
int zelGuard(ExceptionHelp *frame, F &&fn)
{
    auto *callee = std::addressof(fn);
    return zelGuardCall(
        frame, [](void *f) { (**static_cast<decltype(callee) *>(f))(); }, &callee);
}

/**
 * Owns a frame on the heap and its exception, for openers. While it stands the opener's own code is a critical section,
 * only what the guard runs is not: so a kill comes either inside of the guarded code, or after the opener has dealt
 * with its end. A jump over it leaves the frame to the one further out, which runs the abandoned action.
 */
class ZELFrame
{
public:
    ZELFrame()
        : m_frame(new ExceptionHelp)
    {
        m_frame->link.held = 1;
    }
    ~ZELFrame()
    {
        delete m_frame->exception;
        delete m_frame;
    }
    ZELFrame(const ZELFrame &) = delete;
    ZELFrame &operator=(const ZELFrame &) = delete;
    ExceptionHelp *get() const { return m_frame; }
    ExceptionHelp *operator->() const { return m_frame; }
    /// The exception, which the caller owns from now on.
    Exception *take() { return std::exchange(m_frame->exception, nullptr); }

private:
    ZELCriticalSection m_section; // its end, after the frame is gone, takes what came meanwhile
    ExceptionHelp *m_frame;
};

/// Whether a signal writes a crash report; at start SIGSEGV and SIGALRM do.
bool zelReportWanted(int sig);
void zelSetReport(int sig, bool on);
/// At most so many full reports a second, the others are a line; 0 for no such limit.
void zelSetReportRate(int perSecond);
/// Of the files, also of those that are there; negative for the described one, of new files.
void zelSetReportMode(int mode);
/// True when the calling thread was writing a report, which a fault has ended: it gets no report of its own.
bool zelReportFaulted();
/// Runs step(argument) in a handler; false when it faulted. Such a fault goes no further.
bool zelAttempt(void (*step)(void *), void *argument);
/// Makes what a report needs and no handler may make; normal context, at the first frame and when paths change.
void zelPrepareReport();
bool zelReportHasResolver();

/// Counts and records what brought the thread back to frame; the restart policy.
void zelCountJump(const ExceptionHelp *frame);

/// What happened since the process began; any thread.
struct ZELFaultCounts
{
    std::atomic<quint64> faults; ///< synchronous ones that became errors
    std::atomic<quint64> kills;
    std::atomic<quint64> limits;
    std::atomic<quint64> deferred; ///< kills and limits that did not find the thread in a safe place at once
    std::atomic<quint64> forced; ///< taken in an unsafe place after the grace time
};
extern ZELFaultCounts zelFaultCounts;

/// How long an asynchronous jump waits for a safe place before it is forced, in ms.
extern std::atomic<int> zelGraceTime;

/// Ends the process after one line on standard error, as an abort that no frame takes; async-signal-safe.
[[noreturn]] void zelGiveUp(const char *why);
/// Gives up when somebody has closed descriptors that are not his: a process that nothing wakes any more would spin
/// deaf. At the end of each command; the first call makes the descriptor that is looked at.
void zelCheckDescriptors();

/// Called in a signal handler right before a fault ends the process; async-signal-safe, null for none.
extern void (*volatile zelProcessEnding)();

/// Whether ReStartApplication() was called: what ends after it must not ask for another exit code.
bool zelRestartWanted();

/// The calling thread, for zelInterrupt(); good while the thread runs.
struct ZELInterruptTarget
{
    ZELThreadFaults *faults;
    pthread_t thread;
};
ZELInterruptTarget zelInterruptTarget();

/// Makes this thread known for kills from others, and unknown again.
void zelSetRegistered(bool registered);
/// The same for a thread that is not one of the library's own, with a signal stack, until it ends; once.
void zelEnsureRegistered();
/// Whether this thread has frames. Without any, from here on no kill is sent to it; one that is on its way is let in
/// before that.
void zelSetHasFrames(bool has);

/// Abandons what a thread runs in its outermost frame whose link is marked interruptible, with the state SIGINT;
/// nothing without one. Taken like a time limit, where nothing is torn. Async-signal-safe.
void zelInterrupt(const ZELInterruptTarget &target);

/// True once after a jump came back to a frame of this thread: the session draws its prompt again.
bool zelTakeFaultRecovery();

/// Jumps to the innermost frame with e as it stands; throws e without a frame.
[[noreturn]] void zelRaise(Exception *e, int state = SIGABRT);

/**
 * Marks the event loop of a thread: while it stands a kill jumps at most to the outermost frame inside of it, and
 * otherwise waits until the loop has been left through quit(), which Kill() calls.
 */
class ZELLoopScope
{
public:
    explicit ZELLoopScope(QThread *thread);
    ~ZELLoopScope();
    /// A kill came before the loop was entered: do not enter it.
    bool killed() const;

private:
    ExceptionHelp *m_outerFrame;
    QThread *m_outerThread;
};

/**
 * Registers the calling thread, and makes `memory` its alternate signal stack, while it stands. Threads of the library
 * give a piece of the outer end of their own stack, so that they need no mapping of their own; other threads are
 * registered and get a mapping at their first frame.
 */
class ZELThreadFaultScope
{
public:
    ZELThreadFaultScope(void *memory, size_t size);
    ~ZELThreadFaultScope();
    static constexpr size_t StackSize = 64 * 1024;

private:
    bool m_ownStack = false;
};

#endif
