// SPDX-License-Identifier: MIT
#include "zelclientstatement_p.h"
#include "zelguard_p.h"
#include "zelshellclient_p.h"
#include "zelshellpacket_p.h"
#include "zelshellprocess_p.h"

#include <chrono>

using Lock = std::lock_guard<std::mutex>;

namespace {

constexpr int longestGreeting = 65536;
constexpr int logoutPatience = 1000;

/// What a peer said before it hung up, fit for one line of a message.
QString lastLine(const QByteArray &bytes)
{
    if (!bytes.endsWith('\n'))
        return QStringLiteral("connection closed by the host");
    const QList<QByteArray> lines = bytes.right(300).trimmed().split('\n');
    QString line = QString::fromUtf8(lines.last()).trimmed();
    for (QChar &c : line)
        c = c.isPrint() ? c : QLatin1Char('?');
    return line;
}

/// Where the line with the connection id ends; -1 while it is not complete.
int endOfGreeting(const QByteArray &bytes)
{
    const QByteArray name = QByteArrayLiteral("ConnectId = ");
    const int id = bytes.startsWith(name) ? 0 : bytes.indexOf('\n' + name);
    return id < 0 ? -1 : bytes.indexOf('\n', id + 1);
}

} // namespace

ZELClientConnection::~ZELClientConnection()
{
    join();
    if (thread.joinable())
        thread.detach();
}

void ZELClientConnection::join()
{
    if (isReceiver())
        return;
    ZELCriticalSection section;
    while (!received.waitShortly())
        if (zelStopWanted())
            return;
    Lock lock(joining);
    if (thread.joinable())
        thread.join();
}

