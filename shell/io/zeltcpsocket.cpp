// SPDX-License-Identifier: MIT
#include "zeltcpsocket_p.h"

#include "zeleventdispatcher_p.h"
#include "zelsocketcalls_p.h"
#include "zelstream.h"
#include "zelthread.h"
#include "zeltsan_p.h"

#include <QDebug>
#include <QElapsedTimer>

#include <sys/socket.h>

namespace {

const int socketBufferSize = 64 * 1024;
const int closingTimeMs = 1000;
const int pauseMs = 10;

} // namespace

qint64 ZELLentDescriptor::send(const QByteArray &data)
{
    const Lock lock(m_mutex);
    return m_descriptor < 0 ? 0 : zelSendNow(m_descriptor, data);
}

bool ZELTcpSocketPrivate::advance(State to)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(mutex);
    if (state >= to)
        return false;
    state = to;
    return true;
}

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
    const bool valid = setSocketDescriptor(descriptor, ConnectedState, ReadWrite);
    notePeer();
    watchArrival();
    // The worker gets this last: from then on bytes are received and nothing may be missing. Without a worker it stays
    // here, where it can be destroyed.
    if (setUp(parent))
        startWorker();
    if (valid && d->advance(ZELTcpSocketPrivate::State::Open) && d->arrival)
        d->lent.lend(descriptor);
    if (isWorking()) {
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
    qRegisterMetaType<QAbstractSocket::SocketError>("QAbstractSocket::SocketError");
    qRegisterMetaType<QAbstractSocket::SocketState>("QAbstractSocket::SocketState");
    setReadBufferSize(socketBufferSize);
    d->thread = new ZELThread;
    d->thread->setLabel(QStringLiteral("ZELTcpSocket Work Thread"));
    d->stream = new ZELStream(this, true);
    connect(this, &QIODevice::readyRead, this, &ZELTcpSocket::receive, Qt::DirectConnection);
    connect(this, &QAbstractSocket::errorOccurred, this, &ZELTcpSocket::onError, Qt::DirectConnection);
    connect(this, &QAbstractSocket::stateChanged, this, &ZELTcpSocket::lendIfIdle, Qt::DirectConnection);
    connect(this, &QIODevice::bytesWritten, this, &ZELTcpSocket::lendIfIdle, Qt::DirectConnection);
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
    d->worker = ZELTcpSocketPrivate::Worker::Runs;
    d->thread->start(QThread::InheritPriority);
    if (!d->thread->isRunning() && !d->thread->isFinished())
        d->worker = ZELTcpSocketPrivate::Worker::None;
}

bool ZELTcpSocket::isWorking() const
{
    return d->worker != ZELTcpSocketPrivate::Worker::None;
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
    notePeer();
    watchArrival();
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(d->mutex);
        if (!d->isClosed())
            d->state = ZELTcpSocketPrivate::State::Open;
        ZEL_TSAN_RELEASE(this);
        // Not into a thread that has ended meanwhile: nobody could destroy it there.
        if (d->worker == ZELTcpSocketPrivate::Worker::Runs) {
            moveToThread(d->thread);
            QMetaObject::invokeMethod(this, "sendEarly", Qt::QueuedConnection);
        }
    }
    qDebug() << "ZELTcpSocket connected ip=" << peerAddress().toString() << " port=" << peerPort();
}

void ZELTcpSocket::write(QByteArray data)
{
    if (keepEarly(data))
        return;
    if (d->isClosed()) {
        qDebug() << "connect is already closed!";
        return;
    }
    sendEarly();
    send(data);
}

/// True while it connects: then its maker's thread has the socket, and this one must not touch it.
bool ZELTcpSocket::keepEarly(const QByteArray &data)
{
    for (;; zelPollOne(-1, 0, pauseMs)) {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(d->mutex);
        if (d->state != ZELTcpSocketPrivate::State::Connecting)
            return false;
        if (d->early.size() <= MaxUnsent || QThread::currentThread() == thread() || zelStopWanted()) {
            d->early += data;
            return true;
        }
    }
}

