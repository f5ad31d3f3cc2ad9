// SPDX-License-Identifier: MIT
#include "quiet.h"
#include "table.h"
#include "threadeddevice.h"
#include "zellogging.h"
#include "zelstream.h"

#include <QtTest>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {
/// Runs things in its thread. The hand-over is done here and not inside of Qt, where a race detector cannot see it.
class Errand : public QObject
{
    Q_OBJECT
public:
    explicit Errand(QThread *thread) { moveToThread(thread); }
    void post(std::function<void()> what)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_what = std::move(what);
        }
        QMetaObject::invokeMethod(this, "run", Qt::QueuedConnection);
    }
    Q_INVOKABLE void run()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const auto what = std::move(m_what);
        lock.unlock();
        what();
    }

private:
    std::mutex m_mutex;
    std::function<void()> m_what;
};

/// A running worker, its device and a stream on it.
struct Line
{
    Line()
    {
        worker.start();
        stream->connect(stream.get(), &ZELStream::DeviceClose, [this] { ++closes; });
    }
    ~Line()
    {
        stop();
        stream.reset();
    }
    void stop()
    {
        worker.quit();
        worker.wait();
    }
    /// Keeps the worker busy until released.
    void block(std::atomic<bool> &released)
    {
        std::atomic<bool> blocked{false};
        errand.post([&] {
            blocked = true;
            while (!released)
                QThread::msleep(1);
        });
        while (!blocked)
            QThread::msleep(1);
    }

    QThread worker;
    ThreadedDevice device{&worker};
    Errand errand{&worker};
    std::unique_ptr<ZELStream> stream{new ZELStream(&device, true)};
    std::atomic<int> closes{0};
};

void ignoreDrops(int count)
{
    for (int i = 0; i < count; ++i)
        QTest::ignoreMessage(QtDebugMsg, "Stream is closed, Out [ \"x\" ]");
}
} // namespace

