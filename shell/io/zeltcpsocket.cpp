// SPDX-License-Identifier: MIT
#include "zeltcpsocket.h"

#include "zeleventdispatcher_p.h"
#include "zelguard_p.h"
#include "zelsemaphore_p.h"
#include "zelsocketcalls_p.h"
#include "zelstream.h"
#include "zelthread.h"
#include "zeltsan_p.h"

#include <QCoreApplication>
#include <QDebug>
#include <QElapsedTimer>
#include <QEvent>
#include <QPointer>
#include <QSocketNotifier>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <sys/socket.h>

namespace {

const int socketBufferSize = 64 * 1024;
const int closingTimeMs = 1000;

} // namespace

class ZELTcpSocketPrivate
{
public:
    std::atomic<qintptr> descriptor{-1};
    ZELThread *thread = nullptr;
    ZELStream *stream = nullptr;
    QMetaObject::Connection onDisconnected;
    QPointer<QSocketNotifier> arrival; ///< Qt's own, whose events takeArrived() sees first
    bool working = false;
    bool down = false; ///< closeDown() has run; the socket's thread only
    std::atomic<bool> noticed{false}; ///< sockDisConnect() was emitted
    std::atomic<bool> valid{false};
    std::atomic<bool> closed{false};

    ZELSemaphore arrived; ///< posted when the mutex was let go, so that the reader need not wait for it
    mutable std::mutex mutex; ///< guards the rest
    QByteArray received;
    bool paused = false; ///< receive() left bytes behind for want of room
    bool ended = false; ///< the worker takes no more events
    bool released = false;
    QHostAddress peerAddress;
    QString peerName;
    quint16 peerPort = 0;
};

ZELTcpSocket::ZELTcpSocket(QString host, quint16 port, QObject *parent)
    : d(new ZELTcpSocketPrivate)
{
    connect(this, &QAbstractSocket::connected, this, &ZELTcpSocket::onConnected, Qt::DirectConnection);
    if (setUp(parent))
        startWorker();
    connectToHost(host, port, ReadWrite, AnyIPProtocol);
    Start();
}

ZELTcpSocket::ZELTcpSocket(qintptr descriptor, QObject *parent)
    : d(new ZELTcpSocketPrivate)
{
    d->descriptor = descriptor;
    d->valid = setSocketDescriptor(descriptor, ConnectedState, ReadWrite);
    notePeer();
    watchArrival();
    // The worker gets this last: from then on bytes are received and nothing may be missing. Without a worker it stays
    // here, where it can be destroyed.
    if (setUp(parent))
        startWorker();
    if (d->working) {
        ZEL_TSAN_RELEASE(this);
        moveToThread(d->thread);
    }
    Start();
}

ZELTcpSocket::~ZELTcpSocket()
{
    beginClose(); // first of all: lets go a write that waits for the peer
    endLife();
    const bool inWorker = QThread::currentThread() == d->thread;
    end();
    if (inWorker)
        closeDown();
    delete d->stream;
    if (QThread::currentThread() == d->thread->thread())
        delete d->thread;
    else
        d->thread->deleteLater();
}

// False when there is no descriptor left for the worker.
bool ZELTcpSocket::setUp(QObject *parent)
{
    setReadBufferSize(socketBufferSize);
    d->thread = new ZELThread;
    d->thread->setLabel(QStringLiteral("ZELTcpSocket Work Thread"));
    d->stream = new ZELStream(this, true);
    connect(this, &QIODevice::readyRead, this, &ZELTcpSocket::receive, Qt::DirectConnection);
    connect(this, &QAbstractSocket::errorOccurred, this, &ZELTcpSocket::onError, Qt::DirectConnection);
    d->onDisconnected
        = connect(this, &QAbstractSocket::disconnected, this, &ZELTcpSocket::onDisconnected, Qt::DirectConnection);
    if (parent)
        connect(
            parent, &QObject::destroyed, this, [this] { release(); }, Qt::DirectConnection);
    connect(d->thread, &QThread::finished, this, &ZELTcpSocket::workerEnded, Qt::DirectConnection);
    // Taken here, where running out can still be told.
    auto *dispatcher = dynamic_cast<ZELEventDispatcher *>(d->thread->eventDispatcher());
    return !dispatcher || dispatcher->takeDescriptor();
}

void ZELTcpSocket::startWorker()
{
    const QPointer<ZELTcpSocket> self(this);
    d->thread->setCallback([self](ZELThreadInfo *info) {
        info->exec();
        if (self)
            self->closeDown();
    });
    d->thread->start(QThread::InheritPriority);
    d->working = d->thread->isRunning();
}

bool ZELTcpSocket::isWorking() const
{
    return d->working;
}

void ZELTcpSocket::notePeer()
{
    setSocketOption(LowDelayOption, 1);
    setSocketOption(KeepAliveOption, 1);
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    d->peerAddress = QAbstractSocket::peerAddress();
    d->peerName = QAbstractSocket::peerName();
    d->peerPort = QAbstractSocket::peerPort();
}

