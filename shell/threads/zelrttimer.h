// SPDX-License-Identifier: MIT
#ifndef ZELRTTIMER_H
#define ZELRTTIMER_H

#include "zelshell_export.h"

#include <QtGlobal>
#include <time.h>

/**
 * A periodic sleeper on the monotonic clock that does not drift. For one thread.
 *
 * The wake-ups stand at fixed multiples of the period from the last reset() or overrun, however long the work
 * between two of them took.
 *
 *     ZELRtTimer timer(10000);
 *     while (running) {
 *         if (!timer.sleepToNextTime())
 *             ++overruns;
 *         control();
 *     }
 */
class ZELSHELL_EXPORT ZELRtTimer
{
public:
    /// The period in microseconds; the first one begins now.
    explicit ZELRtTimer(unsigned long intervalUs);

    unsigned long intervalUs() const;
    /// Takes effect when the end of the current period is next moved.
    void setIntervalUs(unsigned long intervalUs);
    /// The current period begins now.
    void reset();
    /// Sleeps to the end of the period and returns true. When that moment has passed already, returns false at once
    /// and the next period begins now. A signal does not shorten the sleep.
    bool sleepToNextTime();
    /// Milliseconds since the current period began.
    float timeMs();

    /// Adds ns nanoseconds to *t. A sum of exactly 1,000,000,000 in tv_nsec is not carried over to tv_sec: callers
    /// rely on that boundary.
    static void add_timespec(timespec *t, unsigned long ns);

private:
    timespec m_next;
    quint64 m_intervalUs;
};

ZELSHELL_EXPORT bool operator<(const timespec &a, const timespec &b);
ZELSHELL_EXPORT bool operator>(const timespec &a, const timespec &b);
ZELSHELL_EXPORT bool operator==(const timespec &a, const timespec &b);
/// The difference in milliseconds, not a time.
ZELSHELL_EXPORT float operator-(const timespec &a, const timespec &b);
/// The sum in milliseconds, not a time.
ZELSHELL_EXPORT float operator+(const timespec &a, const timespec &b);

#endif
