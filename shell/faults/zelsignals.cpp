// SPDX-License-Identifier: MIT
#include "zelcodemap_p.h"
#include "zelfault.h"
#include "zelguard_p.h"
#include "zelresolver_p.h"
#include "zelsemaphore_p.h"
#include "zelsignals_p.h"

#include <QCoreApplication>
#include <cerrno>
#include <cstring>
#include <cxxabi.h>
#include <exception>
#include <sys/syscall.h>
#include <unistd.h>

// Handlers touch the thread's own plain data, the frames it leads to, and nothing else: no lock, no allocation.

#ifdef __SANITIZE_THREAD__
static constexpr bool signalsComeLate = true; // when the stack is another one than their context says
#else
static constexpr bool signalsComeLate = false;
#endif

void (*volatile zelProcessEnding)() = nullptr;
std::atomic<int> zelGraceTime{3000};

namespace {

using Handler = void (*)(int, siginfo_t *, void *);

/// What a handler that returns must leave as it was, and where it interrupted the thread.
class Interruption
{
public:
    Interruption(siginfo_t *info, void *context)
        : m_errno(errno)
        , m_outerContext(zelThreadFaults.context)
        , m_outerInfo(zelThreadFaults.signalInfo)
    {
        zelThreadFaults.context = context;
        zelThreadFaults.signalInfo = info;
    }
    ~Interruption()
    {
        zelThreadFaults.context = m_outerContext;
        zelThreadFaults.signalInfo = m_outerInfo;
        errno = m_errno;
    }

private:
    int m_errno;
    void *m_outerContext;
    siginfo_t *m_outerInfo;
};

/// Nobody on this thread can take the fault: the process ends by it once the handler has returned.
void endProcess(int sig, const siginfo_t *info)
{
    if (auto ending = zelProcessEnding)
        ending();
    struct sigaction action
    {
    };
    action.sa_handler = SIG_DFL;
    sigaction(sig, &action, nullptr);
    if (!info || info->si_code <= 0 || sig == SIGXCPU || sig == SIGXFSZ)
        syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), sig); // returning does not repeat a signal that was sent
}

/// The raw calls, since the wrappers may allocate. The signal is the kill's: a doorbell, the flags say what for.
bool makeRetryTimer()
{
    ZELThreadFaults &self = zelThreadFaults;
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGQUIT;
    event._sigev_un._tid = pid_t(syscall(SYS_gettid));
    self.hasRetryTimer
        = self.hasRetryTimer || syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &self.retryTimer) == 0;
    return self.hasRetryTimer;
}

/// Random, so that the attempts do not run in step with what the thread repeats.
void tryAgainSoon(bool graceOver)
{
    ZELThreadFaults &self = zelThreadFaults;
    // Safe points one after the other must not put the timer off each time: it meets the thread elsewhere.
    if ((!self.context && self.retrying) || !makeRetryTimer())
        return; // critical sections and safe points are left
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    ++self.tries;
    long wait = 10000 + long((unsigned(now.tv_nsec) * 2654435761u >> 16) % 60000);
    if (self.tries > 2000)
        wait = 1000000;
    if (graceOver)
        wait = 20000000;
    itimerspec when{};
    when.it_value.tv_nsec = wait;
    self.retrying = true;
    syscall(SYS_timer_settime, self.retryTimer, 0, &when, nullptr);
}

struct PlaceQuestion
{
    void *context;
    uintptr_t outer;
    ZELPlace place;
};

void askPlace(void *question)
{
    auto *q = static_cast<PlaceQuestion *>(question);
    q->place = q->context ? zelPlaceOf(q->context, q->outer) : zelPlaceHere(q->outer);
}

