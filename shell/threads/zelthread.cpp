// SPDX-License-Identifier: MIT
#include "zelthread.h"
#include "zeleventdispatcher_p.h"
#include "zelguard_p.h"
#include "zelthread_p.h"
#include "zeltsan_p.h"

#include <QCoreApplication>
#include <QDebug>
#include <QEvent>
#include <QEventLoop>
#include <QMetaType>
#include <cxxabi.h>

ZELThreadInfo::~ZELThreadInfo() = default;

ZELThread::ZELThread(QObject *parent)
    : QThread(parent)
    , m_label(QStringLiteral("NULL"))
    , d(new ZELThreadPrivate)
{
    qRegisterMetaType<std::function<void()>>("std::function<void ()>");
    setEventDispatcher(new ZELEventDispatcher(this)); // Qt's own would take descriptors, and GLib's bears no jump
    connect(this, &QThread::finished, this, &ZELThread::end, Qt::DirectConnection);
    ZEL_TSAN_RELEASE(this);
}

ZELThread::~ZELThread()
{
    if (isRunning()) {
        quit();
        while (!wait(3000))
            Kill();
    }
    wait(); // for the last steps of one that counts as finished
    ZEL_TSAN_ACQUIRE(this);
    dropPosted();
    delete eventDispatcher(); // Qt deletes those of threads that run, and each leaves one for the next start
}

ZELThread *ZELThread::run(std::function<void(ZELThreadInfo *)> callback, QVariant data, bool autoDelete)
{
    auto *thread = new ZELThread;
    if (autoDelete)
        thread->setAutoDelete();
    thread->setCallback(callback);
    thread->setThreadData(data);
    thread->start(QThread::InheritPriority);
    return thread;
}

void ZELThread::setAutoDelete()
{
    connect(this, &QThread::finished, this, &QObject::deleteLater, Qt::QueuedConnection);
    m_autoDelete = true;
}

bool ZELThread::isAutoDelete()
{
    return m_autoDelete;
}

void ZELThread::setCallback(const std::function<void(ZELThreadInfo *)> &callback)
{
    m_callback = callback;
    ZEL_TSAN_RELEASE(this);
}

void ZELThread::setThreadData(QVariant &data)
{
    m_threadData = data;
    ZEL_TSAN_RELEASE(this);
}

void ZELThread::setLabel(QString label)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    m_label = label;
}

QString ZELThread::getLabel()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    return m_label;
}

ZELThread *ZELThread::Thread()
{
    return this;
}

Qt::HANDLE ZELThread::ThreadId()
{
    return m_threadId;
}

QVariant &ZELThread::ThreadData()
{
    return m_threadData;
}

bool ZELThread::IsBusy()
{
    return m_busy;
}

int ZELThread::Kill()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex); // started again it has another id a little later
    return d->begun ? except_stack->Kill(m_threadId) : ESRCH;
}

void ZELThread::run()
{
    alignas(64) char signalStack[ZELThreadFaultScope::StackSize];
    ZELThreadFaultScope scope(signalStack, sizeof signalStack);
    ZEL_TSAN_ACQUIRE(this);
    pthread_detach(pthread_self());
    m_threadId = QThread::currentThreadId();
    begin();
    try {
        guardedBody();
    } catch (abi::__forced_unwind &) { // cancelled, or ended by pthread_exit()
        unwound();
        throw;
    }
    dropPosted();
    ZEL_TSAN_RELEASE(this);
}

void ZELThread::unwound()
{
    m_busy = false;
    Q_EMIT completed();
    Q_EMIT sigCompleted(getLabel());
    dropPosted();
    ZEL_TSAN_RELEASE(this);
}

void ZELThread::begin()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    d->ended = false;
    d->begun = true;
}

/// The last that the thread does by itself: from here on it runs again only when it was started again.
void ZELThread::end()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    d->begun = false;
    ZEL_TSAN_RELEASE(this);
}

void ZELThread::guardedBody()
{
    ZELFrame frame;
    zelGuard(frame.get(), [this] { body(); });
    const QString label = getLabel();
    if (frame->caught) {
        const Exception *e = frame->exception;
        qDebug() << "ERROR:in ZELThread::run" << e->file() << e->what() << e->where()
                 << "[ZELThread id = " << ThreadId() << "]"
                 << "Label:" << label;
    }
    // An object whose slot was abandoned points into the abandoned stack, and its destructor writes there: what the
    // lost loop was still to delete is left behind.
    if (std::exchange(d->inLoop, false))
        QCoreApplication::removePostedEvents(nullptr, QEvent::DeferredDelete);
    m_busy = false;
    Q_EMIT completed();
    Q_EMIT sigCompleted(label);
}

