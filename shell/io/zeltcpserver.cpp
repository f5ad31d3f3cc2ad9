// SPDX-License-Identifier: MIT
#include "zeltcpserver.h"

#include "zeladmission_p.h"
#include "zelguard_p.h"
#include "zeliodevice_p.h"
#include "zelstream.h"
#include "zeltcpsocket.h"
#include "zelthread.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QTimer>

#include <algorithm>
#include <fcntl.h>
#include <malloc.h>
#include <mutex>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const int backlog = 4096;
const int spareDescriptors = 16; ///< left for the commands and the host
const int descriptorsPerClient = 2;
const int spareMappings = 2048; ///< left for everything that allocates
const int mappingsPerClient = 6; ///< two thread stacks with their guards, and some
const int retryMs = 200;
const int largeBlock = 256 * 1024; ///< is mapped, and given back, by itself
const int acceptedInARow = 16;
const int restMs = 2000; ///< in which the sessions of the last clients end
const int rests = 3; ///< their jobs may need some more

int mappingsInUse()
{
    QFile maps(QStringLiteral("/proc/self/maps"));
    if (!maps.open(QIODevice::ReadOnly))
        return 0;
    int lines = 0;
    for (QByteArray part = maps.read(65536); !part.isEmpty(); part = maps.read(65536))
        lines += part.count('\n');
    return lines;
}

int mappingLimit()
{
    QFile limit(QStringLiteral("/proc/sys/vm/max_map_count"));
    return limit.open(QIODevice::ReadOnly) ? limit.readAll().trimmed().toInt() : 65530;
}

bool copiesFit(int descriptor)
{
    int copies[spareDescriptors];
    int count = 0;
    while (count < spareDescriptors && (copies[count] = fcntl(descriptor, F_DUPFD_CLOEXEC, 0)) >= 0)
        ++count;
    std::for_each(copies, copies + count, close);
    return count == spareDescriptors;
}

/// Trying takes as many system calls as descriptors are wanted, so it is left out while the clients use less than half.
bool descriptorsLeft(int descriptor, int clients)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const bool plenty = rlim_t(2 * descriptorsPerClient * clients + 256) < limit.rlim_cur;
    return plenty || copiesFit(descriptor);
}

/// How many more clients the kernel's mappings are good for. Counting them takes milliseconds when there are many, so
/// it is done once for a batch of clients, and not again at once when there is no room.
class MappingBudget
{
public:
    bool take()
    {
        if (m_left == 0 && (!m_full.isValid() || m_full.hasExpired(retryMs))) {
            m_left = qBound(0, (mappingLimit() - mappingsInUse() - spareMappings) / mappingsPerClient, 1000);
            m_full.invalidate();
            if (m_left == 0)
                m_full.start();
        }
        return m_left > 0 && m_left--;
    }

private:
    int m_left = 0;
    QElapsedTimer m_full; ///< since the last count found no room
};

} // namespace

class ZELTcpServerPrivate
{
public:
    struct Client
    {
        ZELLife<ZELIODevice>::Ref socket;
        quint64 serial = 0; ///< tells it from another client that got the same descriptor later
    };
    QHash<int, Client> clients;
    quint64 nextSerial = 0;
    MappingBudget mappings;
    int maxConnections = 0;
    std::shared_ptr<ZELAdmission> admission;
    int acceptedNow = 0; ///< since the event loop had its turn
    int mostClients = 0; ///< at a time, since memory was given back
    int restsLeft = 0;
    bool resting = false; ///< memory is about to be given back
    ZELTcpServer::Callback accepted;
    ZELTcpServer::Callback connected;
};

ZELTcpServer::ZELTcpServer(QObject *parent, int maxConnections)
    : QTcpServer(parent)
    , d(new ZELTcpServerPrivate)
{
    qRegisterMetaType<QAbstractSocket::SocketError>("QAbstractSocket::SocketError");
    setMaxPendingConnections(maxConnections);
    // Accepting stops when a descriptor cannot be had; nobody but us would resume it.
    connect(this, &QTcpServer::acceptError, this, [this] { QTimer::singleShot(retryMs, this, &ZELTcpServer::resume); });
    // Not to the sockets: Qt may still be posting to one whose thread has ended meanwhile.
    connect(this, &ZELTcpServer::sentDisConnect, this, &ZELTcpServer::closeSockets, Qt::DirectConnection);
}

ZELTcpServer::~ZELTcpServer()
{
    if (d->admission)
        d->admission->setResume(nullptr);
    close();
    clear();
}

void ZELTcpServer::setMaxPendingConnections(int count)
{
    d->maxConnections = count;
    QTcpServer::setMaxPendingConnections(std::max(1, count)); // with 0 Qt accepts nobody
}

int ZELTcpServer::maxPendingConnections() const
{
    return d->maxConnections; // Qt's own value changes while clients are accepted
}

/// From then on nobody is accepted while it has no room.
void ZELTcpServer::holdBackBy(const std::shared_ptr<ZELAdmission> &admission)
{
    d->admission = admission;
    admission->setResume([this] { QMetaObject::invokeMethod(this, "resume", Qt::QueuedConnection); });
}

/// Qt accepts until nobody is waiting. While one client after the other comes, the thread would do nothing else: the
/// sessions that have ended would stay in memory, and the host's timers would wait.
void ZELTcpServer::giveWay()
{
    if (++d->acceptedNow != acceptedInARow)
        return;
    QTcpServer::setMaxPendingConnections(0); // ends Qt's loop
    QMetaObject::invokeMethod(this, &ZELTcpServer::resume, Qt::QueuedConnection);
}

