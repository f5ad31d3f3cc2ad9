// SPDX-License-Identifier: MIT
#include "processinfo.h"
#include "rawpeer.h"
#include "zelstream.h"
#include "zeltcpserver.h"
#include "zeltcpsocket.h"
#include "zelthread.h"

#include <QtTest>

#include <atomic>
#include <memory>
#include <sys/resource.h>
#include <vector>

namespace {

/// Echoes every connection on a reading thread of its own, as a session would use it. One serves all tests.
class EchoServer
{
public:
    static EchoServer &instance(int limit)
    {
        static auto *const one = new EchoServer;
        one->server.clear();
        while (one->running > 0)
            QTest::qWait(5);
        one->server.setMaxPendingConnections(limit);
        return *one;
    }
    quint16 port() const { return server.serverPort(); }

    ZELTcpServer server;
    std::atomic<int> running{0};

private:
    EchoServer()
        : server(nullptr, 1)
    {
        server.setConnectCallback([this](const QPointer<ZELStream> &stream) { serve(stream); });
        server.listen(QHostAddress::LocalHost, 0);
    }
    void serve(const QPointer<ZELStream> &stream)
    {
        ++running;
        ZELStream *const s = stream;
        ZELThread::run(
            [this, s](ZELThreadInfo *) {
                for (QByteArray bytes = s->readAll(); !bytes.isEmpty(); bytes = s->readAll())
                    s->write(bytes);
                s->getDevice()->release();
                --running;
            },
            QVariant(), true);
    }
};

bool echoes(RawPeer &peer)
{
    peer.send("ping");
    return peer.receive(4) == "ping";
}

std::atomic<int> refusals{0};
void countRefusals(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtDebugMsg && text.startsWith(QLatin1String("RPC connections use out, current client size=[")))
        ++refusals;
}

} // namespace

class tst_ZELTcpServer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { m_threads = processinfo::threads(); }

    void limit()
    {
        EchoServer &server = EchoServer::instance(2);
        std::vector<std::unique_ptr<RawPeer>> peers;
        std::atomic<bool> done{false};
        bool served[3] = {}, refused = false;
        std::thread clients([&] {
            for (int i = 0; i < 3; ++i) {
                peers.emplace_back(new RawPeer(server.port()));
                served[i] = echoes(*peers.back());
            }
            RawPeer fourth(server.port());
            refused = fourth.atEnd();
            done = true;
        });
        QTest::ignoreMessage(
            QtDebugMsg, "RPC connections use out, current client size=[ 3 ] maxPendingConnections=[ 2 ]");
        QTRY_VERIFY_WITH_TIMEOUT(done, 20000);
        clients.join();
        QVERIFY(served[0] && served[1] && served[2] && refused);
        peers.pop_back();
        QTRY_COMPARE(server.server.clientCount(), 2);
    }

    void burst()
    {
        // While nobody accepts, the kernel must keep a thousand connects; Qt's own backlog drops most for a second or
        // more.
        EchoServer &server = EchoServer::instance(1000);
        QElapsedTimer timer;
        timer.start();
        std::vector<std::unique_ptr<RawPeer>> peers;
        for (int i = 0; i < 500; ++i)
            peers.emplace_back(new RawPeer(server.port()));
        QVERIFY(timer.elapsed() < 1000);
        // Accepting them all may not keep the event loop from what else there is to do.
        QCoreApplication::processEvents();
        QVERIFY2(server.server.clientCount() < 100, qPrintable(QString::number(server.server.clientCount())));
        QCOMPARE(server.server.maxPendingConnections(), 1000);
        QTRY_COMPARE_WITH_TIMEOUT(server.server.clientCount(), 500, 30000);
        for (auto &peer : peers)
            QVERIFY(echoes(*peer));
    }

    void reusedDescriptor()
    {
        // The notice of each old connection is still on its way to this thread when the next gets its descriptor.
        EchoServer &server = EchoServer::instance(10);
        for (int i = 0; i < 50; ++i) {
            auto first = std::make_unique<RawPeer>(server.port());
            QTRY_COMPARE(server.server.clientCount(), 1);
            first.reset();
            while (server.running > 0)
                std::this_thread::yield(); // without the event loop: the notice waits
            RawPeer second(server.port());
            QTRY_VERIFY(server.running == 1);
            QTest::qWait(1);
            QCOMPARE(server.server.clientCount(), 1);
        }
    }

    void clearClosesAll()
    {
        EchoServer &server = EchoServer::instance(10);
        std::vector<std::unique_ptr<RawPeer>> peers;
        for (int i = 0; i < 5; ++i)
            peers.emplace_back(new RawPeer(server.port()));
        QTRY_COMPARE(server.server.clientCount(), 5);
        server.server.clear();
        QCOMPARE(server.server.clientCount(), 0);
        for (auto &peer : peers) {
            QVERIFY(peer->atEnd());
            peer.reset();
        }
        QTRY_COMPARE(server.running.load(), 0);
        peers.emplace_back(new RawPeer(server.port()));
        QTRY_COMPARE(server.server.clientCount(), 1);
        QVERIFY(echoes(*peers.back()));
    }

    void clearWhilePeersLeave()
    {
        // The worker of a connection that ends destroys what a call posted to it would wake it up with.
        for (int round = 0; round < 8; ++round) {
            EchoServer &server = EchoServer::instance(300);
            std::vector<std::unique_ptr<RawPeer>> peers;
            for (int i = 0; i < 300; ++i)
                peers.emplace_back(new RawPeer(server.port()));
            QTRY_COMPARE_WITH_TIMEOUT(server.server.clientCount(), 300, 30000);
            peers.clear();
            server.server.clear();
        }
    }

    void descriptorsRunOut()
    {
        EchoServer &server = EchoServer::instance(1000);
        RawPeer early(server.port());
        QTRY_COMPARE(server.server.clientCount(), 1);
        rlimit old;
        getrlimit(RLIMIT_NOFILE, &old);
        const int room = 120;
        const rlimit few{rlim_t(processinfo::descriptors() + room), old.rlim_max};
        const auto handler = qInstallMessageHandler(countRefusals);
        refusals = 0;
        std::vector<std::unique_ptr<RawPeer>> peers;
        setrlimit(RLIMIT_NOFILE, &few);
        // Each costs three here: the peer's own, the accepted one, the worker's.
        for (int i = 0; i < room; ++i) {
            peers.emplace_back(new RawPeer(server.port()));
            QTest::qWait(1);
        }
        QTest::qWait(300);
        qInstallMessageHandler(handler);
        const int served = server.server.clientCount();
        const int refused = refusals;
        setrlimit(RLIMIT_NOFILE, &old);
        QVERIFY2(served > 20 && refused > 0, qPrintable(QStringLiteral("%1 %2").arg(served).arg(refused)));
        QVERIFY(echoes(early));
        peers.clear();
        QTRY_COMPARE(server.server.clientCount(), 1);
        RawPeer late(server.port());
        QTRY_COMPARE_WITH_TIMEOUT(server.server.clientCount(), 2, 2000);
        QVERIFY(echoes(late));
    }

    /// No socket may still be on its way out when the leak check looks.
    void cleanupTestCase()
    {
        EchoServer::instance(0);
        QTRY_VERIFY(processinfo::threads() <= m_threads);
    }

private:
    int m_threads = 0;
};

QTEST_GUILESS_MAIN(tst_ZELTcpServer)
#include "tst_zeltcpserver.moc"
