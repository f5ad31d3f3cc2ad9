// SPDX-License-Identifier: MIT
#ifndef ZELTCPSERVER_H
#define ZELTCPSERVER_H

#include "zelshell_export.h"

#include <QHostAddress>
#include <QPointer>
#include <QTcpServer>
#include <functional>
#include <memory>

class ZELStream;
class ZELAdmission;
class ZELShellServerPrivate;
class ZELTcpServerPrivate;
class ZELTcpSocket;

/**
 * Accepts connections, makes a ZELTcpSocket of each and hands its stream to the connect callback.
 *
 * A connection beyond the limit, or one for which the system has no descriptor, thread or mapping left, is closed at
 * once with the debug line "RPC connections use out, ...", and the others are served on.
 *
 * The sockets are not owned: who takes the stream releases its device (ZELIODevice::release()) in the end.
 * Threads: the server and everything here belong to the thread that made it and need its event loop; the callback is
 * called there too.
 *
 *     ZELTcpServer server(nullptr, 100);
 *     server.setConnectCallback([](const QPointer<ZELStream> &stream) { serve(stream); });
 *     server.listen(QHostAddress::LocalHost, 0);
 */
class ZELSHELL_EXPORT ZELTcpServer : public QTcpServer
{
    Q_OBJECT
public:
    using Callback = std::function<void(const QPointer<ZELStream> &)>;

    ZELTcpServer(QObject *parent, int maxConnections);
    /// Closes every connection, as clear() does.
    ~ZELTcpServer() override;

    /// The limit: a connection is refused while more than this number are open, so one more than the limit fit.
    void setMaxPendingConnections(int count);
    int maxPendingConnections() const;
    /// Listens with room for a burst of connects; false when the address cannot be had.
    bool listen(const QHostAddress &address, quint16 port);
    /// Kept and not called: a callback for hosts that keep theirs here.
    void setAcceptedCallback(Callback callback);
    /// Called for every accepted connection. Set it before listen(): without one, connections are refused.
    void setConnectCallback(Callback callback);
    /// The number of open connections.
    int clientCount() const;

public Q_SLOTS:
    /// Closes every connection and forgets it.
    void clear();
    /// Forgets a connection.
    void sockDisConnectSlot(int handle, const QString &ip, quint16 port);

Q_SIGNALS:
    /// A connection has ended and was forgotten.
    void sockDisConnect(int handle, QString ip, quint16 port);
    /// Tells sockets to close, by descriptor; -1 for all.
    void sentDisConnect(int descriptor);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    friend class ZELShellServerPrivate;
    void holdBackBy(const std::shared_ptr<ZELAdmission> &admission);
    void giveWay();
    Q_INVOKABLE void resume();
    void giveMemoryBack();
    void closeSockets(int descriptor);
    void trim();
    void refuse(qintptr descriptor);
    void welcome(ZELTcpSocket *socket, int descriptor);

    const std::unique_ptr<ZELTcpServerPrivate> d;
};

#endif