/// What stands against a jump now; waits for a better moment when something does.
[[maybe_unused]] bool mayLeave(const ExceptionHelp *target)
{
    ZELThreadFaults &self = zelThreadFaults;
    const long long now = zelMonotonicMs();
    if (!self.waitingSince) {
        self.waitingSince = now;
        self.tries = 0;
    }
    const bool graceOver = now - self.waitingSince > zelGraceTime.load(std::memory_order_relaxed);
    PlaceQuestion question{self.context, target->link.stack, ZELPlace::Torn};
    zelAttempt(askPlace, &question);
    self.forced = question.place == ZELPlace::Torn;
    if (question.place == ZELPlace::Safe || (self.forced && graceOver))
        return true;
    if (!self.tries)
        ++zelFaultCounts.deferred;
    self.forced = false;
    self.refusedAt = self.context ? self.refusedAt : now;
    tryAgainSoon(graceOver);
    return false;
}

/// Out of the system call of zelInterruptibly(), if it is that which the signal interrupted.
void leaveCall()
{
    ZELThreadFaults &self = zelThreadFaults;
    PlaceQuestion question{self.context, self.stopStack, ZELPlace::Torn};
    if (!signalsComeLate)
        zelAttempt(askPlace, &question);
    if (signalsComeLate || question.place == ZELPlace::Safe)
        siglongjmp(*self.stop, 1);
    tryAgainSoon(false);
}

void onFault(int sig, siginfo_t *info, void *context)
{
    if (zelThreadFaults.attempt)
        siglongjmp(*zelThreadFaults.attempt, 1);
    Interruption interruption(info, context);
    if (!zelReportFaulted())
        recvErrSignal(sig);
    else if (ExceptionHelp *frame = zelArmedFrame())
        zelJump(frame, sig);
    endProcess(sig, info);
}

void onAbort(int sig, siginfo_t *info, void *context)
{
    Interruption interruption(info, context);
    recvAboutignal(sig);
    endProcess(sig, info);
}

/// Hands a request to interrupt on to the frame that it means; false without a request.
bool takeInterrupt()
{
    ZELThreadFaults &self = zelThreadFaults;
    if (!self.interrupt.exchange(0))
        return false;
    ExceptionHelp *target = nullptr;
    for (ExceptionHelp *frame = self.innermost; frame; frame = frame->link.outer) {
        if (self.loops && frame == self.loopFrame)
            break;
        if (frame->link.armed && frame->link.interruptible)
            target = frame;
    }
    if (target) {
        target->link.interrupted = true;
        target->link.expired = true;
        self.attention = 1;
    }
    return true;
}

void onKill(int sig, siginfo_t *info, void *context)
{
    Interruption interruption(info, context);
    if (info->si_code == SI_TIMER)
        zelThreadFaults.retrying = false;
    const bool interrupted = takeInterrupt();
    // The terminal's quit key reaches whichever thread the kernel picks: not a request to end that one.
    if (info->si_code == SI_TIMER || ((info->si_code == SI_KERNEL || interrupted) && !zelThreadFaults.kill.load()))
        zelTakeWhereSafe();
    else
        recvThKillSignal(sig);
}

void onTimeOut(int sig, siginfo_t *info, void *context)
{
    Interruption interruption(info, context);
    recvTimeOutSignal(sig);
}

void install(int sig, Handler handler)
{
    struct sigaction action
    {
    };
    action.sa_sigaction = handler;
    // A fault of the handler itself must come through; it returns into zelAttempt().
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART | (handler == onFault ? SA_NODEFER : 0);
    sigaddset(&action.sa_mask, SIGQUIT);
    sigaddset(&action.sa_mask, SIGALRM);
    sigaction(sig, &action, nullptr);
}

void rethrowOnTerminate()
{
    if (std::current_exception())
        std::rethrow_exception(std::current_exception()); // ends in abort(), whose handler looks at the exception
    std::abort();
}

/// Which frame the timer that interrupted the thread belongs to; other senders mean the innermost one.
ExceptionHelp *timedOutFrame()
{
    const siginfo_t *info = zelThreadFaults.signalInfo;
    if (!info || info->si_code != SI_TIMER)
        return zelArmedFrame();
    for (ExceptionHelp *frame = zelThreadFaults.innermost; frame; frame = frame->link.outer) {
        if (frame->timerArmed && frame->link.generation == unsigned(info->si_value.sival_int))
            return frame;
    }
    return nullptr;
}