void ZELTcpServer::resume()
{
    if (d->admission && !d->admission->hasRoom())
        return;
    d->acceptedNow = 0;
    setMaxPendingConnections(d->maxConnections);
    if (isListening())
        resumeAccepting();
}

/// The allocator raises its thresholds to the largest line that it has seen, and then keeps such lines in the heap of
/// every thread for ever. Not when the host's surroundings have told it what to do.
static void keepAllocatorThrifty()
{
    static std::once_flag once;
    std::call_once(once, [] {
        const bool isTold = qEnvironmentVariableIsSet("MALLOC_TRIM_THRESHOLD_")
            || qEnvironmentVariableIsSet("MALLOC_MMAP_THRESHOLD_") || qgetenv("GLIBC_TUNABLES").contains("malloc");
        if (isTold)
            return;
        mallopt(M_MMAP_THRESHOLD, largeBlock);
        mallopt(M_TRIM_THRESHOLD, largeBlock);
    });
}

bool ZELTcpServer::listen(const QHostAddress &address, quint16 port)
{
    if (!QTcpServer::listen(address, port))
        return false;
    keepAllocatorThrifty();
    // Qt's own backlog of 50 lets the kernel drop connects of a burst, which are tried again only after a second.
    ::listen(int(socketDescriptor()), backlog);
    return true;
}

void ZELTcpServer::setAcceptedCallback(Callback callback)
{
    d->accepted = std::move(callback);
}

void ZELTcpServer::setConnectCallback(Callback callback)
{
    d->connected = std::move(callback);
}

int ZELTcpServer::clientCount() const
{
    return d->clients.size();
}

void ZELTcpServer::clear()
{
    Q_EMIT sentDisConnect(-1);
    d->clients.clear();
    giveMemoryBack();
}

void ZELTcpServer::closeSockets(int descriptor)
{
    for (const auto &client : qAsConst(d->clients))
        if (auto use = client.socket.use())
            static_cast<ZELTcpSocket *>(use.get())->postClose(descriptor);
}

void ZELTcpServer::sockDisConnectSlot(int handle, const QString &ip, quint16 port)
{
    if (!d->clients.remove(handle))
        return;
    giveMemoryBack();
    Q_EMIT sockDisConnect(handle, ip, port);
}

/// When most clients have gone: the allocator keeps what their sessions and lines took, which a board needs elsewhere.
/// In a thread of its own, since it takes tens of milliseconds after many.
void ZELTcpServer::giveMemoryBack()
{
    if (d->clients.size() > d->mostClients / 8)
        return;
    d->mostClients = d->clients.size();
    d->restsLeft = rests;
    if (!std::exchange(d->resting, true))
        QTimer::singleShot(restMs, this, &ZELTcpServer::trim);
}

void ZELTcpServer::trim()
{
    ZELThread::run(
        [](ZELThreadInfo *) {
            ZELCriticalSection section;
            malloc_trim(0);
        },
        QVariant(), true);
    d->resting = --d->restsLeft > 0;
    if (d->resting)
        QTimer::singleShot(restMs, this, &ZELTcpServer::trim);
}

void ZELTcpServer::incomingConnection(qintptr descriptor)
{
    giveWay();
    const bool room = d->clients.size() <= d->maxConnections && descriptorsLeft(int(descriptor), d->clients.size())
        && d->mappings.take();
    if (!room)
        return refuse(descriptor);
    if (!d->connected) {
        qWarning("ZELTcpServer::incomingConnection: no connect callback");
        return refuse(descriptor);
    }
    auto *socket = new ZELTcpSocket(descriptor, nullptr);
    if (socket->isWorking()) {
        welcome(socket, int(descriptor));
    } else {
        refuse(-1);
        delete socket;
    }
    if (d->admission && !d->admission->hasRoom())
        QTcpServer::setMaxPendingConnections(0); // ends Qt's loop, until there is
}

void ZELTcpServer::refuse(qintptr descriptor)
{
    qDebug() << "RPC connections use out, current client size=[" << d->clients.size() << "] maxPendingConnections=["
             << d->maxConnections << "]";
    if (descriptor < 0)
        return;
    QTcpSocket socket;
    socket.setSocketDescriptor(descriptor, QAbstractSocket::ConnectedState, QIODevice::ReadWrite);
    socket.disconnectFromHost();
}

void ZELTcpServer::welcome(ZELTcpSocket *socket, int descriptor)
{
    qDebug() << "TcpSocket Connected,"
             << "name:" << socket->peerName() << "ip:" << socket->peerAddress().toString()
             << "port:" << socket->peerPort();
    const quint64 serial = ++d->nextSerial;
    d->clients.insert(descriptor, {ZELIODevicePrivate::ref(*socket), serial});
    d->mostClients = std::max(d->mostClients, d->clients.size());
    connect(socket, &ZELTcpSocket::sockDisConnect, this, [this, serial](int handle, const QString &ip, quint16 port) {
        // It may come when the kernel has given the number to the next client already.
        if (d->clients.value(handle).serial == serial)
            sockDisConnectSlot(handle, ip, port);
    });
    if (socket->hasEnded()) // before the signal was connected
        sockDisConnectSlot(descriptor, socket->peerAddress().toString(), socket->peerPort());
    d->connected(QPointer<ZELStream>(socket->GetStream()));
}
