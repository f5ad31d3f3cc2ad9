// SPDX-License-Identifier: MIT
#ifndef RAWPEER_H
#define RAWPEER_H

#include <QByteArray>

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

/// Blocking sockets on the loopback address, free of Qt, as a plain program would use them. Nothing waits for more
/// than five seconds.
class RawPeer
{
public:
    enum TakeTag { Take };
    explicit RawPeer(quint16 port, int receiveBuffer = 0)
        : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        if (receiveBuffer)
            setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_connected = connect(m_fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    }
    RawPeer(TakeTag, int descriptor)
        : m_fd(descriptor)
        , m_connected(descriptor >= 0)
    {
    }
    ~RawPeer() { close(m_fd); }
    RawPeer(const RawPeer &) = delete;
    RawPeer &operator=(const RawPeer &) = delete;

    bool isConnected() const { return m_connected; }

    /// False when the other end is gone.
    bool send(QByteArray bytes)
    {
        while (!bytes.isEmpty()) {
            const ssize_t count = ::send(m_fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL);
            if (count <= 0)
                return false;
            bytes.remove(0, int(count));
        }
        return true;
    }

    /// Up to size bytes; fewer at the end of the stream or after five seconds of silence.
    QByteArray receive(int size, int silenceMs = 5000)
    {
        QByteArray result;
        char buffer[65536];
        while (result.size() < size) {
            pollfd one{m_fd, POLLIN, 0};
            if (poll(&one, 1, silenceMs) <= 0)
                break;
            const size_t most = qMin(sizeof buffer, size_t(size - result.size()));
            const ssize_t count = recv(m_fd, buffer, most, 0);
            if (count <= 0)
                break;
            result.append(buffer, int(count));
        }
        return result;
    }
    QByteArray receiveAll() { return receive(1 << 30); }

    /// Everything up to and including the text.
    QByteArray receiveUntil(const QByteArray &text, int silenceMs = 5000)
    {
        QByteArray result;
        while (!result.endsWith(text)) {
            const QByteArray next = receive(1, silenceMs);
            if (next.isEmpty())
                break;
            result += next;
        }
        return result;
    }

    /// True when the other end has closed, or does so within five seconds; what it sent before is thrown away.
    bool atEnd()
    {
        pollfd one{m_fd, POLLIN, 0};
        char buffer[4096];
        while (poll(&one, 1, 5000) > 0)
            if (recv(m_fd, buffer, sizeof buffer, 0) <= 0)
                return true;
        return false;
    }

    void shutdownWriting() { shutdown(m_fd, SHUT_WR); }
    /// Ends the connection with a reset, as a peer does that crashed.
    void reset()
    {
        const linger now{1, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd;
    bool m_connected = false;
};

class RawListener
{
public:
    RawListener()
        : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(m_fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
        listen(m_fd, 128);
    }
    ~RawListener() { close(m_fd); }
    RawListener(const RawListener &) = delete;
    RawListener &operator=(const RawListener &) = delete;

    quint16 port() const
    {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(m_fd, reinterpret_cast<sockaddr *>(&address), &length);
        return ntohs(address.sin_port);
    }
    int accept() const { return accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC); }

private:
    int m_fd;
};

#endif
