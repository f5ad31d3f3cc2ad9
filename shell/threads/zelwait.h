// SPDX-License-Identifier: MIT
#ifndef ZELWAIT_H
#define ZELWAIT_H

#include "zelshell_export.h"

#include <QObject>
#include <atomic>
#include <semaphore.h>

/**
 * A one-shot event: one thread waits, any thread sets.
 *
 * One set() releases one waitOne(), whether it came before or during the wait. The owner keeps the event alive until
 * its waiter has returned. A kill or a time limit of the waiting thread is taken during the wait; the event can be
 * waited for again afterwards.
 */
class ZELSHELL_EXPORT ZELWait : public QObject
{
    Q_OBJECT
public:
    ZELWait();
    ~ZELWait() override;

    /// True at once when the event is set, else waits up to ms milliseconds (negative: without limit) and tells
    /// whether it was woken. The event is not set any more afterwards.
    bool waitOne(int ms);
    /// Sets the event and wakes the waiting thread, if there is one.
    void set();
    /// Whether a thread is inside waitOne() at this moment; stays true when the thread was abandoned there.
    bool isWaiting();

private:
    bool sleepUntil(const timespec *deadline);

    // Not a wait condition, whose mutex a kill would leave behind in a state that nobody can use again.
    sem_t m_wakeUps;
    std::atomic<bool> m_waiting{false};
    std::atomic<bool> m_signalled{false};
};

#endif
