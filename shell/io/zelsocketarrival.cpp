// SPDX-License-Identifier: MIT
// The half of ZELTcpSocket that receives; apart, since it relies on what QTcpSocket does inside:
//
// - the socket has one QSocketNotifier of type Read as its child while it is connected, and reads when that gets a
//   SockAct event. If Qt stops to make one, arrival stays null and receive() takes all from Qt's buffer, at 16 kB more
//   for each connection. tst_zeltcpsocket's test of the memory of a connection then says so.
// - abort() after errorOccurred() is all that Qt does at the end of a peer. If Qt comes to do more, endOfPeer() has to
//   do it as well; blockedReaderIsLetGo() compares the signals of both ways.
// - an error of a read or write closes the descriptor before errorOccurred() tells of it. So the descriptor is taken
//   back from the threads that send by themselves before Qt is let at it: here, in write(), and when its state changes.
#include "zelsocketcalls_p.h"
#include "zeltcpsocket_p.h"
#include "zeltsan_p.h"

#include <QCoreApplication>
#include <QEvent>

#include <algorithm>
#include <cerrno>

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
        if (count < 0 && (error == EAGAIN || error == EINTR))
            return true;
    }
    if (count < 0) {
        d->lent.takeBack();
        return false;
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
    if (d->state == ZELTcpSocketPrivate::State::Down)
        return;
    if (d->arrival)
        d->arrival->setEnabled(true);
    receive();
}

void ZELTcpSocket::receive()
{
    if (d->state == ZELTcpSocketPrivate::State::Down || bytesAvailable() == 0)
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
            if (d->paused && d->worker != ZELTcpSocketPrivate::Worker::Over)
                QMetaObject::invokeMethod(this, "readOn", Qt::QueuedConnection);
            d->paused = false;
            if (!d->received.isEmpty())
                return std::exchange(d->received, QByteArray());
            if (d->isClosed()) {
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
            if (!d->received.isEmpty() || d->isClosed())
                return true;
        }
        zelSafePoint();
        if (!d->arrived.waitUntil(deadline))
            return false;
    }
}
