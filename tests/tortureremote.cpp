// SPDX-License-Identifier: MIT
// Remote sessions: clients that vanish while their command is killed, and clients that come when nothing is left.
#include "rawpeer.h"
#include "torture.h"
#include "zelcatch.h"
#include "zelfault.h"
#include "zelshellcommand.h"
#include "zelshellcommandtree.h"
#include "zelshellserver.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QThread>
#include <sys/resource.h>
#include <thread>

namespace {

class Board : public QObject
{
    Q_OBJECT
public:
    std::atomic<int> started{0};
    std::atomic<void *> thread{nullptr};
public Q_SLOTS:
    void work(ZELArguments args)
    {
        thread = QThread::currentThreadId();
        ++started;
        for (;;) {
            workMix();
            args.debug() << "line";
        }
    }
    QVariant ping(ZELArguments) { return QStringLiteral("pong"); }
};

/// A server in this process, and a thread that plays the clients.
int serve(const std::function<int(ZELShellServer &, Board &)> &clients)
{
    nullFile = fopen("/dev/null", "w");
    qInstallMessageHandler(discard);
    int argc = 0;
    QCoreApplication app(argc, nullptr);
    ZELShellServer server;
    Board board;
    server.setListenAddress(QHostAddress::LocalHost);
    server.registerCmd("a", "work", &board, SLOT(work(ZELArguments)), true);
    server.registerCmd("a", "ping", &board, SLOT(ping(ZELArguments)), true);
    server.startTcpServer(0);
    std::thread thread([&] {
        const int status = clients(server, board);
        QMetaObject::invokeMethod(&app, [status] { QCoreApplication::exit(status); });
    });
    const int status = app.exec();
    thread.join();
    return ZELFault::counters().forced ? 4 : status;
}

/// Every second command in the background; the client goes before, with or after the kill.
int vanish(ZELShellServer &server, Board &board, int count)
{
    unsigned seed = unsigned(getpid());
    for (int i = 0; i < count; ++i) {
        RawPeer peer(server.serverPort(), 4096);
        peer.send(i % 2 ? "--nt\na/work\n" : "--nt\na/work &\n");
        while (board.started <= i)
            std::this_thread::yield();
        const long long until = nowUs() + rand_r(&seed) % 200;
        while (nowUs() < until) { }
        const auto begin = nowUs();
        if (i % 3 == 0)
            peer.reset();
        except_stack->Kill(board.thread);
        if (i % 3 == 1)
            peer.reset();
        while (server.FindCommand("a", "work")->Command()->IsRunning())
            usleep(20);
        record(begin);
        if (i % 3 == 2)
            peer.reset();
        while (server.ClientNumber() > 0)
            usleep(20);
        health();
        ++progress->survived;
    }
    return 0;
}

bool answers(RawPeer &peer)
{
    return peer.send("a/ping\n") && peer.receiveUntil("pong").endsWith("pong");
}

void limitMemory(long roomInKb)
{
    QFile file(QStringLiteral("/proc/self/statm"));
    const long pages = file.open(QFile::ReadOnly) ? file.readAll().split(' ').value(0).toLong() : 0;
    rlimit limit{};
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = roomInKb < 0 ? limit.rlim_max : rlim_t(pages * 4 + roomInKb) * 1024;
    setrlimit(RLIMIT_AS, &limit);
}

/// A session needs two threads: there is room for neither, then for one of them.
int exhaust(ZELShellServer &server)
{
    RawPeer first(server.serverPort());
    first.send("--nt\n");
    bool good = answers(first);
    for (const long room : {3 * 1024, 11 * 1024}) {
        limitMemory(room);
        RawPeer refused(server.serverPort());
        good = refused.atEnd() && answers(first) && good;
        printf("room for %ld kB: %s\n", room, good ? "refused" : "FAILED");
        limitMemory(-1);
        ++progress->survived;
    }
    RawPeer next(server.serverPort());
    next.send("--nt\n");
    return good && answers(next) ? 0 : 5;
}

} // namespace

bool runRemote(int count)
{
    QElapsedTimer timer;
    timer.start();
    const int status = watched(
        [&] { return serve([&](ZELShellServer &server, Board &board) { return vanish(server, board, count); }); });
    const int survived = progress->survived;
    printf("remote %6d of %6d survived, %d forced, mean %lld us, worst %d us, %.1f s, status %d\n", survived, count,
        progress->forced.load(), survived ? progress->totalUs / survived : 0, progress->worstUs.load(),
        double(timer.elapsed()) / 1000, status);
    return status == 0 && survived == count;
}

bool runExhausted()
{
    return watched([] { return serve([](ZELShellServer &server, Board &) { return exhaust(server); }); }) == 0;
}

#include "tortureremote.moc"
