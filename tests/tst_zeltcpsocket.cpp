// SPDX-License-Identifier: MIT
#include "count.h"
#include "rawpeer.h"
#include "table.h"
#include "zelstream.h"
#include "zeltcpsocket.h"
#include "zelthread.h"

#include <QtTest>

#include <atomic>
#include <memory>
#include <sys/resource.h>
#include <thread>
#include <vector>

/// One accepted ZELTcpSocket and the plain peer on its other end.
class Pair
{
public:
    explicit Pair(int receiveBuffer = 0, const QByteArray &early = QByteArray())
    {
        peer.reset(new RawPeer(listener.port(), receiveBuffer));
        peer->send(early);
        socket = new ZELTcpSocket(listener.accept(), nullptr);
    }
    ~Pair()
    {
        if (socket)
            socket->release();
    }
    RawListener listener;
    std::unique_ptr<RawPeer> peer;
    QPointer<ZELTcpSocket> socket;
};

class tst_ZELTcpSocket : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void carriesBothWays()
    {
        Pair pair;
        QVERIFY(pair.socket->readValid() && pair.socket->writeValid());
        QCOMPARE(pair.socket->peerAddress(), QHostAddress(QHostAddress::LocalHost));
        const Count ready(pair.socket->GetStream(), &ZELStream::readyRead);
        pair.peer->send("ab");
        QTRY_COMPARE(ready.count(), 1);
        pair.peer->send("cd");
        QTRY_COMPARE(ready.count(), 2);
        QCOMPARE(pair.socket->readAll(), QByteArray("abcd"));
        pair.socket->GetStream()->write(QByteArray("one"));
        pair.socket->GetStream()->write(QStringLiteral("tw\u00f6"));
        QCOMPARE(pair.peer->receive(6), QByteArray("onetw\xf6"));
    }

    void earlyBytesAreDelivered()
    {
        for (int i = 0; i < 200; ++i) {
            Pair pair(0, "first line\n");
            QCOMPARE(pair.socket->readAll(), QByteArray("first line\n"));
        }
    }

    void blockedReaderIsLetGo_data()
    {
        Table<QString> row("by");
        for (const char *by : {"peer closes", "peer resets", "Close", "disConTcp", "release"})
            row(by, by);
    }

    void blockedReaderIsLetGo()
    {
        QFETCH(QString, by);
        Pair pair;
        ZELTcpSocket *socket = pair.socket;
        const Count notices(socket, &ZELTcpSocket::sockDisConnect), ends(socket, &QAbstractSocket::disconnected);
        std::atomic<bool> empty{false};
        std::thread reader([&] { empty = socket->readAll().isEmpty(); });
        QTest::qWait(20);
        if (by == "peer closes")
            pair.peer.reset();
        else if (by == "peer resets")
            pair.peer->reset();
        else if (by == "Close")
            QMetaObject::invokeMethod(
                socket, [=] { socket->Close(); }, Qt::QueuedConnection);
        else if (by == "disConTcp")
            QMetaObject::invokeMethod(
                socket, [=] { socket->disConTcp(-1); }, Qt::QueuedConnection);
        else
            socket->release();
        reader.join();
        QVERIFY(empty);
        pair.peer.reset();
        QTRY_COMPARE(notices.count(), 1);
        QTRY_COMPARE(ends.count(), 1);
    }

    void closesOnce()
    {
        Pair pair;
        ZELStream *stream = pair.socket->GetStream();
        const Count closed(stream, &ZELStream::DeviceClose);
        pair.socket->disConTcp(1 << 20); // somebody else's
        stream->write(QByteArray("open"));
        QCOMPARE(pair.peer->receive(4), QByteArray("open"));
        pair.peer->send("rest");
        QElapsedTimer timer;
        timer.start();
        pair.peer->shutdownWriting();
        pair.socket->Close();
        pair.socket->Close();
        QVERIFY(timer.elapsed() < 900);
        QTRY_VERIFY(pair.socket->innerThread()->isFinished());
        QVERIFY(!stream->IsOpen() && !pair.socket->readValid());
        QTRY_COMPARE(closed.count(), 1);
        QCOMPARE(pair.peer->receive(1), QByteArray());
        QTest::ignoreMessage(QtDebugMsg, "connect is already closed!");
        pair.socket->write(QByteArray("late"));
    }

    void sendsTheRestBeforeItCloses()
    {
        // A peer that starts reading only later, and has sent what nobody takes: neither may cost it the answer.
        Pair pair(4096);
        const QByteArray answer(512 * 1024, 'a');
        pair.peer->send("unread");
        pair.socket->GetStream()->write(answer);
        QByteArray received;
        std::thread late([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            received = pair.peer->receiveAll();
        });
        pair.socket->Close();
        late.join();
        QCOMPARE(received.size(), answer.size());
    }

    void answersOneWriteWithOneSegment()
    {
        Pair pair;
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 20; ++i) {
            pair.socket->GetStream()->write(QByteArray("one"));
            pair.socket->GetStream()->write(QByteArray("two"));
            QCOMPARE(pair.peer->receive(6), QByteArray("onetwo"));
        }
        QVERIFY2(timer.elapsed() < 20 * 40, "small segments wait for acknowledgements");
    }

    void slowPeerBlocksItsWriterOnly()
    {
        Pair slow(4096), other;
        std::atomic<int> written{0};
        ZELStream *stream = slow.socket->GetStream();
        std::thread writer([&] {
            for (int i = 0; i < 400 && stream->IsOpen(); ++i) {
                stream->write(QByteArray(65536, 's'));
                ++written;
            }
        });
        int blockedAt = 0;
        do {
            blockedAt = written;
            QTest::qWait(300);
        } while (written != blockedAt); // a loaded machine takes its time to get there
        QVERIFY(blockedAt >= ZELTcpSocket::MaxUnsent / 65536 && blockedAt < 200);
        other.socket->GetStream()->write(QByteArray("quick"));
        QCOMPARE(other.peer->receive(5), QByteArray("quick"));
        QTest::qWait(100);
        QCOMPARE(written.load(), blockedAt);
        QVERIFY(slow.peer->receive(4 << 20).size() == 4 << 20);
        QTRY_VERIFY(written > blockedAt);
        slow.socket->Close();
        writer.join();
        QVERIFY(written < 400);
    }

    void floodIsHeldBack()
    {
        Pair pair;
        const QByteArray all = QByteArray("0123456789abcdef").repeated(1 << 20);
        std::atomic<bool> sent{false};
        std::thread flood([&] {
            pair.peer->send(all);
            sent = true;
        });
        QTest::qWait(200);
        QVERIFY2(!sent, "16 MiB fit into the bound");
        QByteArray received;
        while (received.size() < all.size()) {
            const QByteArray part = pair.socket->readAll();
            QVERIFY(!part.isEmpty() && part.size() <= ZELTcpSocket::MaxUnread);
            received += part;
        }
        flood.join();
        QVERIFY(received == all);
    }

    void releaseLeavesNothing()
    {
        RawListener listener;
        QPointer<ZELTcpSocket> connecting = new ZELTcpSocket(QStringLiteral("127.0.0.1"), listener.port(), nullptr);
        connecting->release();
        QTRY_VERIFY(!connecting);
        for (const bool ended : {false, true}) {
            Pair pair;
            QPointer<ZELTcpSocket> socket(pair.socket);
            QPointer<ZELStream> stream(pair.socket->GetStream());
            QPointer<QThread> thread(pair.socket->innerThread());
            pair.peer->shutdownWriting();
            if (ended)
                QTRY_VERIFY(thread->isFinished());
            socket->release();
            QTRY_VERIFY(!socket && !stream && !thread);
        }
    }

    void withoutWorker()
    {
        RawListener listener;
        RawPeer peer(listener.port());
        const qintptr accepted = listener.accept();
        rlimit old;
        getrlimit(RLIMIT_NOFILE, &old);
        const rlimit none{0, old.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        auto *socket = new ZELTcpSocket(accepted, nullptr);
        setrlimit(RLIMIT_NOFILE, &old);
        QVERIFY(!socket->isWorking());
        // A server drops such a one on the thread that accepts the others: not a moment's wait for the peer.
        QElapsedTimer timer;
        timer.start();
        delete socket;
        QVERIFY(timer.elapsed() < 500);
        QVERIFY(peer.atEnd());
    }

    void connects()
    {
        RawListener listener;
        std::unique_ptr<QObject> parent(new QObject);
        QPointer<ZELTcpSocket> socket = new ZELTcpSocket(QStringLiteral("127.0.0.1"), listener.port(), parent.get());
        QThread *const worker = socket->innerThread();
        QVERIFY(socket->waitForConnected(3000));
        QCOMPARE(socket->thread(), worker);
        QCOMPARE(socket->peerPort(), listener.port());
        RawPeer peer(RawPeer::Take, int(listener.accept()));
        socket->GetStream()->write(QByteArray("hello"));
        QCOMPARE(peer.receive(5), QByteArray("hello"));
        peer.send("back");
        QCOMPARE(socket->readAll(), QByteArray("back"));
        parent.reset();
        peer.shutdownWriting();
        QTRY_VERIFY(!socket);
    }

    void writtenBeforeItIsConnected()
    {
        for (int round = 0; round < 20; ++round) {
            RawListener listener;
            auto *socket = new ZELTcpSocket(QStringLiteral("127.0.0.1"), listener.port());
            // As a host may do it: all of the socket's own signals carried to another thread, without any server.
            connect(
                socket, &QAbstractSocket::stateChanged, this, [] {}, Qt::QueuedConnection);
            connect(
                socket, &QAbstractSocket::errorOccurred, this, [] {}, Qt::QueuedConnection);
            QByteArray expected;
            std::thread writer([&] {
                for (int i = 0; i < 50; ++i)
                    socket->GetStream()->write(QByteArray::number(i) + '\n');
            });
            for (int i = 0; i < 50; ++i)
                expected += QByteArray::number(i) + '\n';
            QTest::qWait(round % 4);
            QVERIFY(socket->waitForConnected(3000));
            RawPeer peer(RawPeer::Take, int(listener.accept()));
            if (round % 2)
                QCOMPARE(peer.receive(expected.size()), expected);
            writer.join();
            socket->release();
            if (round % 2 == 0)
                QCOMPARE(peer.receiveAll(), expected);
        }
    }

    void closesIdleOnesQuickly()
    {
        std::vector<std::unique_ptr<Pair>> pairs;
        for (int i = 0; i < 10; ++i)
            pairs.push_back(std::make_unique<Pair>());
        QElapsedTimer timer;
        timer.start();
        for (const auto &pair : pairs)
            pair->socket->Close();
        QVERIFY2(timer.elapsed() < 2000, "each waited for a peer that stays");
    }

    void sendsInTheThreadOfTheWriter()
    {
        Pair pair;
        ZELStream *stream = pair.socket->GetStream();
        static std::atomic<bool> released{false},
            blocked{false}; // what Qt carries over, the race detector does not see
        QMetaObject::invokeMethod(
            stream,
            [] {
                blocked = true;
                while (!released)
                    QThread::msleep(1);
            },
            Qt::QueuedConnection);
        QTRY_VERIFY(blocked);
        stream->write(QByteArray("no worker "));
        stream->write(QStringLiteral("is needed"));
        QCOMPARE(pair.peer->receive(19), QByteArray("no worker is needed"));
        released = true;
        // For those who listen the worker is.
        const Count written(stream, QOverload<QByteArray>::of(&ZELStream::OnDataWrited));
        stream->write(QByteArray("told"));
        QCOMPARE(written.count(), 1);
        QCOMPARE(pair.peer->receive(4), QByteArray("told"));
    }

    void keepsTheOrderWhateverIsLeft()
    {
        // What the kernel does not take goes through the worker, and what is written after it must not pass it.
        Pair pair(4096);
        QByteArray expected;
        for (int i = 0; i < 3000; ++i)
            expected += QByteArray::number(i).rightJustified(1 + i % 997, ' ') + '\n';
        std::thread writer([&] {
            for (int at = 0, i = 0; at < expected.size(); ++i) {
                const int size = 1 + i * 7919 % 9001;
                pair.socket->GetStream()->write(expected.mid(at, size));
                at += size;
            }
        });
        QByteArray received;
        while (received.size() < expected.size()) {
            const QByteArray part = pair.peer->receive(20000);
            if (part.isEmpty())
                break;
            received += part;
            if (received.size() % 5 == 0)
                QTest::qWait(1);
        }
        writer.join();
        QVERIFY(received == expected);
    }

    void survivesAnythingAtOnce()
    {
        // Readers, writers, peers and closers meet in any order; whoever loses, everybody comes back.
        for (int round = 0; round < 150; ++round) {
            Pair pair;
            ZELTcpSocket *socket = pair.socket;
            ZELStream *stream = socket->GetStream();
            pair.peer->send("x");
            std::thread reader([&] {
                while (!stream->readAll().isEmpty()) { }
            });
            std::thread writer([&] {
                for (int i = 0; i < 20; ++i)
                    stream->write(QByteArray("line\n"));
            });
            std::this_thread::sleep_for(std::chrono::microseconds(round * 7));
            if (round % 3 == 1)
                pair.peer->reset();
            else
                pair.peer->shutdownWriting();
            if (round % 3 == 0)
                socket->Close();
            reader.join();
            writer.join();
            pair.peer.reset();
        }
    }
};

QTEST_GUILESS_MAIN(tst_ZELTcpSocket)
#include "tst_zeltcpsocket.moc"
