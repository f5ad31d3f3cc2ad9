// SPDX-License-Identifier: MIT
#ifndef ZELTCPSOCKET_H
#define ZELTCPSOCKET_H

#include "zeliodevice.h"
#include "zelshell_export.h"

#include <QHostAddress>
#include <QTcpSocket>
#include <QThread>
#include <memory>

class ZELStream;
class ZELTcpSocketPrivate;

/**
 * A TCP connection with a worker thread of its own and a stream bound to it: accepted by a ZELTcpServer, or opened to
 * a peer.
 *
 * All traffic happens in the worker thread, where socket and stream live once connected. Others read with readAll() and
 * write through GetStream(). Close() ends the connection for good: what was written is still sent, for at most one
 * second, then the peer sees the end.
 *
 * What is written before it is connected is sent when it is.
 *
 * Bounds: at most MaxUnread bytes wait for the reader (the peer is held back by TCP beyond that), and a write returns
 * only when no more than MaxUnsent bytes wait for the peer. A peer that does not read blocks those who write to it and
 * nobody else, until it reads, goes away or Close() is called.
 *
 * Owner: whoever made it, until release(); then the socket itself. Its stream dies with it. Deleting it from any thread
 * but the worker's waits for the worker.
 *
 *     auto *socket = new ZELTcpSocket(QStringLiteral("127.0.0.1"), port, nullptr);
 *     if (socket->waitForConnected(3000))
 *         socket->GetStream()->write(QByteArray("--nt\n"));
 *     while (!(bytes = socket->readAll()).isEmpty())
 *         consume(bytes);
 *     socket->release();
 *
 * Threads: what is declared here may be called from any thread unless it says otherwise; the inherited socket functions
 * belong to the worker.
 */
class ZELSHELL_EXPORT ZELTcpSocket : public QTcpSocket, public ZELIODevice
{
    Q_OBJECT
public:
    static constexpr int MaxUnread = 256 * 1024;
    static constexpr int MaxUnsent = 1024 * 1024;

    /// Begins to connect. Until it is connected the socket stays in this thread, which runs an event loop or calls
    /// waitForConnected(). A parent does not become the QObject parent, as they live in different threads: its
    /// destruction releases the socket.
    ZELTcpSocket(QString host, quint16 port, QObject *parent = nullptr);
    /// Takes over an accepted descriptor.
    explicit ZELTcpSocket(qintptr descriptor, QObject *parent = nullptr);
    ~ZELTcpSocket() override;

    /// All bytes received so far, waiting for the first one. Empty once the connection is closed and all was taken.
    QByteArray readAll() override;
    /// Sends in the calling thread, which must be the worker (others use the stream); kept while it connects. On a
    /// closed socket a debug line instead.
    void write(QByteArray data) override;
    /// The text as Latin-1.
    void write(QString text) override;
    /// Calls the start hook.
    void Start() override;
    /// Closes; nothing the second time. Waits until the worker has ended, unless the worker calls it.
    void Close() override;
    /// The worker, a ZELThread labelled "ZELTcpSocket Work Thread".
    QThread *innerThread() override;
    /// Begins to close without waiting, and deletes the socket when its worker has ended (at once when it has already).
    void release() override;
    bool waitForInput(int ms) override;
    bool readValid() const override;
    bool writeValid() const override;
    bool takeByte(char byte) override;
    qint64 writeNow(const QByteArray &data) override;
    void closeSoon() override;

    ZELStream *GetStream();
    /// False when the system had no thread or descriptor left for the worker: such a socket is good for nothing.
    bool isWorking() const;
    /// True when sockDisConnect() was emitted, or is about to be.
    bool hasEnded() const;

    /// The peer as it was when connected; these stay after the end and hide the inherited ones, which do not.
    QHostAddress peerAddress() const;
    quint16 peerPort() const;
    QString peerName() const;

public Q_SLOTS:
    /// Closes if the descriptor is this socket's, or -1 for every socket.
    void disConTcp(int descriptor);

Q_SIGNALS:
    /// Once, when the connection has ended.
    void sockDisConnect(int descriptor, const QString &ip, quint16 port, QThread *thread);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    friend class ZELTcpServer;
    bool setUp(QObject *parent);
    void startWorker();
    void notePeer();
    void onConnected();
    void onDisconnected();
    void onError(QAbstractSocket::SocketError error);
    void watchArrival();
    bool takeArrived();
    bool endOfPeer();
    Q_INVOKABLE void readOn();
    void receive();
    bool keepEarly(const QByteArray &data);
    Q_INVOKABLE void sendEarly();
    void send(const QByteArray &data);
    void lendIfIdle();
    void waitForRoom();
    bool beginClose();
    void end();
    void closeDown();
    void sendRest();
    void notice();
    void postClose(int descriptor);
    void workerEnded();

    const std::unique_ptr<ZELTcpSocketPrivate> d;
};

#endif
