// SPDX-License-Identifier: MIT
#include "zelstream_p.h"

#include "zelguard_p.h"
#include "zeliodevice_p.h"
#include "zelsemaphore_p.h"
#include "zeltsan_p.h"

#include <QDebug>
#include <QMetaMethod>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <deque>
#include <mutex>

class ZELStreamPrivate;

namespace {
struct Job
{
    explicit Job(const QByteArray &data)
        : bytes(data)
    {
    }
    explicit Job(const QString &data)
        : text(data)
        , isText(true)
    {
    }
    void settle(int end)
    {
        state = end;
        settled.post();
    }
    QByteArray bytes;
    QString text;
    bool isText = false;
    enum { Waiting, Written, LetGo };
    std::atomic<int> state{Waiting};
    ZELSemaphore settled; ///< posted when the state changes
};

const QByteArray &bytesOf(const QByteArray &data)
{
    return data;
}

QByteArray bytesOf(const QString &data)
{
    return data.toLatin1();
}

// False when the device closed or its thread ended before the job was done. A slow peer does not keep a thread that
// is to be stopped: it leaves the job behind, to be done in its turn.
bool waitFor(Job &job)
{
    while (job.state == Job::Waiting) {
        if (!zelWaitInterruptibly(job.settled))
            return true;
    }
    return job.state == Job::Written;
}

const int shortWrite = 4096;
/// A job that was handed over by this thread and not waited for.
thread_local std::shared_ptr<Job> behind;
thread_local std::shared_ptr<ZELStreamPrivate> behindOf;
} // namespace

thread_local bool ZELWriteBehind::s_enabled = false;
thread_local bool ZELWriteBehind::s_may = false;

// Shared with the device's hooks and the end of the device's thread, which may come after the stream.
class ZELStreamPrivate
{
public:
    void bind(ZELStream *q, const std::shared_ptr<ZELStreamPrivate> &self);
    void followThread(ZELStream *q, QThread *thread, const std::shared_ptr<ZELStreamPrivate> &self);
    void end(std::atomic<bool> ZELStreamPrivate::*reason);
    bool waitsForThread(const ZELStream *q) const;
    template <class Data>
    bool hand(ZELStream *q, const Data &data, std::shared_ptr<Job> &job);
    qint64 sendNow(ZELStream *q, const QByteArray &data);
    std::shared_ptr<Job> takeJob();
    void settle(const std::shared_ptr<Job> &job);
    template <class Data>
    void write(ZELStream *q, const std::shared_ptr<ZELStreamPrivate> &self, const Data &data);
    template <class Data>
    bool tryWrite(ZELStream *q, const std::shared_ptr<ZELStreamPrivate> &self, const Data &data);
    template <class Data>
    void logDropped(const Data &data);
    void logEnd();
    template <class Data>
    void pass(ZELStream *q, const std::shared_ptr<ZELStreamPrivate> &self, const Data &data, const QByteArray &bytes);
    template <class Data>
    void writeToDevice(const Data &data);

    ZELIODevice *device = nullptr;
    ZELLife<ZELIODevice>::Ref deviceRef;
    std::shared_ptr<ZELIODevicePrivate> deviceState;
    QThread *worker = nullptr; ///< where writes are carried to; compared only, it may be gone
    QMetaObject::Connection threadEnd;

    std::mutex mutex; ///< guards the rest
    std::deque<std::shared_ptr<Job>> jobs;
    std::shared_ptr<Job> writing; ///< taken from the jobs and not settled
    bool posted = false; ///< writeQueued() is under way to the device's thread
    std::atomic<bool> closed{false}; ///< set under the mutex
    std::atomic<bool> threadEnded{false};
    std::atomic<quint64> dropped{0}; ///< writes, of which the first was logged
};

void ZELWriteBehind::finish()
{
    ZELCriticalSection section;
    s_may = false; // a fault may have jumped over the end of the permission
    const auto job = std::exchange(behind, nullptr);
    const auto stream = std::exchange(behindOf, nullptr);
    if (!job || waitFor(*job))
        return;
    if (job->isText)
        stream->logDropped(job->text);
    else
        stream->logDropped(job->bytes);
}

// One line for each stream: a command that goes on writing would fill the disk with them.
template <class Data>
void ZELStreamPrivate::logDropped(const Data &data)
{
    if (dropped++ == 0)
        qDebug() << "Stream is closed,"
                 << "Out [" << data << "]";
}

