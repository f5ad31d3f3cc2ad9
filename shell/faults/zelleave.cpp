// SPDX-License-Identifier: MIT
// When a kill or a time limit may leave the code that it finds: now, in a moment, or from inside of a call that waits.
// Runs in handlers and in normal code alike, without locks and allocation.
#include "zelcodemap_p.h"
#include "zelguard_p.h"
#include "zelresolver_p.h"
#include "zelsemaphore_p.h"
#include "zelsignals_p.h"

#include <sys/syscall.h>
#include <unistd.h>

#ifdef __SANITIZE_THREAD__
static constexpr bool signalsComeLate = true; // when the stack is another one than their context says
#else
static constexpr bool signalsComeLate = false;
#endif

std::atomic<int> zelGraceTime{3000};

namespace {

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
