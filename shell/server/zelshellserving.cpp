// SPDX-License-Identifier: MIT
// The members of ZELShellServer that start and stop shells, all in the thread that made the server.
#include "zelshellserver_p.h"

#include "zeladmission_p.h"
#include "zelcatch.h"
#include "zelguard_p.h"
#include "zelshell_p.h"
#include "zelstream_p.h"
#include "zeltcpserver.h"
#include "zeltcpsocket.h"
#include "zelterminal_p.h"

#include <QDebug>
#include <QPair>
#include <QVector>
#include <unistd.h>

namespace {

const int connectTimeoutMs = 30000;
const int defaultConnectionLimit = 10000;

std::mutex serversMutex;

/// Those that live, by age. Never destroyed, as a server may be a static object.
QVector<QPair<ZELShellServer *, std::shared_ptr<ZELShellServerState>>> &servers()
{
    static auto *const all = new QVector<QPair<ZELShellServer *, std::shared_ptr<ZELShellServerState>>>;
    return *all;
}

void describe(ZELShell *shell, const ZELTcpSocket &socket)
{
    const QString address = socket.peerAddress().toString();
    shell->setConnectionDescription(QStringLiteral("Stream=TcpStream;PeerName=%1;PeerAddress=%2;PeerPort=%3;")
                                        .arg(socket.peerName(), address, QString::number(socket.peerPort())));
    shell->setShellName(QStringLiteral("TcpStream_%1").arg(address));
}

} // namespace

ZELShellServer *ZELShellServer::seft = nullptr;

ZELShellServerPrivate::ZELShellServerPrivate()
    : admission(std::make_shared<ZELAdmission>())
    , tcpServer(new ZELTcpServer(nullptr, defaultConnectionLimit))
{
    tcpServer->holdBackBy(admission);
}

ZELShellServerPrivate::~ZELShellServerPrivate()
{
    delete outgoing;
}

void ZELShellServerPrivate::configure(ZELShell *shell, bool remote) const
{
    const auto settings = state->settings();
    shell->setInterruptible(settings->interruptible);
    shell->setUtf8Editing(settings->utf8Editing);
    auto *session = ZELShellPrivate::get(shell);
    session->modernEditing = settings->editing != ZELShellServer::Plain;
    session->needsTerminal = settings->editing == ZELShellServer::ModernIfTold;
    session->setText(&ZELShellPrivate::cachePath, cachePathNow());
    if (!remote)
        return;
    shell->setLineLimit(settings->lineLimit);
    shell->setIdleLimit(settings->idleLimit);
    const ZELServerLock locked(mutex);
    shell->setDatabase(database);
}

QString ZELShellServerPrivate::cachePathNow() const
{
    const ZELServerLock locked(mutex);
    return cachePath;
}

void ZELShellServerPrivate::closeOutgoing()
{
    if (const auto stream = std::exchange(served, {}).use())
        static_cast<ZELStream *>(stream.get())->getDevice()->Close();
    delete std::exchange(outgoing, nullptr);
}

void ZELShellServerPrivate::replaceStoppedShell()
{
    if (!std::exchange(stoppedShell, nullptr))
        return;
    *mainIsReplaced = true;
    zelAbandonDescriptor(*mainDevice);
}

ZELShellServer::ZELShellServer(QObject *parent)
    : QObject(parent)
    , d(new ZELShellServerPrivate)
{
    qRegisterMetaType<QPointer<ZELShellBase>>("QPointer<ZELShellBase>");
    ZELShellServerState::setCurrent(d->state);
    seft = this;
    const ZELServerLock locked(serversMutex);
    servers().append({this, d->state});
}

ZELShellServer::~ZELShellServer()
{
    {
        const ZELServerLock locked(serversMutex);
        servers().removeAll({this, d->state});
        if (seft == this) { // the one before is the current one again
            seft = servers().isEmpty() ? nullptr : servers().last().first;
            ZELShellServerState::setCurrent(seft ? servers().last().second : nullptr);
        }
    }
    d->state->change([](ZELShellSettings &settings) {
        settings.help = nullptr;
        settings.prompt = nullptr;
        settings.weakup = nullptr;
        if (settings.permission) // shells that go on are not let through closed doors
            settings.permission = [](const ZELArguments &) { return false; };
    });
}

void ZELShellServer::startServer()
{
    if (d->mainShell) {
        qWarning("ZELShellServer::startServer: the terminal shell runs already");
        return;
    }
    ZELShellPrivate::keepLogOffTerminal();
    d->replaceStoppedShell();
    const auto isReplaced = std::make_shared<std::atomic<bool>>(false);
    d->mainIsReplaced = isReplaced;
    auto *device = new ZELStdDevice(STDIN_FILENO);
    d->mainDevice = device;
    auto *stream = new ZELStream(device, false);
    auto *shell = new ZELShell(stream);
    connect(shell, &QObject::destroyed, [stream, device] {
        delete stream;
        delete device;
    });
    connect(shell, &ZELShell::Stoped, [shell, isReplaced] {
        // Jobs of the last lines have perhaps not begun; the host takes their commands away when the process ends.
        ZELShellPrivate::get(shell)->endJobs();
        if (!zelRestartWanted() && !*isReplaced)
            CloseApplication();
    });
    d->configure(shell, false);
    d->mainShell = shell;
    shell->Start(true, false);
    shell->setShellName(QStringLiteral("TTyStream_Main"));
    d->collection.append(shell);
}

void ZELShellServer::startTcpServer(quint16 port)
{
    qDebug("start RPC Server thread...");
    if (const int limit = maxPendingConnections())
        d->tcpServer->setMaxPendingConnections(limit);
    d->tcpServer->setConnectCallback([this](const QPointer<ZELStream> &stream) { serve(stream, true); });
    d->tcpServer->listen(listenAddress(), port);
}

void ZELShellServer::serve(const QPointer<ZELStream> &stream, bool isAccepted)
{
    auto *shell = new ZELShell(stream);
    d->configure(shell, true);
    if (isAccepted) {
        auto *session = ZELShellPrivate::get(shell);
        session->admission = d->admission;
        session->isAdmitted = false;
        d->admission->enter();
    }
    if (stream)
        describe(shell, *static_cast<ZELTcpSocket *>(stream->getDevice()));
    d->collection.append(shell);
    Q_EMIT shellConnected(shell);
    shell->Start(false, false);
}

bool ZELShellServer::isListening() const
{
    return d->tcpServer->isListening();
}

quint16 ZELShellServer::serverPort() const
{
    return d->tcpServer->serverPort();
}

bool ZELShellServer::connectToTcp(QString host, quint16 port)
{
    d->closeOutgoing();
    auto *socket = new ZELTcpSocket(host, port);
    bool connected = false;
    connect(
        socket, &QAbstractSocket::connected, this,
        [&connected, socket, this] {
            connected = true;
            // From here on the connection belongs to its shell, which may end at any time.
            d->served = ZELAbstractStreamPrivate::ref(socket->GetStream());
            serve(socket->GetStream(), false);
        },
        Qt::DirectConnection);
    socket->waitForConnected(connectTimeoutMs);
    if (connected)
        return true;
    socket->disconnect(this);
    socket->Close();
    d->outgoing = socket;
    return false;
}

void ZELShellServer::closeServer()
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this, &ZELShellServer::closeServer, Qt::QueuedConnection);
        return;
    }
    d->tcpServer->close();
    d->closeOutgoing();
    if (d->mainShell)
        d->mainShell->Stop();
    d->stoppedShell = std::exchange(d->mainShell, nullptr);
}

int ZELShellServer::ClientNumber()
{
    return d->collection.length();
}
