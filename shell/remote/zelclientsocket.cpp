// SPDX-License-Identifier: MIT
#include "zelclientsocket_p.h"
#include "zelguard_p.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Addresses
{
    addrinfo *first = nullptr;
    int error = 0;
    Addresses(const QString &host, quint16 port, int flags)
    {
        addrinfo hints = {};
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = flags | AI_NUMERICSERV;
        const QByteArray service = QByteArray::number(port);
        error = getaddrinfo(host.toUtf8().constData(), service.constData(), &hints, &first);
    }
    ~Addresses()
    {
        if (first)
            freeaddrinfo(first);
    }
    Addresses(const Addresses &) = delete;
    Addresses &operator=(const Addresses &) = delete;
};

QString systemError(int error)
{
    return QString::fromLocal8Bit(strerror(error));
}

struct PollCall
{
    pollfd entry;
    int ms;
    int ready;
    int error;
    static void run(void *call)
    {
        auto *c = static_cast<PollCall *>(call);
        c->ready = ::poll(&c->entry, 1, c->ms);
        c->error = errno;
    }
};

void setOption(int descriptor, int level, int name)
{
    const int on = 1;
    setsockopt(descriptor, level, name, &on, sizeof on);
}

} // namespace

ZELClientSocket::ZELClientSocket(int descriptor)
    : m_descriptor(descriptor)
{
    setOption(descriptor, IPPROTO_TCP, TCP_NODELAY);
    setOption(descriptor, SOL_SOCKET, SO_KEEPALIVE);
}

ZELClientSocket::~ZELClientSocket()
{
    ::close(m_descriptor);
}

std::shared_ptr<ZELClientSocket> ZELClientSocket::connectTo(
    const QString &host, quint16 port, QDeadlineTimer deadline, QString &error)
{
    const Addresses addresses(host, port, 0);
    if (addresses.error)
        error = QString::fromLocal8Bit(gai_strerror(addresses.error));
    for (const addrinfo *at = addresses.first; at; at = at->ai_next) {
        const int descriptor = ::socket(at->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (descriptor < 0) {
            error = systemError(errno);
            continue;
        }
        auto result = std::make_shared<ZELClientSocket>(descriptor);
        if (::connect(descriptor, at->ai_addr, at->ai_addrlen) == 0
            || (errno == EINPROGRESS && result->finishConnect(deadline))) {
            fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
            return result;
        }
        error = systemError(errno);
    }
    return nullptr;
}

bool ZELClientSocket::finishConnect(QDeadlineTimer deadline)
{
    if (!waitFor(POLLOUT, deadline)) {
        errno = ETIMEDOUT;
        return false;
    }
    int outcome = 0;
    socklen_t size = sizeof outcome;
    getsockopt(m_descriptor, SOL_SOCKET, SO_ERROR, &outcome, &size);
    errno = outcome;
    return outcome == 0;
}

std::shared_ptr<ZELClientSocket> ZELClientSocket::listenAt(const QString &address, quint16 port, QString &error)
{
    const Addresses addresses(address, port, AI_PASSIVE);
    if (addresses.error) {
        error = QString::fromLocal8Bit(gai_strerror(addresses.error));
        return nullptr;
    }
    const int descriptor = ::socket(addresses.first->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor >= 0) {
        auto result = std::make_shared<ZELClientSocket>(descriptor);
        setOption(descriptor, SOL_SOCKET, SO_REUSEADDR);
        if (::bind(descriptor, addresses.first->ai_addr, addresses.first->ai_addrlen) == 0
            && ::listen(descriptor, 16) == 0)
            return result;
    }
    error = systemError(errno);
    return nullptr;
}

std::shared_ptr<ZELClientSocket> ZELClientSocket::accept(QDeadlineTimer deadline, QString &error)
{
    if (!waitFor(POLLIN, deadline)) {
        error = systemError(ETIMEDOUT);
        return nullptr;
    }
    const int descriptor = ::accept4(m_descriptor, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor >= 0)
        return std::make_shared<ZELClientSocket>(descriptor);
    error = systemError(errno);
    return nullptr;
}

quint16 ZELClientSocket::localPort() const
{
    sockaddr_storage address = {};
    socklen_t size = sizeof address;
    getsockname(m_descriptor, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 &>(address).sin6_port
                                               : reinterpret_cast<sockaddr_in &>(address).sin_port);
}

bool ZELClientSocket::waitFor(short events, QDeadlineTimer deadline)
{
    ZELCriticalSection section;
    for (;;) {
        const int ms = static_cast<int>(std::min<qint64>(deadline.remainingTime(), INT_MAX));
        PollCall call{{m_descriptor, events, 0}, ms, 0, 0};
        if (!zelInterruptibly(PollCall::run, &call))
            return false;
        if (call.ready > 0)
            return true;
        if (call.ready == 0 && deadline.hasExpired())
            return false;
        if (call.ready < 0 && call.error != EINTR)
            return true; // let the call that follows tell the reason
    }
}

ZELClientSocket::Result ZELClientSocket::read(QByteArray &into, QDeadlineTimer deadline)
{
    if (!waitFor(POLLIN, deadline))
        return TimedOut;
    char buffer[65536];
    ssize_t count;
    do {
        count = ::recv(m_descriptor, buffer, sizeof buffer, 0);
    } while (count < 0 && errno == EINTR);
    if (count <= 0)
        return Ended;
    into.append(buffer, static_cast<int>(count));
    return Data;
}

bool ZELClientSocket::write(const QByteArray &bytes)
{
    int done = 0;
    while (done < bytes.size()) {
        const ssize_t count = ::send(m_descriptor, bytes.constData() + done, static_cast<size_t>(bytes.size() - done),
            MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno != EINTR && (errno != EAGAIN || !waitFor(POLLOUT, QDeadlineTimer::Forever)))
            break;
        done += static_cast<int>(std::max<ssize_t>(count, 0));
    }
    if (done > 0 && done < bytes.size())
        shutdown();
    return done == bytes.size();
}

void ZELClientSocket::endWriting()
{
    ::shutdown(m_descriptor, SHUT_WR);
}

void ZELClientSocket::shutdown()
{
    ::shutdown(m_descriptor, SHUT_RDWR);
}
