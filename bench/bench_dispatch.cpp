// SPDX-License-Identifier: MIT
// What a command costs beyond its try frame, and that it does not depend on how many there are.
#include "zelguard_p.h"
#include "zelshellcommandtree_p.h"
#include "zelshellserver_p.h"

#include <benchmark/benchmark.h>

class Board : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    void empty(ZELArguments) { }
};

static void registerMany(ZELShellServer &server, Board &board, int count)
{
    for (int i = 0; i < count; ++i)
        server.registerCmd("board/many", "empty" + QByteArray::number(i), &board, SLOT(empty(ZELArguments)));
}

static void frame(benchmark::State &state)
{
    for (auto _ : state) {
        ZELFrame frame;
        zelGuard(frame.get(), [] {});
    }
}
BENCHMARK(frame);

static void execute(benchmark::State &state)
{
    ZELShellServer server;
    Board board;
    registerMany(server, board, state.range(0));
    const QString path = QStringLiteral("board/many"), name = QStringLiteral("empty0");
    for (auto _ : state)
        server.execute(nullptr, path, name, name);
}
BENCHMARK(execute)->Arg(1)->Arg(100)->Arg(1000);

/// Without the record: look-up, frame and call.
static void dispatch(benchmark::State &state)
{
    ZELShellServer server;
    Board board;
    registerMany(server, board, state.range(0));
    const auto shared = ZELShellServerState::current();
    const QStringList pieces{"board", "many", "empty0"};
    const ZELArguments record(nullptr, "empty0");
    for (auto _ : state)
        ZELShellCommandPin::walk(shared->mainRoot(), pieces).execute(record);
}
BENCHMARK(dispatch)->Arg(1)->Arg(100)->Arg(1000);

static void record(benchmark::State &state)
{
    const QString line = QStringLiteral("empty0");
    for (auto _ : state)
        benchmark::DoNotOptimize(ZELArguments(nullptr, line));
}
BENCHMARK(record);

BENCHMARK_MAIN();
#include "bench_dispatch.moc"
