// SPDX-License-Identifier: MIT
#include "zelguard_p.h"
#include "zelsignals_p.h"

#include <QCoreApplication>
#include <cerrno>
#include <cxxabi.h>
#include <exception>
#include <sys/syscall.h>
#include <unistd.h>

// Handlers touch the thread's own plain data, the frames it leads to, and nothing else: no lock, no allocation.

void (*volatile zelProcessEnding)() = nullptr;

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

void onFault(int sig, siginfo_t *info, void *context)
{
    Interruption interruption(info, context);
    recvErrSignal(sig);
    endProcess(sig, info);
}

void onAbort(int sig, siginfo_t *info, void *context)
{
    Interruption interruption(info, context);
    recvAboutignal(sig);
    endProcess(sig, info);
}

void onKill(int sig, siginfo_t *info, void *context)
{
    // The terminal's quit key reaches whichever thread the kernel picks: not a request to end that one.
    if (!zelThreadFaults.kill.load() && info->si_code == SI_KERNEL)
        return;
    Interruption interruption(info, context);
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
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
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

void writeJobLine(const char *before, const char *after)
{
    const QByteArray line = before + QCoreApplication::applicationName().toLocal8Bit() + after;
    if (write(STDERR_FILENO, line.constData(), size_t(line.size())) < 0)
        return; // nobody is left to tell
}

} // namespace

void installUnixSignal()
{
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

void installTimer(timer_t &timer, int ms)
{
    installUnixSignal();
    ExceptionHelp *frame = zelThreadFaults.innermost;
    unsigned generation = ++zelThreadFaults.generation;
    if (frame)
        frame->link.generation = generation;
    if (!zelCreateTimer(&timer, ms, generation))
        qWarning("installTimer: no timer left");
    else if (frame && &frame->timer == &timer)
        frame->timerArmed = true;
}

void recvErrSignal(int sig)
{
    if (sig == SIGSEGV && zelCrashDumpWanted())
        errorDump(sig);
    if (ExceptionHelp *frame = zelArmedFrame())
        zelJump(frame, sig);
}

void recvAboutignal(int sig)
{
    ExceptionHelp *frame = zelArmedFrame();
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
    zelSafePoint();
}

void recvTimeOutSignal(int sig)
{
    ExceptionHelp *frame = timedOutFrame();
    if (!frame)
        return; // a late signal of a frame that is gone
    if (!frame->link.expired)
        errorDump(sig);
    frame->link.expired = true;
    zelThreadFaults.attention = 1;
    zelSafePoint();
}

void recvPauseSignal(int)
{
    writeJobLine("[1]+  Stopped(SIGTSTP)  ./", "");
}

void recvResumeSignal(int)
{
    writeJobLine("[1]+  Continued(SIGCONT)  ./", "\r\n");
}
