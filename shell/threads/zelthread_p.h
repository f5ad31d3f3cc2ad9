// SPDX-License-Identifier: MIT
#ifndef ZELTHREAD_P_H
#define ZELTHREAD_P_H

#include "zelcatch.h"
#include "zelguard_p.h"

#include <QHash>
#include <QThread>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

class ZELSync;

/// One posted task, as its poster sees it: finished when it ran, failed, or will never run. Any thread.
class ZELCall
{
public:
    void finish()
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_finished = true;
        m_changed.notify_all();
    }
    /// Returns when finished; a kill of the waiting thread is taken meanwhile.
    void wait()
    {
        while (!waitShortly()) { }
    }
    /// Whether it has finished, or does so in a moment.
    bool waitShortly()
    {
        ZELCriticalSection section;
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(20), [this] { return m_finished; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_finished = false;
};

class ZELThreadPrivate
{
public:
    std::mutex mutex; ///< guards label, posted, waiting, ended, begun
    QHash<ZELSync *, std::shared_ptr<ZELCall>> posted; ///< tasks on their way
    int waiting = 0; ///< of them those that have not begun
    bool ended = false; ///< nothing posted would run
    bool begun = false; ///< from the beginning of a run to its very end
    Exception *failure = nullptr; ///< of a task, until the body reports it; touched by the thread alone
    bool inLoop = false; ///< still set after a fault has jumped out of the event loop
};

/// False when the system had no thread, or no memory for one, to give.
inline bool zelHasStarted(const QThread &thread)
{
    return thread.isRunning() || thread.isFinished();
}

#endif
