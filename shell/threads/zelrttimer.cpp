// SPDX-License-Identifier: MIT
#include "zelrttimer.h"

#include <cerrno>
#include <tuple>

namespace {

constexpr long secondNs = 1000000000;

timespec monotonicNow()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

float milliseconds(time_t sec, long nsec)
{
    return static_cast<float>(sec) * 1000.0f + static_cast<float>(nsec) / 1000000.0f;
}

} // namespace

ZELRtTimer::ZELRtTimer(unsigned long intervalUs)
    : m_intervalUs(intervalUs)
{
    reset();
}

unsigned long ZELRtTimer::intervalUs() const
{
    return m_intervalUs;
}

void ZELRtTimer::setIntervalUs(unsigned long intervalUs)
{
    m_intervalUs = intervalUs;
}

void ZELRtTimer::reset()
{
    m_next = monotonicNow();
    add_timespec(&m_next, m_intervalUs * 1000);
}

bool ZELRtTimer::sleepToNextTime()
{
    if (monotonicNow() > m_next) {
        reset();
        return false;
    }
    // add_timespec may leave a full second in tv_nsec, which the kernel refuses without sleeping.
    timespec wake = m_next;
    wake.tv_sec += wake.tv_nsec / secondNs;
    wake.tv_nsec %= secondNs;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &wake, nullptr) == EINTR) { }
    add_timespec(&m_next, m_intervalUs * 1000);
    return true;
}

float ZELRtTimer::timeMs()
{
    return monotonicNow() - m_next + static_cast<float>(m_intervalUs / 1000);
}

void ZELRtTimer::add_timespec(timespec *t, unsigned long ns)
{
    t->tv_sec += static_cast<time_t>(ns / secondNs);
    t->tv_nsec += static_cast<long>(ns % secondNs);
    if (t->tv_nsec > secondNs) {
        t->tv_sec += t->tv_nsec / secondNs;
        t->tv_nsec %= secondNs;
    }
}

bool operator<(const timespec &a, const timespec &b)
{
    return std::tie(a.tv_sec, a.tv_nsec) < std::tie(b.tv_sec, b.tv_nsec);
}

bool operator>(const timespec &a, const timespec &b)
{
    return b < a;
}

bool operator==(const timespec &a, const timespec &b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

float operator-(const timespec &a, const timespec &b)
{
    return milliseconds(a.tv_sec - b.tv_sec, a.tv_nsec - b.tv_nsec);
}

float operator+(const timespec &a, const timespec &b)
{
    return milliseconds(a.tv_sec + b.tv_sec, a.tv_nsec + b.tv_nsec);
}
