// SPDX-License-Identifier: MIT
#ifndef ZELSESSIONLOCK_P_H
#define ZELSESSIONLOCK_P_H

#include "zelguard_p.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

/// A lock that a kill waits for.
class ZELSessionLock
{
public:
    explicit ZELSessionLock(std::mutex &mutex)
        : m_lock(mutex)
    {
    }
    /// Waits for a change of what the mutex guards; false when the time is over.
    bool wait(std::condition_variable &change, std::chrono::steady_clock::time_point deadline)
    {
        return change.wait_until(m_lock, deadline) == std::cv_status::no_timeout;
    }
    void wait(std::condition_variable &change) { change.wait(m_lock); }

private:
    ZELCriticalSection m_section;
    std::unique_lock<std::mutex> m_lock;
};

#endif