void ZELThread::body()
{
    if (m_callback) {
        m_busy = true;
        m_callback(this);
        m_busy = false;
    } else {
        exec();
    }
    if (Exception *failure = std::exchange(d->failure, nullptr))
        zelRaise(failure);
}

/// Not QThread::exec(): a fault in a slot jumps out of the loop, and then Qt still knows the loop object. On the heap,
/// where a jump leaves it alone, it stays good for a later quit().
int ZELThread::exec()
{
    ZELLoopScope scope(this);
    if (scope.killed())
        return -1;
    auto *loop = new QEventLoop;
    d->inLoop = true;
    const int code = loop->exec();
    d->inLoop = false;
    delete loop;
    if (code != -1)
        QThread::exit(code);
    return QThread::exec(); // returns at once with the code and makes the thread ready for another loop
}

/// Called when the thread is busy already, so that at no moment it looks idle.
void ZELThread::taskBegun(ZELSync *sync)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    if (d->posted.contains(sync))
        --d->waiting;
}

void ZELThread::runTask(ZELSync *sync, const std::function<void()> &task)
{
    ZELFrame frame;
    m_busy = true;
    taskBegun(sync);
    zelGuard(frame.get(), task);
    m_busy = false;
    if (!frame->caught)
        return;
    if (!d->failure)
        d->failure = frame.take();
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->ended = true;
    }
    quit(); // what failed in a task ends the loop; the thread reports it then
}

std::shared_ptr<ZELCall> ZELThread::post(const std::function<void()> &task)
{
    ZELCriticalSection section;
    auto call = std::make_shared<ZELCall>();
    std::lock_guard<std::mutex> lock(d->mutex); // dropPosted() comes either before all of this or after it
    if (isOver()) {
        call->finish();
        return call;
    }
    auto *sync = new ZELSync(this);
    sync->setAutoDelete();
    d->posted.insert(sync, call);
    ++d->waiting;
    ZEL_TSAN_RELEASE(sync);
    QMetaObject::invokeMethod(sync, "doSync", Qt::QueuedConnection, Q_ARG(std::function<void()>, task));
    return call;
}

/// The post that sent the event being delivered has ended; its lock hands over what Qt's queue carried.
void ZELThread::awaitPost()
{
    std::lock_guard<std::mutex> lock(d->mutex);
}

void ZELThread::taskDone(ZELSync *sync)
{
    ZELCriticalSection section;
    std::unique_lock<std::mutex> lock(d->mutex);
    const std::shared_ptr<ZELCall> call = d->posted.take(sync);
    lock.unlock();
    if (call)
        call->finish();
}

/// Nothing will run what is still on its way: its posters need not wait any longer.
void ZELThread::dropPosted()
{
    ZELCriticalSection section;
    std::unique_lock<std::mutex> lock(d->mutex);
    d->ended = true;
    const auto posted = std::exchange(d->posted, {});
    d->waiting = 0;
    lock.unlock();
    for (auto it = posted.begin(); it != posted.end(); ++it) {
        it.value()->finish();
        delete it.key();
    }
    delete std::exchange(d->failure, nullptr);
}

/// Busy, or about to be: a callback that was started sets the busy flag a little later.
bool ZELThread::isOccupied()
{
    return m_busy || m_callback;
}

/// Whether a task posted now would run at once, on an idle loop: behind another one it might wait for ever.
bool ZELThread::takesTasks()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->waiting == 0 && !isOccupied() && !isOver();
}

/// Not when it was started again: then tasks wait for the loop, as before the first start.
bool ZELThread::isOver()
{
    return d->ended && (d->begun || !isRunning());
}

void ZELThread::Invoke(std::function<void()> task)
{
    if (QThread::currentThread() == this)
        ZELSync(this).doSync(task);
    else
        post(task)->wait();
}

void ZELThread::BeginInvoke(std::function<void()> task)
{
    post(task);
}

ZELSync::ZELSync(ZELThread *thread)
    : m_thread(thread)
{
    moveToThread(thread);
}

ZELSync::ZELSync() = default;

ZELSync::~ZELSync() = default;

void ZELSync::setAutoDelete()
{
    m_autoDelete = true;
}

bool ZELSync::event(QEvent *event)
{
    ZEL_TSAN_ACQUIRE(this);
    if (m_thread && event->type() == QEvent::MetaCall)
        m_thread->awaitPost();
    return QObject::event(event);
}

void ZELSync::doSync(std::function<void()> task)
{
    if (task && m_thread)
        m_thread->runTask(this, task);
    else if (task)
        task();
    if (m_thread)
        m_thread->taskDone(this);
    if (m_autoDelete)
        deleteLater();
}