bool ZELClientConnection::lockWriting()
{
    while (!writing.try_lock()) {
        if (zelStopWanted())
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

template <class Signal>
void ZELShellClientPrivate::emitSignal(Signal &&signal)
{
    if (auto use = life.ref().use())
        signal(use.get());
}

bool ZELShellClientPrivate::open(const Opener &opener, QDeadlineTimer deadline)
{
    bool begun = false, opened = false;
    {
        ZELCriticalSection section;
        begun = begin();
        opened = begun && establish(opener, deadline);
    }
    if (opened)
        emitSignal([](ZELShellClient *client) { Q_EMIT client->connected(); });
    else if (begun)
        emitError();
    return opened;
}

bool ZELShellClientPrivate::establish(const Opener &opener, QDeadlineTimer deadline)
{
    QString reason;
    QByteArray rest;
    const auto socket = opener(reason);
    return (socket && attend(socket, reason) && shakeHands(*socket, deadline, rest, reason)
               && start(socket, rest, reason))
        || fail(reason);
}

bool ZELShellClientPrivate::begin()
{
    std::shared_ptr<ZELClientConnection> former;
    {
        ZELCriticalSection section;
        Lock lock(mutex);
        if (m_opening || (connection && connection->alive)) {
            error = QStringLiteral("connected already");
            return false;
        }
        m_opening = true;
        m_cancelled = false;
        former.swap(connection);
    }
    if (former)
        former->join();
    return true;
}

bool ZELShellClientPrivate::attend(const std::shared_ptr<ZELClientSocket> &socket, QString &reason)
{
    ZELCriticalSection section;
    Lock lock(mutex);
    if (m_cancelled)
        reason = QStringLiteral("closed");
    else
        m_attempt = socket;
    return !m_cancelled;
}

bool ZELShellClientPrivate::fail(const QString &reason)
{
    ZELCriticalSection section;
    Lock lock(mutex);
    // Closing looks like a lost connection to the thread that waits on it.
    error = m_cancelled ? QStringLiteral("closed") : zelStopWanted() ? QStringLiteral("interrupted") : reason;
    m_opening = false;
    m_cancelled = false;
    m_attempt.reset();
    return false;
}

void ZELShellClientPrivate::emitError()
{
    emitSignal([this](ZELShellClient *client) { Q_EMIT client->error(get(&ZELShellClientPrivate::error)); });
}

bool ZELShellClientPrivate::shakeHands(
    ZELClientSocket &socket, QDeadlineTimer deadline, QByteArray &rest, QString &reason)
{
    QByteArray hello;
    QUuid usedKey;
    {
        ZELCriticalSection section;
        Lock lock(mutex);
        // The host takes over the key of a login that worked and keeps its own id otherwise: the only sign of it.
        usedKey = key.isNull() && !user.isEmpty() ? QUuid::createUuid() : key;
        hello = zelHandshakeLine(user, password, usedKey.isNull() ? QString() : usedKey.toString(QUuid::WithoutBraces),
            terminalHook ? terminalColumns : -1);
    }
    Greeting greeting;
    if (hello.isEmpty())
        reason = QStringLiteral("user name or password cannot be sent");
    else if (!socket.write(hello))
        reason = QStringLiteral("connection closed by the host");
    else if (readGreeting(socket, deadline, greeting, reason) && acceptGreeting(greeting, usedKey, reason)) {
        // The line feed stays in front of the first packet: one at the very beginning would hold back its successors.
        rest = greeting.bytes.mid(greeting.end);
        return true;
    }
    return false;
}

bool ZELShellClientPrivate::readGreeting(
    ZELClientSocket &socket, QDeadlineTimer deadline, Greeting &greeting, QString &reason)
{
    while (greeting.bytes.size() <= longestGreeting) {
        greeting.end = endOfGreeting(greeting.bytes);
        if (greeting.end >= 0)
            return true;
        switch (socket.read(greeting.bytes, deadline)) {
        case ZELClientSocket::Data:
            continue;
        case ZELClientSocket::TimedOut:
            reason = QStringLiteral("no greeting of a shell in time");
            return false;
        case ZELClientSocket::Ended:
            reason = lastLine(greeting.bytes);
            return false;
        }
    }
    reason = QStringLiteral("what answers there is not a shell");
    return false;
}

bool ZELShellClientPrivate::acceptGreeting(const Greeting &greeting, const QUuid &usedKey, QString &reason)
{
    const QByteArray text = greeting.bytes.left(greeting.end);
    const QUuid id(QString::fromLatin1(text.mid(text.lastIndexOf('=') + 1)).trimmed());
    if (id.isNull()) {
        reason = QStringLiteral("what answers there is not a shell");
        return false;
    }
    ZELCriticalSection section;
    Lock lock(mutex);
    banner = QString::fromUtf8(text) + QLatin1Char('\n');
    connectId = id;
    login = !user.isEmpty() && id == usedKey;
    return true;
}

bool ZELShellClientPrivate::start(
    const std::shared_ptr<ZELClientSocket> &socket, const QByteArray &rest, QString &reason)
{
    ZELCriticalSection section;
    Lock lock(mutex);
    if (m_cancelled) {
        reason = QStringLiteral("closed");
        return false;
    }
    m_opening = false;
    m_attempt.reset();
    error.clear();
    connection = std::make_shared<ZELClientConnection>(socket);
    connection->thread = std::thread([self = shared_from_this(), held = connection, rest] {
        held->receiver = std::this_thread::get_id();
        self->receive(*held, rest);
        held->received.finish();
    });
    return true;
}

void ZELShellClientPrivate::receive(ZELClientConnection &from, QByteArray bytes)
{
    if (const auto hook = get(&ZELShellClientPrivate::terminalHook))
        receiveText(from, bytes.mid(1), hook);
    else
        receivePackets(from, bytes);
    ended(from);
}

void ZELShellClientPrivate::receiveText(
    ZELClientConnection &from, QByteArray bytes, const std::function<void(QByteArray)> &hook)
{
    do {
        // In no frame: opening one would take the signal handlers away from a program that has to restore a terminal.
        if (!bytes.isEmpty() && hooks->enter()) {
            hook(bytes);
            hooks->leave();
        }
        bytes.clear();
    } while (from.socket->read(bytes, QDeadlineTimer::Forever) == ZELClientSocket::Data);
}

void ZELShellClientPrivate::receivePackets(ZELClientConnection &from, QByteArray bytes)
{
    ZELShellPacketCutter cutter;
    do {
        const QByteArrayList packets = cutter.feed(bytes);
        bytes.clear();
        for (const QByteArray &packet : packets)
            deliver(zelParsePacket(packet));
    } while (from.socket->read(bytes, QDeadlineTimer::Forever) == ZELClientSocket::Data);
}

void ZELShellClientPrivate::ended(ZELClientConnection &from)
{
    QList<Entry> left;
    {
        Lock lock(mutex);
        from.alive = false;
        left = takePending();
        if (!from.closed)
            error = QStringLiteral("connection closed by the host");
    }
    for (const Entry &entry : qAsConst(left))
        entry.process->release();
    const bool lost = !from.closed && !left.isEmpty();
    emitSignal([lost](ZELShellClient *client) {
        if (lost)
            Q_EMIT client->error(QStringLiteral("connection closed by the host"));
        Q_EMIT client->disconnected();
    });
}

/// Lets the host end the session first: the user of one that still goes on is refused at the next login.
void ZELShellClientPrivate::awaitLogout()
{
    const auto current = liveConnection();
    if (!current || !get(&ZELShellClientPrivate::login) || pending() || current->isReceiver())
        return;
    current->closed = true;
    current->socket->endWriting();
    const QDeadlineTimer deadline(logoutPatience);
    while (liveConnection() == current && !deadline.hasExpired() && !zelStopWanted())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void ZELShellClientPrivate::close()
{
    ZELCriticalSection section; // ends when nothing is held any more
    closeNow();
}

void ZELShellClientPrivate::closeNow()
{
    awaitLogout();
    std::shared_ptr<ZELClientConnection> current;
    {
        ZELCriticalSection section;
        Lock lock(mutex);
        current = connection;
        m_cancelled = m_opening;
        for (const auto &socket : {m_attempt, listener})
            if (socket)
                socket->shutdown();
        listener.reset();
        if (current) {
            current->closed = true;
            current->socket->shutdown();
        }
    }
    if (current)
        current->join();
}

bool ZELShellClientPrivate::listen(const QString &address, quint16 port)
{
    QString reason;
    const auto socket = ZELClientSocket::listenAt(address, port, reason);
    {
        ZELCriticalSection section;
        Lock lock(mutex);
        listener = socket ? socket : listener;
        error = reason.isEmpty() ? error : reason;
    }
    if (!socket)
        emitError();
    return socket != nullptr;
}

std::shared_ptr<ZELClientConnection> ZELShellClientPrivate::liveConnection() const
{
    ZELCriticalSection section;
    Lock lock(mutex);
    return connection && connection->alive ? connection : nullptr;
}

bool ZELShellClientPrivate::sendLine(const QString &line, bool background)
{
    return sendBytes(zelTaggedLine(line, background));
}

bool ZELShellClientPrivate::sendBytes(const QByteArray &bytes)
{
    ZELCriticalSection section;
    const auto current = liveConnection();
    if (!current || !current->lockWriting())
        return false;
    Lock lock(current->writing, std::adopt_lock);
    return current->socket->write(bytes);
}
