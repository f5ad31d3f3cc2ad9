// SPDX-License-Identifier: MIT
#include "zelwait.h"

#include "zelguard_p.h"

#include <cerrno>
#include <ctime>

static timespec fromNow(int ms)
{
    timespec when{};
    clock_gettime(CLOCK_MONOTONIC, &when);
    const long nanoseconds = when.tv_nsec + (ms % 1000) * 1000000L;
    when.tv_sec += ms / 1000 + nanoseconds / 1000000000;
    when.tv_nsec = nanoseconds % 1000000000;
    return when;
}

ZELWait::ZELWait()
{
    sem_init(&m_wakeUps, 0, 0);
}

ZELWait::~ZELWait()
{
    sem_destroy(&m_wakeUps);
}

/// False when the time is over.
bool ZELWait::sleepUntil(const timespec *deadline)
{
    zelSafePoint();
    const int failed = deadline ? sem_clockwait(&m_wakeUps, CLOCK_MONOTONIC, deadline) : sem_wait(&m_wakeUps);
    return failed == 0 || errno != ETIMEDOUT;
}

bool ZELWait::waitOne(int ms)
{
    const timespec deadline = fromNow(ms);
    m_waiting = true;
    // A wake-up may be one of a set() that was used up already: what counts is the flag.
    while (!m_signalled && sleepUntil(ms < 0 ? nullptr : &deadline)) { }
    m_waiting = false;
    return m_signalled.exchange(false);
}

void ZELWait::set()
{
    m_signalled = true;
    int wakeUps = 0;
    sem_getvalue(&m_wakeUps, &wakeUps);
    if (wakeUps == 0)
        sem_post(&m_wakeUps);
}

bool ZELWait::isWaiting()
{
    return m_waiting;
}
