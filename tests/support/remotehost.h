// SPDX-License-Identifier: MIT
#ifndef REMOTEHOST_H
#define REMOTEHOST_H

#include "rawpeer.h"
#include "zelcatch.h"
#include "zelshellserver.h"

#include <QElapsedTimer>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <functional>
#include <pthread.h>
#include <thread>

/// The commands that the tests of remote shells call.
class RemoteCommands : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    QVariant ping(ZELArguments) { return QStringLiteral("pong"); }
    void echo(ZELArguments args) { args.debug().noquote() << QStringList(args).mid(1).join(QLatin1Char(' ')); }
    QVariant count(ZELArguments args)
    {
        const int last = args[1].toInt();
        for (int i = 1; i <= last; ++i)
            args.debug() << i;
        return last;
    }
    void fill(ZELArguments args)
    {
        const QString text(args[1].toInt(), QLatin1Char('x'));
        for (int i = 0; i < args[2].toInt(); ++i)
            args.debug().noquote() << text;
    }
    void sleep(ZELArguments args) { QThread::msleep(args[1].toULong()); }
    void leave(ZELArguments) { pthread_exit(nullptr); }
    void assertion(ZELArguments) { zel_assert_x("fault", "provoked", "host", 7); }
    [[gnu::no_sanitize_thread, gnu::no_sanitize_address, gnu::no_sanitize_undefined]] void nullWrite(ZELArguments)
    {
        volatile int *volatile nowhere = nullptr;
        *nowhere = 1;
    }
};

/// A server on the loopback address with these commands. One for the whole program, never destroyed.
class RemoteHost
{
public:
    static RemoteHost &instance()
    {
        static auto *const host = new RemoteHost;
        return *host;
    }
    quint16 port() const { return server.serverPort(); }

    /// Runs the client's part on a thread of its own, with the server's event loop here; false when it does not end.
    bool run(const std::function<void()> &client, int ms = 60000)
    {
        std::atomic<bool> done{false};
        std::thread thread([&] {
            client();
            done = true;
        });
        QElapsedTimer timer;
        timer.start();
        while (!done && timer.elapsed() < ms)
            QTest::qWait(1);
        const bool ended = done;
        thread.join();
        return ended;
    }
    /// Waits until every remote shell is gone.
    bool isDeserted(int ms = 15000)
    {
        QElapsedTimer timer;
        for (timer.start(); timer.elapsed() < ms && server.ClientNumber() > 0;)
            QTest::qWait(1);
        return server.ClientNumber() == 0;
    }

    ZELShellServer server;
    RemoteCommands commands;

private:
    RemoteHost()
    {
        const auto add = [this](const char *path, const char *name, const char *slot) {
            server.registerCmd(path, name, &commands, slot, true);
        };
        add("text", "ping", SLOT(ping(ZELArguments)));
        add("text", "echo", SLOT(echo(ZELArguments)));
        add("text", "fill", SLOT(fill(ZELArguments)));
        add("jobs", "count", SLOT(count(ZELArguments)));
        add("jobs", "sleep", SLOT(sleep(ZELArguments)));
        add("fault", "leave", SLOT(leave(ZELArguments)));
        add("fault", "assert", SLOT(assertion(ZELArguments)));
        add("fault", "segv", SLOT(nullWrite(ZELArguments)));
        server.setListenAddress(QHostAddress::LocalHost);
        server.startTcpServer(0);
    }
};

#endif
