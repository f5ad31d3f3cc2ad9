// SPDX-License-Identifier: MIT
#ifndef ZELTHREADPOOL_H
#define ZELTHREADPOOL_H

#include "zelthread.h"

#include <QHash>
#include <QList>
#include <QMutex>
#include <QString>
#include <mutex>

/**
 * The process-wide pool: starts a thread for every run(), keeps threads with event loops for posted tasks, sweeps
 * what has ended at the next call, and knows mutexes by name.
 *
 * The pool owns its threads; a returned pointer is good until the thread has ended and the pool was used again.
 * Swept threads are deleted by the application's event loop. Every function may be called from any thread.
 *
 *     ZELThreadPool::Pool()->run([](ZELThreadInfo *info) { work(info->ThreadData()); }, data);
 *     QMutexLocker lock(ZELThreadPool::Pool()->getMutex(QStringLiteral("spi")));
 */
class ZELSHELL_EXPORT ZELThreadPool
{
public:
    /// The pool, made at the first call.
    static ZELThreadPool *Pool();
    /// Destroys it, for the end of the process: Pool() must not be used afterwards.
    static void Release();

    /// Threads started and not yet swept.
    int NumberOfThread();
    /// Adds a thread that runs its event loop.
    ZELThread *StartNewThread();
    /// Runs callback on a new thread, which is not used again.
    ZELThread *run(std::function<void(ZELThreadInfo *)> callback, QVariant data);
    /// Posts task to the first idle event-loop thread, or to a new one; the thread.
    ZELThread *BeginInvoke(std::function<void()> task);
    /// The same and waits until the task has run. Not from a thread that the pool might choose.
    ZELThread *Invoke(std::function<void()> task);
    /// Removes threads that have ended, with `all` also idle ones, which quit; how many.
    int Clear(bool all);
    /// The mutex of that name (not recursive), made on first request, kept until the pool is released.
    QMutex *getMutex(QString name);
    /// A status report, one line per thread.
    QString ToString();

private:
    ZELThreadPool() = default;
    ~ZELThreadPool();
    std::shared_ptr<ZELCall> postToChosen(const std::function<void()> &task, ZELThread **thread);
    ZELThread *chooseThread();
    ZELThread *append(ZELThread *thread);
    void sweep();

    QList<ZELThread *> m_threads;
    QHash<QString, QMutex *> m_mutexes;
    std::mutex m_lock;
};

#endif
