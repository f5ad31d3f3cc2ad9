// SPDX-License-Identifier: MIT
// Splitting lines, building records, one log message on its way, one task on its way to a thread.
#include "zelarguments_p.h"
#include "zelcommandsplit_p.h"
#include "zeliodevice.h"
#include "zelstream.h"
#include "zelthreadpool.h"

#include <QCoreApplication>
#include <QDebug>
#include <QSemaphore>
#include <QThread>
#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <thread>

namespace {
class Swallow : public ZELAbstractStream
{
public:
    ~Swallow() override { endLife(); }
    QByteArray readAll() override { return {}; }
    void write(QByteArray data) override { benchmark::DoNotOptimize(data.data()); }
    void write(QString data) override { benchmark::DoNotOptimize(data.data()); }
    bool IsOpen() override { return true; }
};

class SwallowingDevice : public ZELIODevice
{
public:
    explicit SwallowingDevice(QThread *thread)
        : m_thread(thread)
    {
    }
    ~SwallowingDevice() override { endLife(); }
    QByteArray readAll() override { return {}; }
    void write(QByteArray data) override { benchmark::DoNotOptimize(data.data()); }
    void write(QString data) override { benchmark::DoNotOptimize(data.data()); }
    void Start() override { }
    void Close() override { callCloseHook(); }
    QThread *innerThread() override { return m_thread; }
    bool readValid() const override { return true; }
    bool writeValid() const override { return true; }

private:
    QThread *m_thread;
};

const char sixty[] = "network/route --add 10.0.0.0/8 --via \"10.1.2.3 eth0\" metric=5";
static_assert(sizeof sixty - 1 >= 60);

void splitLine(benchmark::State &state)
{
    const QString line = QString::fromLatin1(sixty).leftJustified(int(state.range(0)), QLatin1Char(' '))
        + QString::fromLatin1(sixty).repeated(int(state.range(0)) / 60);
    const QString input = line.right(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(zelSplitCommandLine(input, true, true));
    state.SetBytesProcessed(state.iterations() * input.size());
}
BENCHMARK(splitLine)->Arg(60)->Arg(1 << 20);

void nestedBrackets(benchmark::State &state)
{
    const QString line
        = QString(int(state.range(0)), QLatin1Char('(')) + QString(int(state.range(0)), QLatin1Char(')'));
    for (auto _ : state)
        benchmark::DoNotOptimize(zelSplitCommandLine(line, true, true));
    state.SetBytesProcessed(state.iterations() * line.size());
}
BENCHMARK(nestedBrackets)->Arg(200000);

void buildRecord(benchmark::State &state)
{
    const QString line = QString::fromLatin1(sixty);
    for (auto _ : state)
        benchmark::DoNotOptimize(ZELArguments(nullptr, line).Length());
}
BENCHMARK(buildRecord);

void copyRecord(benchmark::State &state)
{
    const ZELArguments args(nullptr, QString::fromLatin1(sixty));
    for (auto _ : state)
        benchmark::DoNotOptimize(ZELArguments(args));
}
BENCHMARK(copyRecord);

void logMessage(benchmark::State &state)
{
    Swallow stream;
    for (auto _ : state)
        ZELLogging::debug(&stream) << "fan" << 3 << QStringLiteral("stopped");
}
BENCHMARK(logMessage);

/// The same message through Qt's own log, to compare with.
void plainMessage(benchmark::State &state)
{
    const auto before = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext &, const QString &text) { benchmark::DoNotOptimize(text.constData()); });
    for (auto _ : state)
        qDebug() << "fan" << 3 << QStringLiteral("stopped");
    qInstallMessageHandler(before);
}
BENCHMARK(plainMessage);

/// What carrying a write into the device's thread and waiting for it costs.
void streamHop(benchmark::State &state)
{
    QThread worker;
    worker.start();
    {
        SwallowingDevice device(&worker);
        ZELStream stream(&device, true);
        const QByteArray data("x");
        for (auto _ : state)
            stream.write(data);
    }
    worker.quit();
    worker.wait();
}
BENCHMARK(streamHop)->UseRealTime();

/// From posting a task to its first instruction, on a thread of the pool that sleeps.
void poolPostToRun(benchmark::State &state)
{
    using Clock = std::chrono::steady_clock;
    QSemaphore ran;
    Clock::time_point arrived;
    for (auto _ : state) {
        const auto posted = Clock::now();
        ZELThread *const thread = ZELThreadPool::Pool()->BeginInvoke([&] {
            arrived = Clock::now();
            ran.release();
        });
        ran.acquire();
        state.SetIterationTime(std::chrono::duration<double>(arrived - posted).count());
        while (thread->IsBusy())
            std::this_thread::yield();
    }
}
BENCHMARK(poolPostToRun)->UseManualTime();

/// The poster's part alone: nobody waits for the tasks, and the pool may add threads for them.
void poolPost(benchmark::State &state)
{
    constexpr int Batch = 1024; // bounds what is queued
    std::atomic<qint64> ran{0};
    qint64 posted = 0;
    for (auto _ : state) {
        ZELThreadPool::Pool()->BeginInvoke([&] { ++ran; });
        if (++posted % Batch)
            continue;
        state.PauseTiming();
        while (ran < posted)
            std::this_thread::yield();
        state.ResumeTiming();
    }
    while (ran < posted)
        std::this_thread::yield();
    state.SetItemsProcessed(posted);
    state.counters["threads"] = ZELThreadPool::Pool()->NumberOfThread();
}
BENCHMARK(poolPost)->UseRealTime();
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv); // threads deliver nothing without it
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
