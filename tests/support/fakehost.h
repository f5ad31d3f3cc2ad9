// SPDX-License-Identifier: MIT
#ifndef FAKEHOST_H
#define FAKEHOST_H

#include <QTcpServer>
#include <QTcpSocket>
#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

/// A text that one thread leaves for another.
class Note
{
public:
    void write(const QByteArray &text)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_text = text;
    }
    QByteArray read() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_text;
    }

private:
    mutable std::mutex m_mutex;
    QByteArray m_text;
};

/// A peer for the client side: serves one connection after another, on a thread of its own, by a script that talks to
/// the raw socket. The port is free from the start.
class FakeHost
{
public:
    using Script = std::function<void(QTcpSocket &)>;

    explicit FakeHost(Script script)
        : m_script(std::move(script))
    {
        std::atomic<quint16> port{0};
        m_thread = std::thread([this, &port] { serve(port); });
        while (!port)
            std::this_thread::yield();
        m_port = port;
    }
    ~FakeHost()
    {
        m_stop = true;
        m_thread.join();
    }
    quint16 port() const { return m_port; }

    static QByteArray readLine(QTcpSocket &socket)
    {
        while (!socket.canReadLine())
            if (!socket.waitForReadyRead(5000))
                return {};
        return socket.readLine();
    }
    /// The first word of the next line, by which its answer is known.
    static QByteArray readKey(QTcpSocket &socket) { return readLine(socket).trimmed().split(' ').first(); }
    static void send(QTcpSocket &socket, const QByteArray &bytes)
    {
        socket.write(bytes);
        while (socket.bytesToWrite() > 0 && socket.waitForBytesWritten(5000)) { }
    }
    static QByteArray banner(const QByteArray &id = "{11111111-2222-3333-4444-555555555555}")
    {
        return "ZELShell Start\nZELShell\nConnectId = " + id + "\n";
    }
    /// Reads the first line and greets; the line.
    static QByteArray greet(QTcpSocket &socket)
    {
        const QByteArray hello = readLine(socket);
        send(socket, banner());
        return hello;
    }
    static QByteArray packet(
        const QByteArray &key, const QByteArray &state, const QByteArray &text, const QByteArray &more = QByteArray())
    {
        return "ZEL_SHELL_PACKET_START " + key + "\r\nAccept: STDOUT\r\nState: " + state
            + "\r\nContent-Length: 0\r\nHost: H\r\nPATH: /\r\nEncode: true\r\n" + more + "\r\n" + text.toBase64()
            + "ZEL_SHELL_PACKET_END\r\n";
    }

    using Answer = std::function<QByteArray(const QByteArray &key, const QByteArray &line)>;
    /// Greets and answers line by line until the other end hangs up.
    static Script answering(const Answer &answer)
    {
        return [answer](QTcpSocket &socket) {
            greet(socket);
            for (QByteArray line = readLine(socket); !line.isEmpty(); line = readLine(socket))
                send(socket, answer(line.trimmed().split(' ').first(), line));
        };
    }

private:
    void serve(std::atomic<quint16> &port)
    {
        QTcpServer server;
        server.listen(QHostAddress::LocalHost);
        port = server.serverPort();
        while (!m_stop) {
            if (!server.waitForNewConnection(20))
                continue;
            QTcpSocket *socket = server.nextPendingConnection();
            m_script(*socket);
            delete socket;
        }
    }

    const Script m_script;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    quint16 m_port = 0;
};

#endif
