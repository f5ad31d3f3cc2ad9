// SPDX-License-Identifier: MIT
#ifndef ZELCLIENTSOCKET_P_H
#define ZELCLIENTSOCKET_P_H

#include <QByteArray>
#include <QDeadlineTimer>
#include <QString>
#include <memory>

/**
 * A connected or listening TCP socket for threads that may block: no event loop, no thread of its own.
 *
 * Held by std::shared_ptr by everybody who uses it. The descriptor is closed with the last holder, so that its number
 * is not reused under a thread that still reads or writes; shutdown() ends their calls. One reader, one writer at a
 * time; any thread. A kill or time limit that comes in a critical section ends the waits, as if their time was over.
 */
class ZELClientSocket
{
public:
    enum Result { Data, Ended, TimedOut };

    explicit ZELClientSocket(int descriptor);
    ~ZELClientSocket();
    ZELClientSocket(const ZELClientSocket &) = delete;
    ZELClientSocket &operator=(const ZELClientSocket &) = delete;

    // Null with the reason in `error` on failure. Looking up a name may take longer than the deadline allows.
    static std::shared_ptr<ZELClientSocket> connectTo(
        const QString &host, quint16 port, QDeadlineTimer deadline, QString &error);
    static std::shared_ptr<ZELClientSocket> listenAt(const QString &address, quint16 port, QString &error);
    std::shared_ptr<ZELClientSocket> accept(QDeadlineTimer deadline, QString &error);

    quint16 localPort() const;
    /// Appends what has arrived to `into`, waiting for something until the deadline.
    Result read(QByteArray &into, QDeadlineTimer deadline);
    /// Waits until the peer takes the bytes; false once the connection has ended. A kill or time limit of the caller
    /// ends the wait and, when the peer has a part of the bytes, the connection: what follows would not be understood.
    bool write(const QByteArray &bytes);
    /// The peer sees the end of the connection; what it still sends is read.
    void endWriting();
    void shutdown();

private:
    bool waitFor(short events, QDeadlineTimer deadline);
    bool finishConnect(QDeadlineTimer deadline);

    const int m_descriptor;
};

#endif
