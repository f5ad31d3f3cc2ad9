// SPDX-License-Identifier: MIT
#include "fakedevice.h"
#include "quiet.h"
#include "threads.h"
#include "zelfault.h"
#include "zellogging.h"
#include "zelstream_p.h"

#include <QtTest>
#include <atomic>
#include <csignal>
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
    FakeDevice device{&worker};
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
        FakeDevice device(nullptr);
        ZELStream stream(&device, true);
        QSignalSpy ready(&stream, &ZELStream::readyRead);
        QCOMPARE(stream.thread(), QThread::currentThread());
        stream.write(QByteArray("a"));
        stream.write(QString("b"));
        QCOMPARE(device.writes(), QStringList({"a", "b"}));
        device.type("input");
        QCOMPARE(ready.count(), 1);
        QCOMPARE(stream.readAll(), QByteArray("input"));
        QCOMPARE(device.boundStream(), &stream);
        QCOMPARE(stream.getDevice(), &device);
    }

    void livesInTheDevicesThread()
    {
        QThread worker;
        FakeDevice device(&worker);
        ZELStream stream(&device, false);
        QCOMPARE(stream.thread(), &worker);
        stream.write(QByteArray("a")); // not carried there: it does not even run
        QCOMPARE(device.writers(), QList<QThread *>({QThread::currentThread()}));
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
        QCOMPARE(line.device.writes(), QStringList({"outer", "inner"}));
        QCOMPARE(line.device.writers(), QList<QThread *>({&line.worker, &line.worker}));
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
        QCOMPARE(line.device.writes(), QStringList({"a", "b", "c"}));
    }

    void orderOfEachWriter()
    {
        Line line;
        constexpr int Writers = 6, Lines = 300;
        Threads(Writers, [&line](int i) {
            for (int j = 0; j < Lines; ++j) {
                const QByteArray data = QByteArray::number(i) + ' ' + QByteArray::number(j);
                j % 2 ? line.stream->write(data) : line.stream->write(QString(data));
            }
        }).join();
        QVector<int> next(Writers);
        for (const QString &data : line.device.writes()) {
            const auto parts = data.split(' ');
            QCOMPARE(parts.at(1).toInt(), next[parts.at(0).toInt()]++);
        }
        QCOMPARE(next, QVector<int>(Writers, Lines));
    }

    void afterClose()
    {
        Line line;
        line.stream->write(QByteArray());
        line.stream->write(QString());
        line.device.Close();
        QCOMPARE(line.closes.load(), 1);
        QVERIFY(!line.stream->IsOpen());
        QCOMPARE(line.stream->readAll(), QByteArray());
        ignoreDrops(1);
        line.stream->write(QString("x"));
        const Quiet quiet; // one line a stream, and a count in the end
        line.stream->write(QByteArray("x"));
        line.stream->write(QByteArray());
        QCOMPARE(Quiet::count(), 0);
        line.stop();
        line.stream.reset();
        QCOMPARE(Quiet::count(), 1);
        QVERIFY(line.device.writes().isEmpty());
    }

    void streamsWithoutDevice()
    {
        auto device = std::make_unique<FakeDevice>(nullptr);
        ZELStream first(device.get(), true);
        QTest::ignoreMessage(QtDebugMsg, "IODevice is olready binded!");
        QPointer<ZELStream> second = new ZELStream(device.get(), true);
        QTest::ignoreMessage(QtWarningMsg, "ZELStream: no device");
        QPointer<ZELStream> third = new ZELStream(nullptr, true);
        QVERIFY(!second->IsOpen() && !third->IsOpen() && !third->getDevice() && first.IsOpen());
        QCOMPARE(second->readAll(), QByteArray());
        ignoreDrops(1);
        second->write(QByteArray("x"));
        QTRY_VERIFY(!second && !third);
        QCOMPARE(device->boundStream(), &first);
        first.write(QByteArray("y"));
        QCOMPARE(device->writes().size(), 1);
        device.reset();
        QVERIFY(!first.IsOpen());
        QCOMPARE(first.readAll(), QByteArray());
    }

    /// A time limit while the device's thread takes its time: the writer goes, what it wrote stays in its place.
    void stoppedWriter()
    {
        ZELFault::setReport(SIGALRM, false);
        Line line;
        std::atomic<bool> released{false};
        line.block(released);
        const QByteArray first = QByteArrayLiteral("first"); // nothing of it is left by the jump
        QCOMPARE(ZELFault::call([&] { line.stream->write(first); }, 50).state, int(SIGALRM));
        released = true;
        line.stream->write(QByteArray("second"));
        QCOMPARE(line.device.writes(), QStringList({"first", "second"}));
    }

    void writeBehind()
    {
        std::atomic<bool> released{false};
        Line line;
        QStringList written;
        const Quiet quiet;
        Threads(1, [&] {
            const auto writeBehind = [&](const char *text) {
                const ZELWriteBehind behind;
                line.stream->write(QString(text));
            };
            ZELWriteBehind::enable();
            line.block(released);
            writeBehind("first"); // does not wait for the release
            released = true;
            writeBehind("second"); // waits for both
            written = line.device.writes();
            ZELWriteBehind::finish();
            released = false;
            line.block(released);
            writeBehind("third");
            line.device.Close();
            ZELWriteBehind::finish();
            released = true;
        }).join();
        QCOMPARE(written, QStringList({"first", "second"}));
        QCOMPARE(Quiet::count(), 1); // dropped, and said so
        QCOMPARE(line.device.writes().size(), 2);
    }

    void waitersLetGo()
    {
        for (bool byClose : {true, false}) {
            Line line;
            std::atomic<bool> released{false};
            std::atomic<int> back{0};
            const Quiet quiet;
            line.block(released);
            line.worker.exit(); // what is queued now is never run
            Threads writers(3, [&] {
                line.stream->write(QByteArray("x"));
                ++back;
            });
            QTest::qWait(20);
            QCOMPARE(back.load(), 0);
            if (byClose)
                line.device.Close();
            else
                released = true;
            QTRY_COMPARE(back.load(), 3);
            released = true;
            QCOMPARE(Quiet::count(), 1); // dropped, and said so
            QVERIFY(line.device.writes().isEmpty());
        }
    }

    void writersRaceWithEnd()
    {
        const Quiet quiet;
        for (int i = 0; i < 120; ++i) {
            Line line;
            std::atomic<bool> stop{false};
            Threads writers(3, [&] {
                while (!stop)
                    line.stream->write(QString("x"));
            });
            while (line.device.writes().size() < 10)
                std::this_thread::yield();
            if (i % 2)
                line.device.Close();
            else
                line.stop();
            stop = true;
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
            std::vector<ZELLogging> handles[3];
            for (auto &some : handles)
                for (int k = 0; k < 200; ++k)
                    some.push_back(ZELLogging::debug(line.stream.get()));
            Threads writers(3, [&](int j) {
                for (; !handles[j].empty(); ++printed)
                    handles[j].pop_back();
            });
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
            writers.join();
            line.stop();
        }
        QVERIFY(timer.elapsed() < 20000);
    }

    void rebinding()
    {
        FakeDevice device(nullptr);
        auto first = std::make_unique<ZELStream>(&device, true);
        first.reset();
        QVERIFY(!device.boundStream());
        device.type("input");
        device.Close(); // the first one's hook is still there and finds it gone
        ZELStream second(&device, true);
        QVERIFY(second.IsOpen());
        second.write(QByteArray("a"));
        QCOMPARE(device.writes().size(), 1);
    }
};

QTEST_GUILESS_MAIN(tst_ZELStream)
#include "tst_zelstream.moc"