void ZELStreamPrivate::logEnd()
{
    if (dropped > 1)
        qDebug() << "Stream is closed," << dropped - 1 << "more writes were dropped";
}

void ZELStreamPrivate::bind(ZELStream *q, const std::shared_ptr<ZELStreamPrivate> &self)
{
    const auto ref = ZELAbstractStreamPrivate::ref(q);
    device->setReadyReadHook([ref] {
        if (auto use = ref.use()) {
            ZEL_TSAN_ACQUIRE(use.get());
            Q_EMIT use->readyRead();
        }
    });
    device->setCloseHook([ref, self] {
        self->end(&ZELStreamPrivate::closed);
        if (auto use = ref.use()) {
            ZEL_TSAN_ACQUIRE(use.get());
            Q_EMIT static_cast<ZELStream *>(use.get())->DeviceClose();
        }
    });
}

void ZELStreamPrivate::followThread(ZELStream *q, QThread *thread, const std::shared_ptr<ZELStreamPrivate> &self)
{
    worker = thread;
    // Emitted by the thread itself after its last event: nothing that is queued now would ever be written.
    const auto ended = [self] { self->end(&ZELStreamPrivate::threadEnded); };
    threadEnd = QObject::connect(thread, &QThread::finished, ended);
    q->moveToThread(thread);
    if (thread->isFinished())
        ended();
}

void ZELStreamPrivate::end(std::atomic<bool> ZELStreamPrivate::*reason)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(mutex);
    this->*reason = true;
    if (writing)
        jobs.push_back(std::move(writing));
    for (const auto &job : jobs)
        job->settle(Job::LetGo);
    jobs.clear();
}

bool ZELStreamPrivate::waitsForThread(const ZELStream *q) const
{
    const QThread *current = QThread::currentThread();
    return worker && current != worker && current != q->thread();
}

// False when the device closed or its thread ended before. No job when the device took everything at once.
template <class Data>
bool ZELStreamPrivate::hand(ZELStream *q, const Data &data, std::shared_ptr<Job> &job)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (closed || threadEnded)
        return false;
    const auto &bytes = bytesOf(data);
    const qint64 sent = sendNow(q, bytes);
    if (sent == bytes.size())
        return true;
    job = sent > 0 ? std::make_shared<Job>(bytes.mid(int(sent))) : std::make_shared<Job>(data);
    jobs.push_back(job);
    // Posted under the lock that the end of the thread takes: its dispatcher must still be there.
    if (!std::exchange(posted, true))
        QMetaObject::invokeMethod(q, &ZELStream::writeQueued, Qt::QueuedConnection);
    return true;
}

/// Under the lock, which keeps the order of the writes and the device's bytes together: the device does not wait here.
qint64 ZELStreamPrivate::sendNow(ZELStream *q, const QByteArray &data)
{
    if (!jobs.empty() || writing || q->isListenedTo())
        return 0;
    const auto use = deviceRef.use();
    const qint64 sent = use ? use->writeNow(data) : 0;
    if (sent == data.size())
        ++*ZELAbstractStreamPrivate::get(q)->writeCount;
    return sent;
}

std::shared_ptr<Job> ZELStreamPrivate::takeJob()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(mutex);
    if (jobs.empty()) {
        posted = false;
        return nullptr;
    }
    writing = std::move(jobs.front());
    jobs.pop_front();
    return writing;
}

void ZELStreamPrivate::settle(const std::shared_ptr<Job> &job)
{
    ZELCriticalSection section;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (writing != job) // its writer was let go
            return;
        writing.reset();
    }
    job->settle(Job::Written); // without the lock, which the writer's next job would run into
}

template <class Data>
void ZELStreamPrivate::write(ZELStream *q, const std::shared_ptr<ZELStreamPrivate> &self, const Data &data)
{
    if (data.isEmpty())
        return;
    if (tryWrite(q, self, data))
        return;
    logDropped(data);
    if (const auto hook = ZELAbstractStreamPrivate::get(q)->dropHook)
        (*hook)();
}

// False when it was dropped.
template <class Data>
bool ZELStreamPrivate::tryWrite(ZELStream *q, const std::shared_ptr<ZELStreamPrivate> &self, const Data &data)
{
    // A kill between handing over and being told would leave the writer's place in the wait behind.
    ZELCriticalSection section;
    if (closed)
        return false;
    if (!waitsForThread(q)) {
        q->write_(data);
        return true;
    }
    std::shared_ptr<Job> job;
    if (!hand(q, data, job))
        return false;
    if (!job)
        return true;
    if (!ZELWriteBehind::s_may || behind || data.size() > shortWrite)
        return waitFor(*job);
    behind = job;
    behindOf = self;
    return true;
}