QHostAddress ZELTcpSocket::peerAddress() const
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->peerAddress;
}

quint16 ZELTcpSocket::peerPort() const
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->peerPort;
}

QString ZELTcpSocket::peerName() const
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->peerName;
}

void ZELTcpSocket::onConnected()
{
    d->descriptor = socketDescriptor();
    d->valid = true;
    notePeer();
    watchArrival();
    {
        // Not into a thread that has ended meanwhile: nobody could destroy it there.
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(d->mutex);
        ZEL_TSAN_RELEASE(this);
        if (d->working && !d->ended)
            moveToThread(d->thread);
    }
    qDebug() << "ZELTcpSocket connected ip=" << peerAddress().toString() << " port=" << peerPort();
}

/// Looks at what arrives before Qt does, whose buffer would keep 16 kB for each connection. Qt still finds the
/// errors of the connection; and where no notifier is found it reads as ever.
void ZELTcpSocket::watchArrival()
{
    const auto notifiers = findChildren<QSocketNotifier *>();
    for (QSocketNotifier *notifier : notifiers)
        if (notifier->type() == QSocketNotifier::Read)
            d->arrival = notifier;
    if (d->arrival)
        d->arrival->installEventFilter(this);
}

bool ZELTcpSocket::eventFilter(QObject *watched, QEvent *event)
{
    ZEL_TSAN_ACQUIRE(this);
    if (watched != d->arrival || event->type() != QEvent::SockAct || bytesAvailable() > 0)
        return QTcpSocket::eventFilter(watched, event);
    return takeArrived();
}

// False for an error.
bool ZELTcpSocket::takeArrived()
{
    ssize_t count = 0;
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(d->mutex);
        d->paused = d->received.size() >= MaxUnread;
        if (d->paused) {
            d->arrival->setEnabled(false);
            return true;
        }
        count = zelReceiveInto(int(d->descriptor), d->received, MaxUnread);
        const int error = errno;
        if (count < 0)
            return error == EAGAIN || error == EINTR;
    }
    if (count == 0)
        return endOfPeer();
    d->arrived.postOne();
    callReadyReadHook();
    return true;
}

/// What Qt does at the end of a connection, without the 16 kB that it first takes to read what is not there: sessions
/// that end together would have all of that at once.
bool ZELTcpSocket::endOfPeer()
{
    setSocketError(RemoteHostClosedError);
    setErrorString(QCoreApplication::translate("QNativeSocketEngine", "The remote host closed the connection"));
    Q_EMIT errorOccurred(RemoteHostClosedError);
    abort();
    return true;
}

void ZELTcpSocket::readOn()
{
    if (d->down)
        return;
    if (d->arrival)
        d->arrival->setEnabled(true);
    receive();
}

void ZELTcpSocket::receive()
{
    if (d->down || bytesAvailable() == 0)
        return;
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(d->mutex);
        // Not simply read(room): that would allocate all of it for every line.
        const qint64 room = MaxUnread - d->received.size();
        d->received += QIODevice::read(std::min(room, bytesAvailable()));
        d->paused = bytesAvailable() > 0;
    }
    d->arrived.postOne();
    callReadyReadHook();
}

bool ZELTcpSocket::takeByte(char byte)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    const int at = d->received.indexOf(byte);
    if (at >= 0)
        d->received.remove(at, 1);
    return at >= 0;
}

QByteArray ZELTcpSocket::readAll()
{
    for (;;) {
        {
            ZELCriticalSection section;
            std::lock_guard<std::mutex> lock(d->mutex);
            // Posted under the lock that the worker takes before it ends: its dispatcher must still be there. By its
            // name, since the race detector does not see Qt hand over a function object.
            if (d->paused && !d->ended)
                QMetaObject::invokeMethod(this, "readOn", Qt::QueuedConnection);
            d->paused = false;
            if (!d->received.isEmpty())
                return std::exchange(d->received, QByteArray());
            if (d->closed) {
                d->arrived.postOne(); // for the next one
                return QByteArray();
            }
        }
        zelSafePoint();
        d->arrived.wait();
    }
}

bool ZELTcpSocket::waitForInput(int ms)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        {
            ZELCriticalSection section;
            std::lock_guard<std::mutex> lock(d->mutex);
            if (!d->received.isEmpty() || d->closed)
                return true;
        }
        zelSafePoint();
        if (!d->arrived.waitUntil(deadline))
            return false;
    }
}

void ZELTcpSocket::write(QByteArray data)
{
    if (d->closed) {
        qDebug() << "connect is already closed!";
        return;
    }
    // What the kernel takes at once need not go through Qt's buffer, which keeps 16 kB for each connection.
    const qint64 sent = bytesToWrite() > 0 ? 0 : zelSendNow(socketDescriptor(), data);
    if (sent == data.size())
        return;
    QIODevice::write(data.constData() + sent, data.size() - sent);
    flush();
    waitForRoom();
}

