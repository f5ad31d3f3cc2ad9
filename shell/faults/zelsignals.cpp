// SPDX-License-Identifier: MIT
#include "zelcodemap_p.h"
#include "zelfault.h"
#include "zelguard_p.h"
#include "zelreportout_p.h"
#include "zelsignals_p.h"

#include <QCoreApplication>
#include <cerrno>
#include <cstring>
#include <cxxabi.h>
#include <exception>
#include <sys/syscall.h>
#include <unistd.h>

// Handlers touch the thread's own plain data, the frames it leads to, and nothing else: no lock, no allocation.

void (*volatile zelProcessEnding)() = nullptr;
static std::atomic<pid_t> handlingProcess{0}; // that has installed the handlers

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

/// A forked child is a copy of everything, frames and terminals included, none of which is its own.
bool isForkedChild()
{
    const ExceptionHelp *frame = zelThreadFaults.innermost;
    const pid_t self = getpid();
    return self != handlingProcess || (frame && frame->link.process != self);
}

/// Nobody on this thread can take the fault: the process ends by it once the handler has returned.
void endProcess(int sig, const siginfo_t *info)
{
    auto ending = zelProcessEnding;
    if (ending && getpid() == handlingProcess)
        ending();
    struct sigaction action
    {
    };
    action.sa_handler = SIG_DFL;
    sigaction(sig, &action, nullptr);
    if (!info || info->si_code <= 0 || sig == SIGXCPU || sig == SIGXFSZ)
        syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), sig); // returning does not repeat a signal that was sent
}

void onFault(int sig, siginfo_t *info, void *context)
{
    if (sig == SIGXFSZ && zelThreadFaults.reporting)
        return; // the write fails, and the report goes on without its file
    if (zelThreadFaults.attempt)
        siglongjmp(*zelThreadFaults.attempt, 1);
    Interruption interruption(info, context);
    if (isForkedChild())
        return endProcess(sig, info);
    if (!zelReportFaulted())
        recvErrSignal(sig);
    else if (ExceptionHelp *frame = zelArmedFrame())
        zelJump(frame, sig);
    endProcess(sig, info);
}

void onAbort(int sig, siginfo_t *info, void *context)
{
    Interruption interruption(info, context);
    if (!isForkedChild())
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
    if (isForkedChild())
        return endProcess(sig, info);
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
    if (isForkedChild())
        return endProcess(sig, info);
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

/// What the timers of frames send beside the generation: others have no frame that they belong to.
constexpr quint64 frameTimer = 0x5a454c46;

bool isOfFrameTimer(const siginfo_t *info)
{
    return info && info->si_code == SI_TIMER && quint64(quintptr(info->si_value.sival_ptr)) >> 32 == frameTimer;
}

/// Which frame the timer that interrupted the thread belongs to, null when that is gone.
ExceptionHelp *timedOutFrame(const siginfo_t *info)
{
    for (ExceptionHelp *frame = zelThreadFaults.innermost; frame; frame = frame->link.outer) {
        if (frame->timerArmed && frame->link.generation == unsigned(quintptr(info->si_value.sival_ptr)))
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

static bool prepareOnce()
{
    ZELCriticalSection section;
    zelPrepareReport();
    zelNoteApplicationName();
    zelCheckDescriptors();
    for (const QString &line : ZELFault::selfCheck())
        qWarning("ZELFault: %s", qPrintable(line));
    return true;
}

void zelGiveUp(const char *why)
{
    char line[256];
    char *end = stpcpy(stpcpy(line, "ZELShell: "), why);
    end = stpcpy(end, "\r\n");
    if (write(STDERR_FILENO, line, size_t(end - line)) >= 0)
        endProcess(SIGABRT, nullptr);
    abort();
}

static const int faultSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGXCPU, SIGXFSZ};

void zelOpenSignals(const sigset_t *keep)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGABRT);
    for (int sig : faultSignals)
        sigaddset(&signals, sig);
    for (int sig : {SIGQUIT, SIGALRM}) {
        if (keep && !sigismember(keep, sig))
            sigaddset(&signals, sig);
    }
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void installUnixSignal()
{
    static const bool prepared = prepareOnce();
    Q_UNUSED(prepared)
    zelNoteTimeZone();
    handlingProcess = getpid();
    for (int sig : faultSignals)
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
    if (generation)
        event.sigev_value.sival_ptr = reinterpret_cast<void *>(quintptr(frameTimer << 32 | generation));
    event._sigev_un._tid = pid_t(syscall(SYS_gettid));
    if (timer_create(CLOCK_REALTIME, &event, timer) != 0)
        return false;
    itimerspec when{};
    when.it_value.tv_sec = ms / 1000;
    when.it_value.tv_nsec = (ms % 1000) * 1000000L;
    when.it_interval.tv_sec = 1800;
    return timer_settime(*timer, 0, &when, nullptr) == 0;
}

void installTimer(timer_t &timer, int ms)
{
    installUnixSignal();
    ExceptionHelp *frame = zelThreadFaults.innermost;
    const bool ofFrame = frame && &frame->timer == &timer;
    const unsigned generation = ofFrame ? ++zelThreadFaults.generation : 0;
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
    const siginfo_t *info = zelThreadFaults.signalInfo;
    const bool ofFrame = isOfFrameTimer(info);
    ExceptionHelp *frame = ofFrame ? timedOutFrame(info) : zelArmedFrame();
    if (ofFrame && !frame)
        return; // a late signal of a frame that is gone
    if ((!frame || !frame->link.expired) && zelReportWanted(sig))
        errorDump(sig);
    if (!frame)
        return;
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
