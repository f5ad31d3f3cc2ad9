// SPDX-License-Identifier: MIT
#ifndef ZELTHREAD_H
#define ZELTHREAD_H

#include "zelshell_export.h"

#include <QThread>
#include <QVariant>
#include <atomic>
#include <functional>
#include <memory>

class ZELCall;
class ZELSync;
class ZELThread;
class ZELThreadPrivate;

/// What a callback learns about the thread that carries it; valid while the callback runs.
class ZELSHELL_EXPORT ZELThreadInfo
{
public:
    virtual ~ZELThreadInfo();
    virtual ZELThread *Thread() = 0;
    /// QThread::currentThreadId() of the thread.
    virtual Qt::HANDLE ThreadId() = 0;
    virtual QVariant &ThreadData() = 0;
    /// Runs the thread's event loop until quit() or exit(); its code.
    virtual int exec() = 0;
};

/**
 * The library's one kind of worker thread: runs a single callback in a try frame, or without one an event loop that
 * serves Invoke() and BeginInvoke(). A failure that escapes the work ends it with one debug line, never the process.
 *
 * Owned by its creator, or by itself after setAutoDelete(). An object that is destroyed while its thread runs asks the
 * loop to quit and waits, at most three seconds before it kills. Every function may be called from any thread;
 * callback, data and label are set before start().
 *
 *     ZELThread::run([](ZELThreadInfo *info) { work(info->ThreadData()); }, data, true);
 */
class ZELSHELL_EXPORT ZELThread : public QThread, private ZELThreadInfo
{
    Q_OBJECT
public:
    explicit ZELThread(QObject *parent = nullptr);
    ~ZELThread() override;

    /// Creates a thread without parent and starts it.
    static ZELThread *run(std::function<void(ZELThreadInfo *)> callback, QVariant data, bool autoDelete);

    /// The object deletes itself after the thread has finished. Cannot be switched off.
    void setAutoDelete();
    bool isAutoDelete();
    void setCallback(const std::function<void(ZELThreadInfo *)> &callback);
    void setThreadData(QVariant &data);
    void setLabel(QString label);
    QString getLabel();

protected:
    void run() override;

public:
    ZELThread *Thread() override;
    /// Null before the thread has run.
    Qt::HANDLE ThreadId() override;
    QVariant &ThreadData() override;
    int exec() override;

    /// True while a callback or a task runs on the thread.
    bool IsBusy();
    /// Ends the work of the thread, see Except_frame::Kill(); ESRCH without effect when it has not started or is over.
    int Kill();
    /// Runs task in this thread's event loop and waits for it. Returns early when the task failed, or when the loop
    /// ended without running it. Called from this very thread it runs the task at once.
    void Invoke(std::function<void()> task);
    /// Posts task to this thread's event loop; lost when the thread ends without running it.
    void BeginInvoke(std::function<void()> task);

Q_SIGNALS:
    void completed();
    void sigCompleted(QString lableName); // the spelling is part of the interface

private:
    friend class ZELSync;
    friend class ZELThreadPool;
    void begin();
    void end();
    void unwound();
    void guardedBody();
    void body();
    void runTask(ZELSync *sync, const std::function<void()> &task);
    void taskBegun(ZELSync *sync);
    std::shared_ptr<ZELCall> post(const std::function<void()> &task);
    void taskDone(ZELSync *sync);
    void awaitPost();
    void dropPosted();
    bool isOccupied();
    bool takesTasks();
    bool isOver();

    std::function<void(ZELThreadInfo *)> m_callback;
    std::atomic<Qt::HANDLE> m_threadId{nullptr};
    QVariant m_threadData;
    std::atomic<bool> m_autoDelete{false};
    std::atomic<bool> m_busy{false};
    QString m_label;
    std::unique_ptr<ZELThreadPrivate> d;
};

/// Carries one task into a thread: lives there, runs it in its slot, and deletes itself when told to.
class ZELSHELL_EXPORT ZELSync : public QObject
{
    Q_OBJECT
public:
    explicit ZELSync(ZELThread *thread);
    ZELSync();
    ~ZELSync() override;
    /// deleteLater() after the next doSync().
    void setAutoDelete();
    bool event(QEvent *event) override;

public Q_SLOTS:
    void doSync(std::function<void()> task);

private:
    bool m_autoDelete = false;
    ZELThread *m_thread = nullptr;
};

#endif
