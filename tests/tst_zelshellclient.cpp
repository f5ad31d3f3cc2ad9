// SPDX-License-Identifier: MIT
#include "count.h"
#include "fakehost.h"
#include "noleakcheck.h"
#include "table.h"
#include "zelshellclient.h"
#include "zelthread.h"

#include <QtTest>
#include <atomic>
#include <random>

using Process = std::shared_ptr<ZELShellProcess>;
static const QString local("127.0.0.1");

class tst_ZELShellClient : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void greetsAndReadsTheBanner()
    {
        Note hello;
        FakeHost host([&](QTcpSocket &socket) {
            hello.write(FakeHost::readLine(socket));
            // With two answers right behind; nothing more until the client asks.
            const QByteArray early = FakeHost::packet("early", "EXECUTE_COMPLETE", "a");
            FakeHost::send(socket, FakeHost::banner() + early + early);
            socket.waitForReadyRead(5000);
        });
        ZELShellClient client;
        std::atomic<int> packets{0};
        client.setRequestHook([&](ZELShellProcessHeader) { ++packets; });
        Count connected(&client, &ZELShellClient::connected), disconnected(&client, &ZELShellClient::disconnected);
        QVERIFY2(client.connectToHost(local, host.port(), 5000), qPrintable(client.errorString()));
        QVERIFY(client.isConnected() && !client.isLogin());
        QCOMPARE(client.banner(), QString(FakeHost::banner()));
        QCOMPARE(client.connectId(), QUuid("{11111111-2222-3333-4444-555555555555}"));
        QVERIFY(!client.connectToHost(local, host.port(), 5000));
        QVERIFY(client.isConnected());
        QTRY_COMPARE(packets.load(), 2);
        client.close();
        client.close();
        QVERIFY(!client.isConnected());
        QCOMPARE(hello.read(), QByteArray("--nt\n"));
        QCOMPARE(connected.count(), 1);
        QCOMPARE(disconnected.count(), 1);
    }

    void failures_data()
    {
        Table<QByteArray, bool, QString> row("answer", "hangUp", "error");
        const QString noShell = "what answers there is not a shell";
        row("refused login", "Error : login required\n", true, "Error : login required");
        row("full", "", true, "connection closed by the host");
        row("silent", "", false, "no greeting of a shell in time");
        row("half a banner", "ZELShell\nConnectId = {1111", false, "no greeting of a shell in time");
        row("bad id", "ConnectId = hello\n", false, noShell);
        row("bell and escapes", "\033[2Jno\007\n", true, "?[2Jno?");
    }

    void failures()
    {
        QFETCH(QByteArray, answer);
        QFETCH(bool, hangUp);
        FakeHost host([&](QTcpSocket &socket) {
            FakeHost::readLine(socket);
            FakeHost::send(socket, answer);
            if (!hangUp)
                socket.waitForDisconnected(5000);
        });
        ZELShellClient client;
        Count errors(&client, &ZELShellClient::error);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!client.connectToHost(local, host.port(), 400));
        QVERIFY(timer.elapsed() < 3000);
        QTEST(client.errorString(), "error");
        QCOMPARE(errors.count(), 1);
        QVERIFY(!client.isConnected());
        QVERIFY(client.execute("x")->wait(0));
    }

    void loginIsKnownByTheKey()
    {
        std::atomic<bool> accept{true};
        Note hello;
        FakeHost host([&](QTcpSocket &socket) {
            const QByteArray line = FakeHost::readLine(socket).trimmed(), key = line.mid(line.lastIndexOf(' ') + 1);
            hello.write(line);
            FakeHost::send(socket, accept ? FakeHost::banner('{' + key + '}') : FakeHost::banner());
            socket.waitForReadyRead(5000);
        });
        ZELShellClient client;
        client.setUser("bob the builder", "p w");
        for (bool accepted : {true, false}) {
            accept = accepted;
            QVERIFY(client.connectToHost(local, host.port(), 5000));
            QCOMPARE(client.isLogin(), accepted);
            QVERIFY(hello.read().startsWith("--nt --user \"bob the builder\" --password \"p w\" --key "));
            client.close();
        }
        const QUuid key = QUuid::createUuid();
        client.setUser(QString(), QString());
        client.setKey(key);
        accept = true;
        QVERIFY(client.connectToHost(local, host.port(), 5000));
        QCOMPARE(client.connectId(), key);
        QVERIFY2(!client.isLogin(), "a key alone proves no login");
        client.close();
        client.setUser("bob", "'\"([{");
        QVERIFY(!client.connectToHost(local, host.port(), 5000));
    }

    // The host answers in another order than it was asked, in pieces, with noise in between.
    void answersFindTheirRecords()
    {
        FakeHost host([&](QTcpSocket &socket) {
            FakeHost::greet(socket);
            QByteArrayList keys;
            for (int i = 0; i < 50; ++i)
                keys << FakeHost::readKey(socket);
            std::mt19937 random(1);
            std::shuffle(keys.begin(), keys.end(), random);
            QByteArray answers;
            for (int part = 0; part < 3; ++part)
                for (const QByteArray &key : keys)
                    answers += "noise "
                        + FakeHost::packet(key, part < 2 ? "EXECUTE_PROCESS" : "EXECUTE_RESULT", key + char('a' + part),
                            part < 2 ? QByteArray() : "ReturnType: 10\r\nReturn: " + key.toBase64() + "\r\n");
            for (int at = 0, size = 0; at < answers.size(); at += size) {
                size = 1 + int(random() % 200);
                FakeHost::send(socket, answers.mid(at, size));
            }
            socket.waitForDisconnected(5000);
        });
        ZELShellClient client;
        QVERIFY(client.connectToHost(local, host.port(), 5000));
        QList<Process> processes;
        for (int i = 0; i < 50; ++i)
            processes << client.execute("command x", i % 2);
        for (const Process &process : processes) {
            const QString key = process->key();
            QVERIFY(process->wait(10000));
            QCOMPARE(process->getTextOutput(0), key + "a" + key + "b" + key + "c");
            QCOMPARE(process->getReturnValue(0), key);
        }
        QCOMPARE(client.pendingProcesses(), 0);
    }

    void hookComesFirstAndMayUseTheClient()
    {
        FakeHost host(FakeHost::answering([](const QByteArray &key, const QByteArray &) {
            return FakeHost::packet(key, "EXECUTE_COMPLETE", "done");
        }));
        ZELShellClient client;
        std::atomic<bool> earlier{false};
        Process second;
        client.setRequestHook([&](ZELShellProcessHeader header) {
            const Process process = client.findProcess(header.getRequestMethod());
            earlier = earlier || (process && !process->wait(0));
            if (!second)
                second = client.execute("second");
        });
        QVERIFY(client.connectToHost(local, host.port(), 5000));
        const Process first = client.createProcess("first");
        std::atomic<bool> sentFromHook{false};
        first->setProcess([&](ZELShellProcessHeader) { sentFromHook = client.sendLine("third", false); }, false);
        first->send();
        QVERIFY(first->wait(5000));
        QVERIFY(earlier && sentFromHook);
        QVERIFY(second && second->wait(5000));
        client.close();
    }

    void unnumberedStatements()
    {
        FakeHost host(FakeHost::answering([](const QByteArray &word, const QByteArray &) {
            return FakeHost::packet(word == "$cmd" ? "real" : word, "EXECUTE_COMPLETE", "answer to " + word);
        }));
        ZELShellClient client;
        QVERIFY(client.connectToHost(local, host.port(), 5000));
        QList<Process> processes;
        const QStringList lines{"42", "$x", "\"a b\"", "$cmd 1", "$x", "run", "-7"};
        for (const QString &line : lines)
            processes << client.execute(line);
        for (int i = 0; i < lines.size(); ++i) {
            QVERIFY2(processes[i]->wait(5000), qPrintable(lines[i]));
            QCOMPARE(processes[i]->getTextOutput(0), "answer to " + processes[i]->getCommand().section(' ', 0, 0));
        }
    }

    void heldAndRemovedRecords()
    {
        FakeHost host([&](QTcpSocket &socket) {
            FakeHost::greet(socket);
            const QByteArray held = FakeHost::readKey(socket), removed = FakeHost::readKey(socket);
            FakeHost::readLine(socket);
            FakeHost::send(socket, FakeHost::packet(held, "EXECUTE_COMPLETE", "done"));
            FakeHost::send(socket, FakeHost::packet(removed, "EXECUTE_COMPLETE", "late"));
            FakeHost::send(socket, FakeHost::packet("42", "EXECUTE_COMPLETE", "literal"));
            socket.waitForDisconnected(5000);
        });
        ZELShellClient client;
        QVERIFY(client.connectToHost(local, host.port(), 5000));
        const QString unsent = client.createProcess("unsent")->key();
        QVERIFY2(!client.findProcess(unsent), "nobody holds a record that was not sent");
        const std::weak_ptr<ZELShellProcess> record = client.execute("held");
        QVERIFY(!record.expired());
        QCOMPARE(client.findProcess(record.lock()->key()), record.lock());
        const Process removed = client.execute("slow");
        client.removeProcess(removed);
        QVERIFY(!client.findProcess(removed->key()));
        const Process literal = client.execute("42");
        QVERIFY(literal->wait(5000));
        QCOMPARE(literal->getTextOutput(0), QString("literal"));
        QCOMPARE(removed->getTextOutput(0), QString());
        QTRY_VERIFY(record.expired());
        // A number of the caller's own must be free.
        const Process own = client.createProcess("x#1000");
        QTest::ignoreMessage(QtWarningMsg, "ZELShellClient::createProcess: number in use");
        QVERIFY(!client.createProcess("x#1000"));
    }

    void endReleasesEverybodyAndReconnects()
    {
        std::atomic<int> connection{0};
        FakeHost host([&](QTcpSocket &socket) {
            FakeHost::greet(socket);
            const QByteArray key = FakeHost::readKey(socket);
            if (connection++ == 0)
                for (int i = 0; i < 99; ++i)
                    FakeHost::readLine(socket);
            else
                FakeHost::send(socket, FakeHost::packet(key, "EXECUTE_COMPLETE", "again"));
        });
        ZELShellClient client;
        Count errors(&client, &ZELShellClient::error), disconnected(&client, &ZELShellClient::disconnected);
        QVERIFY(client.connectToHost(local, host.port(), 5000));
        const Process unsent = client.createProcess("kept");
        QList<Process> processes;
        for (int i = 0; i < 100; ++i)
            processes << client.execute(i % 10 ? "command" : "$x");
        for (const Process &process : processes) {
            QVERIFY(process->wait(5000));
            QCOMPARE(process->lastPacket().getProcessStatus(), int(ZELShellProcessHeader::Unknown));
        }
        QTRY_COMPARE(disconnected.count(), 1);
        QCOMPARE(errors.count(), 1);
        QVERIFY(!client.isConnected());
        QCOMPARE(client.errorString(), QString("connection closed by the host"));
        QVERIFY(client.connectToHost(local, host.port(), 5000));
        QVERIFY(!unsent->wait(0));
        QVERIFY(unsent->send() && unsent->wait(5000));
        QCOMPARE(unsent->getTextOutput(0), QString("again"));
    }

    void hostDialsOut()
    {
        ZELShellClient client;
        QVERIFY(!client.waitForHost(10));
        QVERIFY(client.listen(local, 0));
        QVERIFY(!client.waitForHost(10));
        std::thread host([port = client.listenPort()] {
            QTcpSocket socket;
            socket.connectToHost(QHostAddress::LocalHost, port);
            socket.waitForConnected(5000);
            FakeHost::greet(socket);
            const QByteArray key = FakeHost::readKey(socket);
            FakeHost::send(socket, FakeHost::packet(key, "EXECUTE_COMPLETE", "out"));
            socket.waitForDisconnected(5000);
        });
        const bool came = client.waitForHost(5000);
        const QString text = came ? client.execute("x")->getTextOutput(5000) : client.errorString();
        client.close();
        host.join();
        QCOMPARE(text, QString("out"));
        QCOMPARE(client.listenPort(), quint16(0));

        QVERIFY(client.listen(local, 0));
        std::thread closer([&] {
            QThread::msleep(50);
            client.close();
        });
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!client.waitForHost(20000));
        closer.join();
        QVERIFY(timer.elapsed() < 5000);
    }

    void closeFromAHookAndWhileConnecting()
    {
        std::atomic<bool> greets{true};
        FakeHost host([&](QTcpSocket &socket) {
            if (greets) {
                FakeHost::greet(socket);
                const QByteArray key = FakeHost::readKey(socket);
                FakeHost::send(socket, FakeHost::packet(key, "EXECUTE_COMPLETE", "x"));
            }
            socket.waitForDisconnected(5000);
        });
        ZELShellClient client;
        client.setRequestHook([&](ZELShellProcessHeader) { client.close(); });
        QVERIFY(client.connectToHost(local, host.port(), 5000));
        QVERIFY(client.execute("x")->wait(5000));
        QTRY_VERIFY(!client.isConnected());
        greets = false;
        std::thread closer([&] {
            QThread::msleep(50);
            client.close();
        });
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!client.connectToHost(local, host.port(), 20000));
        closer.join();
        QVERIFY(timer.elapsed() < 5000);
        QCOMPARE(client.errorString(), QString("closed"));
    }

    void endsInASynchronousHook()
    {
        FakeHost host(FakeHost::answering([](const QByteArray &key, const QByteArray &) {
            return FakeHost::packet(key, "EXECUTE_PROCESS", "x") + FakeHost::packet(key, "EXECUTE_COMPLETE", "y");
        }));
        for (bool destroy : {false, true}) {
            auto *client = new ZELShellClient;
            QVERIFY(client->connectToHost(local, host.port(), 5000));
            std::atomic<int> calls{0};
            std::atomic<bool> returned{false};
            const Process process = client->createProcess("x");
            process->setProcess(
                [&](ZELShellProcessHeader) {
                    if (calls++ == 0 && destroy)
                        delete client;
                    else if (!destroy)
                        client->close();
                    returned = true;
                },
                false);
            QVERIFY(process->send());
            QTRY_VERIFY(returned);
            QVERIFY(process->wait(5000));
            if (destroy) {
                QCOMPARE(calls.load(), 1);
            } else {
                QTRY_VERIFY(!client->isConnected());
                delete client;
            }
        }
    }

    void noHookAfterTheDestructor()
    {
        FakeHost host(FakeHost::answering([](const QByteArray &key, const QByteArray &) {
            return FakeHost::packet(key, "EXECUTE_PROCESS", "x").repeated(200);
        }));
        for (int round = 0; round < 5; ++round) {
            auto client = std::make_unique<ZELShellClient>();
            std::atomic<bool> gone{false}, late{false};
            std::atomic<int> calls{0};
            QVERIFY(client->connectToHost(local, host.port(), 5000));
            const Process process = client->createProcess("x");
            process->setProcess(
                [&](ZELShellProcessHeader) {
                    ++calls;
                    QThread::msleep(10);
                    late = late || gone;
                },
                true);
            process->send();
            QTRY_VERIFY(calls > round);
            client.reset();
            gone = true;
            QVERIFY(process->wait(5000));
            QThread::msleep(30); // several calls long
            QVERIFY(!late);
        }
    }

    // Neither a greeting that does not come nor a host that does not read holds a thread that is to be stopped.
    void killsReachWhoWaitsForTheHost()
    {
        enum { Silent, Deaf, Answering };
        std::atomic<int> kind{Silent};
        FakeHost host([&](QTcpSocket &socket) {
            if (kind == Silent)
                return void(socket.waitForDisconnected(10000));
            FakeHost::greet(socket);
            socket.setReadBufferSize(1000);
            while (kind == Deaf)
                QThread::msleep(1);
        });
        ZELShellClient client;
        const auto killed = [&](const std::function<void()> &wait) {
            std::unique_ptr<ZELThread> thread(ZELThread::run([&](ZELThreadInfo *) { wait(); }, {}, false));
            QThread::msleep(300); // inside the wait
            thread->Kill();
            return thread->wait(5000);
        };
        QVERIFY(killed([&] { client.connectToHost(local, host.port(), 60000); }));
        kind = Deaf;
        QVERIFY2(client.connectToHost(local, host.port(), 5000), qPrintable(client.errorString()));
        const QString longLine(8 << 20, 'x');
        const Process waited = client.execute("x"), halfSent = client.createProcess(longLine);
        QVERIFY(killed([&] { halfSent->send(); }));
        QVERIFY(waited->wait(5000) && halfSent->wait(5000));
        QTRY_VERIFY2(!client.isConnected(), "a host with half a line would not understand the next one");
        kind = Answering;
        QVERIFY2(client.connectToHost(local, host.port(), 5000), qPrintable(client.errorString()));
    }

    void destroyedUnderAHook()
    {
        FakeHost host([&](QTcpSocket &socket) {
            FakeHost::greet(socket);
            const QByteArray key = FakeHost::readKey(socket);
            for (int i = 0; i < 50; ++i)
                FakeHost::send(socket, FakeHost::packet(key, "EXECUTE_PROCESS", "x"));
            socket.waitForDisconnected(5000);
        });
        for (int round = 0; round < 20; ++round) {
            auto client = std::make_unique<ZELShellClient>();
            std::atomic<bool> gone{false}, late{false};
            std::atomic<int> calls{0};
            client->setRequestHook([&](ZELShellProcessHeader) {
                late = late || gone;
                ++calls;
            });
            QVERIFY(client->connectToHost(local, host.port(), 5000));
            const Process process = client->execute("x");
            QTRY_VERIFY(calls > round % 5);
            client.reset();
            gone = true;
            QVERIFY(process->wait(5000));
            process->clear();
            QVERIFY(process->send());
            QVERIFY2(process->wait(5000), "a record without its client ends at once");
            QVERIFY(!late);
        }
    }
};

QTEST_GUILESS_MAIN(tst_ZELShellClient)
#include "tst_zelshellclient.moc"