class tst_ZELStream : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void withoutThread()
    {
        ThreadedDevice device(nullptr);
        ZELStream stream(&device, true);
        QSignalSpy ready(&stream, &ZELStream::readyRead);
        QCOMPARE(stream.thread(), QThread::currentThread());
        stream.write(QByteArray("a"));
        stream.write(QString("b"));
        QCOMPARE(device.writes(), (std::vector<QByteArray>{"a", "b"}));
        device.receive();
        QCOMPARE(ready.count(), 1);
        QCOMPARE(stream.readAll(), QByteArray("input"));
        QCOMPARE(device.boundStream(), &stream);
        QCOMPARE(stream.getDevice(), &device);
    }

    void inTheWorker()
    {
        Line line;
        QThread *emitter = nullptr;
        connect(line.stream.get(), QOverload<QString>::of(&ZELStream::OnDataWrited), line.stream.get(),
            [&](const QString &data) {
                emitter = QThread::currentThread();
                // From the worker itself: at once, not queued behind itself.
                if (data == "outer")
                    line.stream->write(QString("inner"));
            });
        line.stream->write(QString("outer"));
        QCOMPARE(emitter, &line.worker);
        QCOMPARE(line.device.writes(), (std::vector<QByteArray>{"outer", "inner"}));
        QCOMPARE(line.device.threads(), (std::vector<QThread *>{&line.worker, &line.worker}));
    }

    void byName()
    {
        Line line;
        QVERIFY(QMetaObject::invokeMethod(
            line.stream.get(), "write_", Qt::BlockingQueuedConnection, Q_ARG(QByteArray, QByteArray("a"))));
        QVERIFY(QMetaObject::invokeMethod(
            line.stream.get(), "write_", Qt::BlockingQueuedConnection, Q_ARG(QString, QString("b"))));
        QVERIFY(
            QMetaObject::invokeMethod(line.stream.get(), "write", Qt::DirectConnection, Q_ARG(QString, QString("c"))));
        QCOMPARE(line.device.writes(), (std::vector<QByteArray>{"a", "b", "c"}));
    }

    void orderOfEachWriter()
    {
        Line line;
        constexpr int Writers = 6, Lines = 300;
        std::vector<std::thread> writers;
        for (int i = 0; i < Writers; ++i) {
            writers.emplace_back([&line, i] {
                for (int j = 0; j < Lines; ++j) {
                    const QByteArray data = QByteArray::number(i) + ' ' + QByteArray::number(j);
                    j % 2 ? line.stream->write(data) : line.stream->write(QString(data));
                }
            });
        }
        for (std::thread &writer : writers)
            writer.join();
        QVector<int> next(Writers);
        for (const QByteArray &data : line.device.writes()) {
            const auto parts = data.split(' ');
            QCOMPARE(parts.at(1).toInt(), next[parts.at(0).toInt()]++);
        }
        QCOMPARE(next, QVector<int>(Writers, Lines));
    }

    void emptyWrites()
    {
        ThreadedDevice device(nullptr);
        ZELStream stream(&device, true);
        QSignalSpy bytes(&stream, QOverload<QByteArray>::of(&ZELStream::OnDataWrited));
        stream.write(QByteArray());
        stream.write(QString());
        device.Close();
        stream.write(QByteArray());
        QVERIFY(bytes.isEmpty() && device.writes().empty());
    }

    void afterClose()
    {
        Line line;
        line.device.Close();
        QCOMPARE(line.closes.load(), 1);
        QVERIFY(!line.stream->IsOpen());
        QCOMPARE(line.stream->readAll(), QByteArray());
        ignoreDrops(2);
        line.stream->write(QString("x"));
        line.stream->write(QByteArray("x"));
        QVERIFY(line.device.writes().empty());
    }

    void secondStream()
    {
        ThreadedDevice device(nullptr);
        ZELStream first(&device, true);
        QTest::ignoreMessage(QtDebugMsg, "IODevice is olready binded!");
        QPointer<ZELStream> second = new ZELStream(&device, true);
        QVERIFY(second && !second->IsOpen() && first.IsOpen());
        QCOMPARE(second->readAll(), QByteArray());
        ignoreDrops(1);
        second->write(QByteArray("x"));
        QTRY_VERIFY(!second);
        QCOMPARE(device.boundStream(), &first);
        first.write(QByteArray("y"));
        QCOMPARE(device.writes().size(), size_t(1));
    }

    void noDevice()
    {
        QTest::ignoreMessage(QtWarningMsg, "ZELStream: no device");
        QPointer<ZELStream> stream = new ZELStream(nullptr, true);
        QVERIFY(!stream->IsOpen() && !stream->getDevice());
        QTRY_VERIFY(!stream);
    }

    void waitersLetGo_data()
    {
        Table<bool> row("byClose");
        row("device closes", true);
        row("thread ends", false);
    }

    void waitersLetGo()
    {
        QFETCH(bool, byClose);
        Line line;
        std::atomic<bool> released{false};
        std::atomic<int> back{0};
        std::vector<std::thread> writers;
        const Quiet quiet;
        line.block(released);
        line.worker.exit(); // what is queued now is never run
        for (int i = 0; i < 3; ++i) {
            writers.emplace_back([&] {
                line.stream->write(QByteArray("x"));
                ++back;
            });
        }
        QTest::qWait(20);
        QCOMPARE(back.load(), 0);
        if (byClose)
            line.device.Close();
        else
            released = true;
        QTRY_COMPARE(back.load(), 3);
        released = true;
        for (std::thread &writer : writers)
            writer.join();
        QCOMPARE(Quiet::count(), 3); // dropped, and said so
        QVERIFY(line.device.writes().empty());
    }

    void writersRaceWithEnd_data()
    {
        Table<bool> row("byClose");
        row("device closes", true);
        row("thread ends", false);
    }

    void writersRaceWithEnd()
    {
        QFETCH(bool, byClose);
        const Quiet quiet;
        for (int i = 0; i < 60; ++i) {
            Line line;
            std::atomic<bool> stop{false};
            std::vector<std::thread> writers;
            for (int j = 0; j < 3; ++j) {
                writers.emplace_back([&] {
                    while (!stop)
                        line.stream->write(QString("x"));
                });
            }
            while (line.device.writes().size() < 10)
                std::this_thread::yield();
            if (byClose)
                line.device.Close();
            else
                line.stop();
            stop = true;
            for (std::thread &writer : writers)
                writer.join();
        }
    }

    void diesInItsThread()
    {
        const Quiet quiet;
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 30; ++i) {
            Line line;
            std::atomic<int> printed{0};
            std::vector<std::thread> writers;
            for (int j = 0; j < 3; ++j) {
                std::vector<ZELLogging> handles;
                for (int k = 0; k < 200; ++k)
                    handles.push_back(ZELLogging::debug(line.stream.get()));
                writers.emplace_back([&printed, handles = std::move(handles)]() mutable {
                    for (; !handles.empty(); ++printed)
                        handles.pop_back();
                });
            }
            while (printed < 10)
                std::this_thread::yield();
            // Writers that wait for this very thread must not hold it up.
            std::atomic<bool> dead{false};
            line.errand.post([&] {
                line.stream.reset();
                dead = true;
            });
            while (!dead)
                std::this_thread::yield();
            for (std::thread &writer : writers)
                writer.join();
            line.stop();
        }
        QVERIFY(timer.elapsed() < 20000);
    }

    void deviceDiesFirst()
    {
        auto device = std::make_unique<ThreadedDevice>(nullptr);
        ZELStream stream(device.get(), true);
        QSignalSpy written(&stream, QOverload<QByteArray>::of(&ZELStream::OnDataWrited));
        device.reset();
        QVERIFY(!stream.IsOpen());
        QCOMPARE(stream.readAll(), QByteArray());
    }

    void rebinding()
    {
        ThreadedDevice device(nullptr);
        auto first = std::make_unique<ZELStream>(&device, true);
        first.reset();
        QVERIFY(!device.boundStream());
        device.receive();
        device.Close(); // the first one's hook is still there and finds it gone
        ZELStream second(&device, true);
        QVERIFY(second.IsOpen());
        second.write(QByteArray("a"));
        QCOMPARE(device.writes().size(), size_t(1));
    }
};

QTEST_GUILESS_MAIN(tst_ZELStream)
#include "tst_zelstream.moc"