void ZELTcpSocket::sendEarly()
{
    QByteArray early;
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(d->mutex);
        if (!d->isOpen())
            return;
        early = std::exchange(d->early, QByteArray());
    }
    send(early);
}

void ZELTcpSocket::send(const QByteArray &data)
{
    d->lent.takeBack();
    // What the kernel takes at once need not go through Qt's buffer, which keeps 16 kB for each connection.
    const qint64 sent = bytesToWrite() > 0 || data.isEmpty() ? 0 : zelSendNow(socketDescriptor(), data);
    if (sent < data.size()) {
        QIODevice::write(data.constData() + sent, data.size() - sent);
        flush();
        waitForRoom();
    }
    lendIfIdle();
}

qint64 ZELTcpSocket::writeNow(const QByteArray &data)
{
    return d->lent.send(data);
}

/// Called whenever that may have changed.
void ZELTcpSocket::lendIfIdle()
{
    const bool idle = d->arrival && state() == ConnectedState && bytesToWrite() == 0;
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex); // beginClose() comes before or after
    d->lent.lend(idle && d->isOpen() && d->early.isEmpty() ? d->descriptor.load() : -1);
}

void ZELTcpSocket::write(QString text)
{
    write(text.toLatin1());
}

void ZELTcpSocket::waitForRoom()
{
    while (bytesToWrite() > MaxUnsent && !d->isClosed() && state() == ConnectedState && !zelStopWanted()) {
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
    if (!d->advance(ZELTcpSocketPrivate::State::Closing))
        return false;
    d->lent.takeBack();
    d->arrived.postOne();
    callCloseHook();
    return true;
}

void ZELTcpSocket::closeSoon()
{
    beginClose();
    // Under the lock, as in release().
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    d->thread->quit();
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
    if (thread() != QThread::currentThread())
        return;
    beginClose();
    if (!d->advance(ZELTcpSocketPrivate::State::Down))
        return;
    disconnect(this, &QIODevice::readyRead, this, &ZELTcpSocket::receive);
    disconnect(this, &QAbstractSocket::errorOccurred, this, &ZELTcpSocket::onError);
    disconnect(d->onDisconnected);
    if (!d->early.isEmpty() && state() != ConnectedState)
        qDebug() << "connect is already closed!";
    // Without a worker nothing was ever sent, and the thread that accepts must not wait for the peer.
    if (state() == ConnectedState && QThread::currentThread() == d->thread)
        sendRest();
    if (!d->told) {
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
    QIODevice::write(d->early); // closed as soon as it was connected
    while (bytesToWrite() > 0 && state() == ConnectedState && timer.elapsed() < closingTimeMs) {
        zelPollOne(fd, POLLOUT, closingTimeMs - int(timer.elapsed()));
        flush();
    }
    if (state() == ConnectedState && shutdown(int(fd), SHUT_WR) == 0)
        zelDrain(fd, closingTimeMs - int(timer.elapsed()));
}

void ZELTcpSocket::notice()
{
    if (!d->told.exchange(true))
        Q_EMIT sockDisConnect(int(d->descriptor), peerAddress().toString(), peerPort(), QThread::currentThread());
}

bool ZELTcpSocket::hasEnded() const
{
    return d->told;
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
    if (d->worker != ZELTcpSocketPrivate::Worker::Over)
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
        over = d->worker != ZELTcpSocketPrivate::Worker::Runs;
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
        d->worker = ZELTcpSocketPrivate::Worker::Over;
        last = d->released;
    }
    if (last)
        deleteLater();
}

bool ZELTcpSocket::readValid() const
{
    return d->isOpen();
}

bool ZELTcpSocket::writeValid() const
{
    return d->isOpen();
}

ZELStream *ZELTcpSocket::GetStream()
{
    return d->stream;
}
