// SPDX-License-Identifier: MIT
#ifndef REMOTEUSER_H
#define REMOTEUSER_H

#include <QHostAddress>
#include <QTcpSocket>

/// A remote user without terminal, in the thread of the server.
struct RemoteUser
{
    QTcpSocket socket;
    QByteArray got;

    explicit RemoteUser(quint16 port, const QByteArray &handshake = "--nt\n")
    {
        socket.connectToHost(QHostAddress::LocalHost, port);
        socket.write(handshake);
    }
    bool has(const QByteArray &text)
    {
        got += socket.readAll();
        return got.contains(text);
    }
    void send(const QByteArray &line)
    {
        got.clear();
        socket.write(line + '\n');
    }
    bool isClosed()
    {
        got += socket.readAll();
        return socket.state() == QAbstractSocket::UnconnectedState;
    }
};

#endif
