// SPDX-License-Identifier: MIT
// What a shell server is measured against: two threads a connection on the library's dispatcher, one for the socket and
// one that answers each line with the same text (the first with a greeting), and nothing else.   lineserver PORT
#include "zeleventdispatcher_p.h"

#include <QCoreApplication>
#include <QMutex>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QWaitCondition>

#include <cstdio>
#include <sys/resource.h>
#include <sys/socket.h>

static const QByteArray greeting = "ConnectId\n", answer = QByteArray(300, 'x') + "ZEL_SHELL_PACKET_END\r\n";

class Connection : public QThread
{
public:
    explicit Connection(qintptr descriptor)
    {
        m_io.setEventDispatcher(new ZELEventDispatcher);
        setEventDispatcher(new ZELEventDispatcher);
        connect(this, &QThread::finished, this, &QObject::deleteLater);
        m_socket->setSocketDescriptor(descriptor);
        m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        connect(m_socket, &QIODevice::readyRead, m_socket, [this] { received(m_socket->readAll()); });
        connect(m_socket, &QAbstractSocket::disconnected, m_socket, [this] { received(QByteArray()); });
        m_socket->moveToThread(&m_io);
        m_io.start();
        start();
    }
    ~Connection() override { m_io.wait(); }

    void run() override
    {
        for (QByteArray lines = take(); !lines.isEmpty(); lines = take())
            for (int left = lines.count('\n'); left > 0; --left)
                QMetaObject::invokeMethod(
                    m_socket, [this] { reply(); }, Qt::BlockingQueuedConnection);
        m_socket->deleteLater();
        m_io.quit();
        m_io.wait();
    }

private:
    void reply()
    {
        m_socket->write(std::exchange(m_greeted, true) ? answer : greeting);
        m_socket->flush();
    }
    void received(const QByteArray &bytes)
    {
        QMutexLocker lock(&m_mutex);
        m_lines += bytes;
        m_ended |= bytes.isEmpty();
        m_changed.wakeAll();
    }
    QByteArray take()
    {
        QMutexLocker lock(&m_mutex);
        while (m_lines.isEmpty() && !m_ended)
            m_changed.wait(&m_mutex);
        return std::exchange(m_lines, QByteArray());
    }

    QThread m_io;
    QTcpSocket *const m_socket = new QTcpSocket;
    QMutex m_mutex;
    QWaitCondition m_changed;
    QByteArray m_lines;
    bool m_ended = false;
    bool m_greeted = false;
};

class Server : public QTcpServer
{
    void incomingConnection(qintptr descriptor) override { new Connection(descriptor); }
};

int main(int argc, char **argv)
{
    rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    QCoreApplication application(argc, argv);
    Server server;
    if (argc < 2 || !server.listen(QHostAddress::LocalHost, quint16(atoi(argv[1]))))
        return 1;
    listen(int(server.socketDescriptor()), 4096);
    printf("%d\n", server.serverPort());
    fflush(stdout);
    return application.exec();
}
