// SPDX-License-Identifier: MIT
#include "zelthreadpool.h"
#include "zelguard_p.h"
#include "zelthread_p.h"

#include <QCoreApplication>

// The lock guards the list and the hash. Tasks are posted under it, so that the chosen thread cannot be swept in
// between; nothing waits under it.

ZELThreadPool *ZELThreadPool::Pool()
{
    ZELCriticalSection section;
    static auto *pool = new ZELThreadPool;
    return pool;
}

void ZELThreadPool::Release()
{
    delete Pool();
}

ZELThreadPool::~ZELThreadPool()
{
    Clear(true);
    qDeleteAll(m_mutexes);
}

int ZELThreadPool::NumberOfThread()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(m_lock);
    return m_threads.size();
}

ZELThread *ZELThreadPool::StartNewThread()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(m_lock);
    return append(new ZELThread);
}

ZELThread *ZELThreadPool::run(std::function<void(ZELThreadInfo *)> callback, QVariant data)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(m_lock);
    sweep();
    auto *thread = new ZELThread;
    thread->setCallback(callback);
    thread->setThreadData(data);
    return append(thread);
}

ZELThread *ZELThreadPool::BeginInvoke(std::function<void()> task)
{
    ZELThread *thread = nullptr;
    postToChosen(task, &thread);
    return thread;
}

ZELThread *ZELThreadPool::Invoke(std::function<void()> task)
{
    ZELThread *thread = nullptr;
    postToChosen(task, &thread)->wait();
    return thread;
}

std::shared_ptr<ZELCall> ZELThreadPool::postToChosen(const std::function<void()> &task, ZELThread **thread)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(m_lock);
    *thread = chooseThread();
    return (*thread)->post(task);
}

int ZELThreadPool::Clear(bool all)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(m_lock);
    int removed = 0;
    for (int i = m_threads.size() - 1; i >= 0; --i) {
        ZELThread *thread = m_threads.at(i);
        const bool running = thread->isRunning();
        if (running && (!all || thread->isOccupied()))
            continue;
        if (running)
            thread->quit();
        m_threads.removeAt(i);
        thread->deleteLater();
        ++removed;
    }
    return removed;
}

QMutex *ZELThreadPool::getMutex(QString name)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(m_lock);
    QMutex *&mutex = m_mutexes[name];
    if (!mutex)
        mutex = new QMutex;
    return mutex;
}

static QString threadLine(ZELThread *thread)
{
    const quint64 id = quint64(quintptr(thread->ThreadId()));
    const bool busy = thread->IsBusy();
    if (thread->isRunning()) // the template of running threads has a letter of its own
        return QStringLiteral("\tZELrThread id=%1 state='%2'\n")
            .arg(id)
            .arg(busy ? QStringLiteral("is do work") : QStringLiteral("is in idle"));
    QString state = id ? QStringLiteral("is stoped") : QStringLiteral("is ready to start");
    if (busy)
        state = QStringLiteral("is error");
    return QStringLiteral("\tZELThread id=%1 state='%2'\n").arg(id).arg(state);
}

QString ZELThreadPool::ToString()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(m_lock);
    QString text = QStringLiteral("ZELThread Number:%1\n").arg(m_threads.size());
    for (ZELThread *thread : qAsConst(m_threads))
        text += threadLine(thread);
    return text;
}

ZELThread *ZELThreadPool::chooseThread()
{
    sweep();
    for (ZELThread *thread : qAsConst(m_threads)) {
        if (thread->takesTasks())
            return thread;
    }
    return append(new ZELThread);
}

/// The application's thread owns them, so that deleteLater() works also when the one that asked has ended.
ZELThread *ZELThreadPool::append(ZELThread *thread)
{
    if (QCoreApplication::instance())
        thread->moveToThread(QCoreApplication::instance()->thread());
    thread->start(QThread::InheritPriority);
    if (!zelHasStarted(*thread))
        thread->dropPosted(); // nobody waits for a thread that will never run
    m_threads.append(thread);
    return thread;
}

void ZELThreadPool::sweep()
{
    for (int i = m_threads.size() - 1; i >= 0; --i) {
        if (m_threads.at(i)->isFinished()) // one that could not be started is its caller's to look at
            m_threads.takeAt(i)->deleteLater();
    }
}
