// SPDX-License-Identifier: MIT
#ifndef ZELWAIT_H
#define ZELWAIT_H

#include "zelshell_export.h"

#include <QMutex>
#include <QObject>
#include <QWaitCondition>
#include <atomic>

/**
 * A one-shot event: one thread waits, any thread sets.
 *
 * One set() releases one waitOne(), whether it came before or during the wait. The owner keeps the event alive until
 * its waiter has returned.
 *
 * A set() that falls between the waiter's look at the event and the start of its wait does not wake it at once: the
 * waiter runs into its time-out or waits for the next set(), and the early one is forgotten. So pass a finite
 * time-out, and where a lost wake-up matters wait in slices and look at your own state in between.
 */
class ZELSHELL_EXPORT ZELWait : public QObject
{
    Q_OBJECT
public:
    ZELWait();

    /// True at once when the event is set, else waits up to ms milliseconds (negative: without limit) and tells
    /// whether it was woken. The event is not set any more afterwards.
    bool waitOne(int ms);
    /// Sets the event and wakes the waiting thread, if there is one.
    void set();
    /// Whether a thread is inside waitOne() at this moment.
    bool isWaiting();

private:
    QMutex m_mutex;
    QWaitCondition m_cond;
    std::atomic<bool> m_waiting{false};
    std::atomic<bool> m_signalled{false};
};

#endif
