// SPDX-License-Identifier: MIT
#ifndef ZELSEMAPHORE_P_H
#define ZELSEMAPHORE_P_H

#include <cerrno>
#include <chrono>
#include <semaphore.h>

/// sem_overview(7). Unlike a wait condition it may be jumped out of while waiting, and waking takes no lock that the
/// woken thread would run into.
class ZELSemaphore
{
public:
    ZELSemaphore() { sem_init(&m_semaphore, 0, 0); }
    ~ZELSemaphore() { sem_destroy(&m_semaphore); }
    ZELSemaphore(const ZELSemaphore &) = delete;
    ZELSemaphore &operator=(const ZELSemaphore &) = delete;

    void post() { sem_post(&m_semaphore); }
    /// For waiters that look at their state before they wait: one token is enough.
    void postOne()
    {
        int tokens = 0;
        sem_getvalue(&m_semaphore, &tokens);
        if (tokens == 0)
            sem_post(&m_semaphore);
    }
    void wait()
    {
        while (sem_wait(&m_semaphore) != 0 && errno == EINTR) { }
    }
    /// False when no token came by then.
    bool waitUntil(std::chrono::steady_clock::time_point deadline)
    {
        using namespace std::chrono;
        const auto time = deadline.time_since_epoch();
        const auto whole = duration_cast<seconds>(time);
        const timespec until = {whole.count(), long(duration_cast<nanoseconds>(time - whole).count())};
        while (sem_clockwait(&m_semaphore, CLOCK_MONOTONIC, &until) != 0)
            if (errno != EINTR)
                return false;
        return true;
    }

private:
    sem_t m_semaphore;
};

#endif