struct AllocatorQuestion
{
    void *context;
    bool inside;
};

void askAllocator(void *question)
{
    auto *q = static_cast<AllocatorQuestion *>(question);
    q->inside = zelInAllocator(q->context);
}

/// Where a fault may return to. Out of the allocator nowhere: its lock would stay taken, its lists torn.
ExceptionHelp *survivableFrame()
{
    ZELThreadFaults &self = zelThreadFaults;
    ExceptionHelp *frame = zelArmedFrame();
    AllocatorQuestion question{self.context, false};
    zelAttempt(askAllocator, &question);
    if (!frame || question.inside)
        return nullptr;
    self.faulted = true;
    const ZELModule *module = self.context ? zelModuleAt(zelInterruptedAt(self.context)) : nullptr;
    self.suspicious = self.critical > 0 || (module && module->code == ZELCode::Runtime && self.signalInfo->si_code > 0);
    return frame;
}

/// The exception that ended in abort(), looked at by throwing it once more inside of the handler.
void keepCurrentException(ExceptionHelp *frame)
{
    try {
        throw;
    } catch (Exception *e) {
        frame->exception = e;
    } catch (const Exception &e) {
        frame->exception = new Exception(e);
    } catch (const std::exception &e) {
        frame->link.note = QString::fromUtf8(e.what());
    } catch (...) {
    }
}

char applicationName[256];

/// In one write; async-signal-safe.
void writeJobLine(const char *before, const char *after)
{
    char line[512];
    char *end = stpcpy(line, before);
    end = stpcpy(end, applicationName[0] ? applicationName : program_invocation_short_name);
    end = stpcpy(end, after);
    if (write(STDERR_FILENO, line, size_t(end - line)) < 0)
        return; // nobody is left to tell
}

} // namespace

void zelTakeWhereSafe()
{
    ZELThreadFaults &self = zelThreadFaults;
    const bool kill = self.kill.load() && zelKillTarget();
    ExceptionHelp *target = kill ? zelKillTarget() : zelLimitTarget();
    if (self.critical && target && self.stop)
        leaveCall();
    if (self.critical && target && self.wakeUp)
        self.wakeUp->post();
    if (self.critical || !target)
        return; // the end of the section, or of the event loop, takes it
    if (signalsComeLate || mayLeave(target))
        zelJump(target, kill ? SIGQUIT : target->link.interrupted ? SIGINT : SIGALRM);
}

bool zelStopWanted()
{
    const ZELThreadFaults &self = zelThreadFaults;
    return (self.kill.load() && zelKillTarget()) || (self.attention && zelLimitTarget());
}

[[gnu::noinline]] bool zelInterruptibly(void (*call)(void *), void *argument)
{
    ZELThreadFaults &self = zelThreadFaults;
    sigjmp_buf here;
    const bool first = sigsetjmp(here, 1) == 0;
    if (first) {
        self.stopStack = reinterpret_cast<quintptr>(__builtin_frame_address(0));
        self.stop = &here;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (!zelStopWanted())
            call(argument);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    } else {
        self.context = nullptr;
        self.signalInfo = nullptr;
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr); // a blocking call that was left has changed it
    }
    self.stop = nullptr;
    return first && !zelStopWanted();
}

bool zelWaitInterruptibly(ZELSemaphore &semaphore)
{
    ZELThreadFaults &self = zelThreadFaults;
    self.wakeUp = &semaphore;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    const bool wait = !zelStopWanted();
    if (wait)
        semaphore.wait();
    std::atomic_signal_fence(std::memory_order_seq_cst);
    self.wakeUp = nullptr;
    return wait;
}

static bool prepareOnce()
{
    ZELCriticalSection section;
    zelPrepareReport();
    zelNoteApplicationName();
    for (const QString &line : ZELFault::selfCheck())
        qWarning("ZELFault: %s", qPrintable(line));
    return true;
}

