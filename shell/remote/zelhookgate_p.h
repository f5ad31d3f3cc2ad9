// SPDX-License-Identifier: MIT
#ifndef ZELHOOKGATE_P_H
#define ZELHOOKGATE_P_H

#include "zelguard_p.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

/// The thread that waits for what this thread does, when it runs a synchronous hook; else nobody's.
inline std::thread::id &zelWaitingThread()
{
    static thread_local std::thread::id waiting;
    return waiting;
}

/// The thread that this one works for: who waits for one of both must not be waited for by the other.
inline std::thread::id zelServedThread()
{
    const std::thread::id waiting = zelWaitingThread();
    return waiting == std::thread::id() ? std::this_thread::get_id() : waiting;
}

/**
 * The way to the hooks of a client: closed when the client's end begins, which then waits for those that run. Held by
 * the client and its records. Any thread.
 */
class ZELHookGate
{
public:
    /// False once closed; else leave() follows on the same thread.
    bool enter()
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_closed)
            m_inside.push_back(zelServedThread());
        return !m_closed;
    }
    void leave()
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto mine = std::find(m_inside.begin(), m_inside.end(), zelServedThread());
        if (mine != m_inside.end())
            m_inside.erase(mine);
        m_changed.notify_all();
    }
    void close()
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    /// Until nobody is inside but for those that wait for the caller.
    void awaitOthers()
    {
        while (!waitShortly()) { }
    }

private:
    bool waitShortly()
    {
        ZELCriticalSection section;
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(20), [this] {
            const auto self = zelServedThread();
            return std::all_of(m_inside.begin(), m_inside.end(), [&](std::thread::id id) { return id == self; });
        });
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::thread::id> m_inside;
    bool m_closed = false;
};

#endif