// The thread that carries out the writes of others cannot wait for them.
template <class Data>
void ZELStreamPrivate::pass(
    ZELStream *q, const std::shared_ptr<ZELStreamPrivate> &self, const Data &data, const QByteArray &bytes)
{
    ZELAbstractStreamPrivate::gateOf(*q).pass(bytes, !worker || waitsForThread(q),
        [&](const QByteArray *composed) { composed ? write(q, self, *composed) : write(q, self, data); });
}

template <class Data>
void ZELStreamPrivate::writeToDevice(const Data &data)
{
    ZELCriticalSection section;
    if (auto use = deviceRef.use())
        use->write(data);
}

ZELAbstractStream::ZELAbstractStream(QObject *parent)
    : QObject(parent)
    , d(new ZELAbstractStreamPrivate(this))
{
}

ZELAbstractStream::~ZELAbstractStream()
{
    endLife();
}

void ZELAbstractStream::endLife()
{
    ZELCriticalSection section;
    d->life.end();
}

ZELStream::ZELStream(ZELIODevice *device, bool crossThread)
    : d(std::make_shared<ZELStreamPrivate>())
{
    bool bound = false;
    if (device) {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(device->d->mutex);
        bound = !device->d->stream;
        if (bound)
            device->d->stream = this;
    }
    if (!bound) {
        if (device)
            qDebug() << "IODevice is olready binded!";
        else
            qWarning("ZELStream: no device");
        d->end(&ZELStreamPrivate::closed);
        deleteLater();
        return;
    }
    d->device = device;
    d->deviceState = device->d;
    d->deviceRef = device->d->life.ref();
    if (QThread *thread = device->innerThread())
        crossThread ? d->followThread(this, thread, d) : moveToThread(thread);
    d->bind(this, d);
}

ZELStream::~ZELStream()
{
    // First let go whoever waits for this very thread to write.
    d->end(&ZELStreamPrivate::closed);
    endLife();
    disconnect(d->threadEnd);
    d->logEnd();
    if (!d->deviceState)
        return;
    d->deviceState->set(&ZELIODevicePrivate::readyReadHook, {});
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->deviceState->mutex);
    d->deviceState->stream = nullptr;
}

QByteArray ZELStream::readAll()
{
    return IsOpen() ? d->device->readAll() : QByteArray();
}

void ZELStream::write(QByteArray data)
{
    if (ZELAbstractStreamPrivate::gateOf(*this).isUsed())
        d->pass(this, d, data, data);
    else
        d->write(this, d, data);
}

void ZELStream::write(QString data)
{
    if (ZELAbstractStreamPrivate::gateOf(*this).isUsed())
        d->pass(this, d, data, data.toLatin1());
    else
        d->write(this, d, data);
}

bool ZELStream::IsOpen()
{
    ZELCriticalSection section;
    return !d->closed && d->deviceRef.peek();
}

ZELIODevice *ZELStream::getDevice()
{
    return d->device;
}

void ZELStream::write_(QByteArray data)
{
    d->writeToDevice(data);
    ++*ZELAbstractStreamPrivate::get(this)->writeCount;
    Q_EMIT OnDataWrited(data);
}

void ZELStream::write_(QString data)
{
    d->writeToDevice(data);
    ++*ZELAbstractStreamPrivate::get(this)->writeCount;
    Q_EMIT OnDataWrited(data);
}

bool ZELStream::isListenedTo() const
{
    static const QMetaMethod text = QMetaMethod::fromSignal(QOverload<QString>::of(&ZELStream::OnDataWrited));
    static const QMetaMethod bytes = QMetaMethod::fromSignal(QOverload<QByteArray>::of(&ZELStream::OnDataWrited));
    return isSignalConnected(text) || isSignalConnected(bytes);
}

void ZELStream::writeQueued()
{
    // The hooks share d; a receiver of OnDataWrited() may delete this stream.
    const auto shared = d;
    const auto ref = ZELAbstractStreamPrivate::ref(this);
    while (const auto job = shared->takeJob()) {
        if (job->isText)
            write_(job->text);
        else
            write_(job->bytes);
        shared->settle(job);
        if (!ref.peek())
            return;
    }
}