bool zelAttempt(void (*step)(void *), void *argument)
{
#ifdef __SANITIZE_THREAD__
    step(argument); // a sigsetjmp on the signal stack makes the sanitizer forget those of the thread's own
    return true;
#else
    sigjmp_buf *const outer = zelThreadFaults.attempt;
    sigjmp_buf here;
    const bool first = sigsetjmp(here, 1) == 0;
    if (first) {
        zelThreadFaults.attempt = &here;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        step(argument);
    }
    zelThreadFaults.attempt = outer;
    return first;
#endif
}

void installUnixSignal()
{
    static const bool prepared = prepareOnce();
    Q_UNUSED(prepared)
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGXCPU, SIGXFSZ})
        install(sig, onFault);
    install(SIGQUIT, onKill);
    install(SIGABRT, onAbort);
    std::set_terminate(rethrowOnTerminate);
}

bool zelCreateTimer(timer_t *timer, int ms, unsigned generation)
{
    install(SIGALRM, onTimeOut);
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGALRM;
    event.sigev_value.sival_int = int(generation);
    event._sigev_un._tid = pid_t(syscall(SYS_gettid));
    if (timer_create(CLOCK_REALTIME, &event, timer) != 0)
        return false;
    itimerspec when{};
    when.it_value.tv_sec = ms / 1000;
    when.it_value.tv_nsec = (ms % 1000) * 1000000L;
    when.it_interval.tv_sec = 1800;
    return timer_settime(*timer, 0, &when, nullptr) == 0;
}

void zelStopRetrying()
{
    ZELThreadFaults &self = zelThreadFaults;
    self.waitingSince = 0;
    self.refusedAt = 0;
    self.retrying = false;
    if (self.hasRetryTimer)
        syscall(SYS_timer_delete, self.retryTimer);
    self.hasRetryTimer = false;
}

void installTimer(timer_t &timer, int ms)
{
    installUnixSignal();
    ExceptionHelp *frame = zelThreadFaults.innermost;
    unsigned generation = ++zelThreadFaults.generation;
    const bool ofFrame = frame && &frame->timer == &timer;
    if (ofFrame) {
        frame->link.generation = generation;
        frame->timerArmed = true; // before the timer runs: its signal may come at once
    }
    const bool made = zelCreateTimer(&timer, ms, generation);
    if (!made)
        qWarning("installTimer: no timer left");
    if (ofFrame)
        frame->timerArmed = made;
}

void recvErrSignal(int sig)
{
    if (zelReportWanted(sig))
        errorDump(sig);
    if (ExceptionHelp *frame = survivableFrame())
        zelJump(frame, sig);
}

void recvAboutignal(int sig)
{
    if (zelReportWanted(sig))
        errorDump(sig);
    ExceptionHelp *frame = survivableFrame();
    if (!frame)
        return;
    const auto caught = *reinterpret_cast<void **>(abi::__cxa_get_globals());
    if (caught && caught != frame->link.caughtExceptions && !frame->exception)
        keepCurrentException(frame);
    zelJump(frame, sig);
}

void recvThKillSignal(int)
{
    ZELThreadFaults &self = zelThreadFaults;
    if (!self.innermost)
        return;
    self.kill = 1;
    zelTakeWhereSafe();
}

void recvTimeOutSignal(int sig)
{
    ExceptionHelp *frame = timedOutFrame();
    if (!frame)
        return; // a late signal of a frame that is gone
    if (!frame->link.expired && zelReportWanted(sig))
        errorDump(sig);
    frame->link.expired = true;
    zelThreadFaults.attention = 1;
    zelTakeWhereSafe();
}

void zelNoteApplicationName()
{
    const QByteArray name = QCoreApplication::applicationName().toLocal8Bit();
    strncpy(applicationName, name.constData(), sizeof applicationName - 1);
}

void recvPauseSignal(int)
{
    writeJobLine("[1]+  Stopped(SIGTSTP)  ./", "");
}

void recvResumeSignal(int)
{
    writeJobLine("[1]+  Continued(SIGCONT)  ./", "\r\n");
}
