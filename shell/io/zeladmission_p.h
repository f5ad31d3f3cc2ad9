// SPDX-License-Identifier: MIT
#ifndef ZELADMISSION_P_H
#define ZELADMISSION_P_H

#include "zelguard_p.h"

#include <functional>
#include <mutex>

/**
 * Counts the peers between accept and the end of their handshake, and holds the accepting back while there are too
 * many: who has not said who they are yet must not take up the host. Shared by the server and the sessions, which may
 * outlive it. Threads: any.
 */
class ZELAdmission
{
public:
    static constexpr int DefaultLimit = 64;

    /// 0: no limit.
    void setLimit(int limit)
    {
        const Lock lock(m_mutex);
        m_limit = limit;
        goOn();
    }
    /// Called when there is room again after hasRoom() has said no, under the lock: it may only post. Null when the
    /// server has gone.
    void setResume(std::function<void()> resume)
    {
        const Lock lock(m_mutex);
        m_resume = std::move(resume);
    }
    /// Whether one more may be accepted; who is told no is called when that changes.
    bool hasRoom()
    {
        const Lock lock(m_mutex);
        m_held = isFull();
        return !m_held;
    }
    void enter()
    {
        const Lock lock(m_mutex);
        ++m_count;
    }
    void leave()
    {
        const Lock lock(m_mutex);
        --m_count;
        goOn();
    }
    /// Others wait for a place.
    bool isHeld() const
    {
        const Lock lock(m_mutex);
        return m_held;
    }

private:
    struct Lock
    {
        explicit Lock(std::mutex &mutex)
            : lock(mutex)
        {
        }
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock;
    };
    bool isFull() const { return m_limit > 0 && m_count >= m_limit; }
    void goOn()
    {
        if (m_held && !isFull() && m_resume)
            m_resume();
        m_held = m_held && isFull();
    }

    mutable std::mutex m_mutex;
    std::function<void()> m_resume;
    int m_limit = DefaultLimit;
    int m_count = 0;
    bool m_held = false; ///< somebody may wait to be accepted
};

#endif
