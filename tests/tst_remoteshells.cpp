// SPDX-License-Identifier: MIT
// Remote shells from end to end, by plain peers: the promise of one completing packet, and the life of a session.
#include "processinfo.h"
#include "quiet.h"
#include "remotehost.h"

#include <QRandomGenerator>
#include <QtTest>

#include <memory>
#include <mutex>
#include <vector>

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
static const bool sanitized = true;
#else
static const bool sanitized = !qEnvironmentVariableIsEmpty("ZEL_TEST_EMULATOR"); // takes memory for each thread
#endif

namespace {

const QByteArray tag = " UFJPVE9DT0w9WkVMX1NIRUxM\n";
const QByteArray endMarker = "ZEL_SHELL_PACKET_END\r\n";

struct Packet
{
    QByteArray key, state, text, value;
};

/// A client that has said hello and waits for packets.
class Client : public RawPeer
{
public:
    explicit Client(int receiveBuffer = 0)
        : RawPeer(RemoteHost::instance().port(), receiveBuffer)
    {
        send("--nt\n");
        receiveUntil("ConnectId = ");
        id = receiveUntil("\n");
    }
    void ask(const QByteArray &statement) { send(statement + tag); }
    Packet next(int silenceMs = 20000)
    {
        const QByteArray packet = receiveUntil(endMarker, silenceMs);
        const int body = packet.indexOf("\r\n\r\n") + 4;
        Packet result;
        result.key = packet.mid(23, packet.indexOf("\r\n") - 23);
        result.state = field(packet, "\r\nState: ");
        result.value = QByteArray::fromBase64(field(packet, "\r\nReturn: "));
        result.text = QByteArray::fromBase64(packet.mid(body, packet.size() - body - endMarker.size()));
        return result;
    }
    /// Takes process packets, whose text is gathered, up to the completing one.
    Packet answer(QByteArray *printed = nullptr)
    {
        Packet packet = next();
        for (; packet.state == "EXECUTE_PROCESS"; packet = next())
            if (printed)
                *printed += packet.text;
        return packet;
    }
    QByteArray id;

private:
    static QByteArray field(const QByteArray &packet, const QByteArray &name)
    {
        const int at = packet.indexOf(name);
        const int from = at + name.size();
        return at < 0 ? QByteArray() : packet.mid(from, packet.indexOf("\r\n", from) - from);
    }
};

} // namespace