void ZELTcpSocket::write(QString text)
{
    write(text.toLatin1());
}

void ZELTcpSocket::waitForRoom()
{
    while (bytesToWrite() > MaxUnsent && !d->closed && state() == ConnectedState && !zelStopWanted()) {
        zelPollOne(socketDescriptor(), POLLOUT, 100);
        flush();
    }
}

void ZELTcpSocket::Start()
{
    callStartHook();
}

bool ZELTcpSocket::beginClose()
{
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(d->mutex);
        if (d->closed.exchange(true))
            return false;
    }
    d->arrived.postOne();
    d->valid = false;
    callCloseHook();
    return true;
}

void ZELTcpSocket::Close()
{
    if (beginClose())
        end();
}

void ZELTcpSocket::end()
{
    if (thread() != d->thread && thread() == QThread::currentThread())
        closeDown();
    d->thread->quit();
    if (QThread::currentThread() == d->thread)
        return;
    ZELCriticalSection section; // QThread::wait() is not to be jumped out of; closing takes a second at most
    d->thread->wait();
}

void ZELTcpSocket::closeDown()
{
    if (thread() != QThread::currentThread() || std::exchange(d->down, true))
        return;
    disconnect(this, &QIODevice::readyRead, this, &ZELTcpSocket::receive);
    disconnect(this, &QAbstractSocket::errorOccurred, this, &ZELTcpSocket::onError);
    disconnect(d->onDisconnected);
    beginClose();
    // Without a worker nothing was ever sent, and the thread that accepts must not wait for the peer.
    if (state() == ConnectedState && QThread::currentThread() == d->thread)
        sendRest();
    if (!d->noticed) {
        qDebug() << "ZELTcpSocket disconnected ip=" << peerAddress().toString() << " port=" << peerPort();
        notice();
    }
    abort();
}

void ZELTcpSocket::sendRest()
{
    QElapsedTimer timer;
    timer.start();
    const qintptr fd = socketDescriptor();
    while (bytesToWrite() > 0 && state() == ConnectedState && timer.elapsed() < closingTimeMs) {
        zelPollOne(fd, POLLOUT, closingTimeMs - int(timer.elapsed()));
        flush();
    }
    if (state() == ConnectedState && shutdown(int(fd), SHUT_WR) == 0)
        zelDrain(fd, closingTimeMs - int(timer.elapsed()));
}

void ZELTcpSocket::notice()
{
    if (!d->noticed.exchange(true))
        Q_EMIT sockDisConnect(int(d->descriptor), peerAddress().toString(), peerPort(), QThread::currentThread());
}

bool ZELTcpSocket::hasEnded() const
{
    return d->noticed;
}

void ZELTcpSocket::onDisconnected()
{
    notice();
    qDebug() << "ZELTcpSocket disconnected ip=" << peerAddress().toString() << " port=" << peerPort();
    Close();
}

void ZELTcpSocket::onError(QAbstractSocket::SocketError error)
{
    if (error == RemoteHostClosedError) {
        qDebug() << "remote client closed ip=" << peerAddress().toString() << " port=" << peerPort();
    } else {
        qDebug() << "socket connection error. ip=" << peerAddress().toString() << " port=" << peerPort()
                 << " error=" << errorString() << " error type=" << error;
    }
    // For any error: a server would count the connection for ever otherwise.
    notice();
    disConTcp(-1);
}

void ZELTcpSocket::disConTcp(int descriptor)
{
    if (descriptor == -1)
        disconnect(d->onDisconnected);
    if (descriptor == -1 || descriptor == d->descriptor)
        Close();
}

/// Lets disConTcp() run in the worker, for any thread that holds a use of this device. Under the lock that the worker
/// takes before it ends: Qt wakes the dispatcher after it has posted, and the worker destroys that.
void ZELTcpSocket::postClose(int descriptor)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    if (!d->ended)
        QMetaObject::invokeMethod(this, "disConTcp", Qt::QueuedConnection, Q_ARG(int, descriptor));
}

QThread *ZELTcpSocket::innerThread()
{
    return d->thread;
}

void ZELTcpSocket::release()
{
    beginClose();
    bool over = false;
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(d->mutex);
        if (std::exchange(d->released, true))
            return;
        over = d->ended || !d->working;
        d->thread->quit(); // under the lock: it may be gone as soon as the worker sees that it was released
    }
    if (over)
        delete this;
}

void ZELTcpSocket::workerEnded()
{
    beginClose();
    closeDown();
    bool last = false;
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(d->mutex);
        d->ended = true;
        last = d->released;
    }
    if (last)
        deleteLater();
}

bool ZELTcpSocket::readValid() const
{
    return d->valid;
}

bool ZELTcpSocket::writeValid() const
{
    return d->valid;
}

ZELStream *ZELTcpSocket::GetStream()
{
    return d->stream;
}