class tst_RemoteShells : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        disable_error_dump();
        dropDebugMessages();
    }

    void manyAtOnce()
    {
        // A fifth crashes all the time, a fifth vanishes; the rest must not notice.
        const int count = sanitized ? 40 : 200, rounds = sanitized ? 5 : 10;
        std::atomic<int> good{0}, wrong{0};
        QVERIFY(host.run(
            [&] {
                std::vector<std::unique_ptr<Client>> clients;
                for (int i = 0; i < count; ++i)
                    clients.emplace_back(new Client);
                for (int i = 0; i < count; ++i) {
                    for (int n = 0; n < rounds; ++n) {
                        if (i % 5 == 0)
                            clients[i]->ask("fault/segv#" + QByteArray::number(n));
                        else
                            clients[i]->ask("jobs/count#" + QByteArray::number(n) + ' ' + QByteArray::number(n));
                    }
                    if (i % 5 == 1)
                        clients[i]->reset();
                }
                for (int i = 0; i < count; ++i) {
                    for (int n = 0; n < rounds && i % 5 != 1; ++n) {
                        QByteArray printed, expected;
                        const Packet packet = clients[i]->answer(&printed);
                        for (int k = 1; k <= n && i % 5; ++k)
                            expected += QByteArray::number(k) + "\r\n";
                        const bool right = packet.key.endsWith('#' + QByteArray::number(n)) && printed == expected
                            && packet.state == (i % 5 ? "EXECUTE_RESULT" : "EXECUTE_ERROR");
                        ++(right ? good : wrong);
                    }
                }
            },
            110000));
        QCOMPARE(wrong.load(), 0);
        QCOMPARE(good.load(), count / 5 * 4 * rounds);
        QVERIFY(host.isDeserted());
    }

    /// By pthread_exit(), on the session's own thread and on one of the pool.
    void commandThatEndsItsThread()
    {
        QVERIFY(host.isDeserted());
        QByteArray state, other, background;
        bool ended = false;
        QVERIFY(host.run([&] {
            Client leaver, stayer;
            leaver.ask("fault/leave#1");
            state = leaver.next().state;
            ended = leaver.atEnd();
            stayer.send("fault/leave#2" + tag.trimmed().prepend(' ') + " &\n");
            background = stayer.answer().state;
            stayer.ask("text/ping");
            other = stayer.answer().value;
        }));
        QCOMPARE(state, QByteArray("EXECUTE_ERROR"));
        QVERIFY(ended);
        QCOMPARE(background, QByteArray("EXECUTE_ERROR"));
        QCOMPARE(other, QByteArray("pong"));
        QVERIFY(host.isDeserted());
    }

    void idleOnesEndTogether()
    {
        QVERIFY(host.isDeserted());
        host.server.setIdleLimit(300);
        qint64 took = 0;
        QVERIFY(host.run([&] {
            std::vector<std::unique_ptr<Client>> clients;
            for (int i = 0; i < 12; ++i)
                clients.emplace_back(new Client);
            QElapsedTimer timer;
            timer.start();
            for (const auto &client : clients)
                client->receiveAll(); // none of them leaves by itself
            took = timer.elapsed();
        }));
        host.server.setIdleLimit(0);
        QVERIFY2(took < 3000, qPrintable(QString::number(took)));
        QVERIFY(host.isDeserted());
    }

    void endsAreLogged()
    {
        static std::mutex mutex;
        static QStringList ends;
        static const QtMessageHandler before
            = qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &text) {
                  std::lock_guard<std::mutex> lock(mutex);
                  if (text.contains("] session ends: "))
                      ends << text.section("session ends: ", 1);
              });
        QVERIFY(host.run([&] {
            Client leaves, quits;
            leaves.reset();
            quits.send("quit\n");
            quits.receiveAll();
            QRandomGenerator random(22);
            for (int i = 0; i < 20; ++i) {
                RawPeer noise(host.port());
                QByteArray bytes(20000, '\0');
                for (char &byte : bytes)
                    byte = char(random.generate());
                noise.send(bytes);
            }
        }));
        // Those who have left already may not have been accepted yet.
        const auto count = [] {
            std::lock_guard<std::mutex> lock(mutex);
            return ends.size();
        };
        QTRY_COMPARE_WITH_TIMEOUT(count(), 22, 15000);
        QVERIFY(host.isDeserted());
        qInstallMessageHandler(before);
        std::lock_guard<std::mutex> lock(mutex);
        QCOMPARE(ends.size(), 22);
        QVERIFY(ends.contains("its peer said quit"));
    }

    void slowReader()
    {
        // One does not read what would be 100 MB; the other is served meanwhile, and memory stays within the bound.
        QVERIFY(host.isDeserted());
        const int before = processinfo::resident();
        int grown = 0, served = 0;
        QVERIFY(host.run([&] {
            Client slow(4096), quick;
            slow.ask("text/fill#big 10000 10000");
            for (int i = 0; i < 50; ++i) {
                quick.ask("text/ping");
                served += quick.answer().value == "pong";
                QThread::msleep(10);
            }
            grown = processinfo::resident() - before;
            slow.reset();
        }));
        QCOMPARE(served, 50);
        if (!sanitized)
            QVERIFY2(grown < 16 * 1024, qPrintable(QString::number(grown)));
        QVERIFY(host.isDeserted());
    }

    void randomBytes()
    {
        // ZEL_RANDOM_MB=100 for the long run. "sys" cannot come up by chance: each line is too short for a program's
        // name.
        const int megabytes = qEnvironmentVariableIntValue("ZEL_RANDOM_MB");
        const int total = megabytes ? megabytes << 20 : sanitized ? 1 << 18 : 1 << 21;
        host.server.setLineLimit(4096);
        int before = 0, alive = 0;
        QVERIFY(host.run(
            [&] {
                QRandomGenerator random(20);
                for (int sent = 0, round = 0; sent < total; ++round) {
                    QByteArray bytes(65536, Qt::Uninitialized);
                    for (char &byte : bytes)
                        byte = char(random.generate());
                    sent += bytes.size();
                    RawPeer peer(host.port());
                    // As handshake, as a person's lines, as a program's lines, and in the middle of a tagged line.
                    peer.send(round % 4 == 0 ? "" : round % 4 == 1 ? "\n" : "--nt\n");
                    if (round % 4 == 3)
                        peer.send("text/echo \xff" + tag.trimmed() + '"');
                    std::thread reader([&] { peer.receiveAll(); });
                    peer.send(bytes);
                    peer.shutdownWriting();
                    reader.join();
                    if (round == 20)
                        before = processinfo::resident();
                    if (round % 50 == 0) {
                        Client client;
                        client.ask("text/ping");
                        alive += client.answer().value != "pong";
                    }
                }
            },
            110000 + total / 1024));
        host.server.setLineLimit(0);
        QCOMPARE(alive, 0);
        QVERIFY(host.isDeserted());
        if (!sanitized)
            QVERIFY2(processinfo::resident() < before + 8 * 1024,
                qPrintable(QStringLiteral("%1 -> %2 kB").arg(before).arg(processinfo::resident())));
    }

    /// Whoever ends the sessions, and however.
    void leavesNothingBehind()
    {
        const auto cycles = [&](int count) {
            int answered = 0;
            host.run([&] {
                for (int i = 0; i < count; ++i) {
                    Client client;
                    client.ask("text/ping");
                    answered += client.answer().value == "pong";
                }
                RawPeer peer(host.port());
                peer.send("--nt"); // no whole handshake
                Client reset, quit, resetInOutput, closeInCommand;
                quit.send("quit\n");
                quit.atEnd();
                resetInOutput.ask("text/fill 1000 20000");
                resetInOutput.receive(100000);
                resetInOutput.reset();
                reset.reset();
                closeInCommand.ask("text/echo;jobs/sleep 500;jobs/sleep 60000");
                closeInCommand.receive(2);
            });
            return host.isDeserted() ? answered : -1;
        };
        const int count = sanitized ? 50 : 300;
        QCOMPARE(cycles(count), count);
        const int threads = processinfo::threads(), descriptors = processinfo::descriptors();
        const int resident = processinfo::resident();
        QCOMPARE(cycles(3 * count), 3 * count);
        QTRY_VERIFY(processinfo::descriptors() <= descriptors);
        if (!sanitized) {
            QTRY_VERIFY(processinfo::threads() <= threads);
            QVERIFY2(processinfo::resident() < resident + resident / 20,
                qPrintable(QStringLiteral("%1 -> %2 kB").arg(resident).arg(processinfo::resident())));
        }
    }

private:
    RemoteHost &host = RemoteHost::instance();
};

QTEST_GUILESS_MAIN(tst_RemoteShells)
#include "tst_remoteshells.moc"
