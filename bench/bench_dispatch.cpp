// SPDX-License-Identifier: MIT
// What a command costs beyond its try frame, and that it does not depend on how many there are.
#include "zelcompleter_p.h"
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

/// The same with three words that are checked and converted, and without: three arguments may cost 1.5 us more.
static void dispatchWords(benchmark::State &state, bool typed)
{
    ZELShellServer server;
    Board board;
    if (typed)
        server
            .command("board", "set",
                [](int number, double factor, const QString &note) { return number + note.size() + factor; })
            .argument("number")
            .range(1, 8);
    else
        server.registerCmd("board", "set", &board, SLOT(empty(ZELArguments)));
    const auto shared = ZELShellServerState::current();
    const QStringList pieces{"board", "set"};
    const ZELArguments record(nullptr, "set 3 1.5 abc");
    for (auto _ : state)
        ZELShellCommandPin::walk(shared->mainRoot(), pieces).execute(record);
}
BENCHMARK_CAPTURE(dispatchWords, slot, false);
BENCHMARK_CAPTURE(dispatchWords, typed, true);

static void registration(benchmark::State &state)
{
    for (auto _ : state) {
        ZELShellServer server;
        for (int i = 0; i < state.range(0); ++i)
            server.command("board/many", "typed" + QByteArray::number(i), [](int number) { return number; })
                .help("One of many")
                .argument("number", "Which one");
    }
}
BENCHMARK(registration)->Arg(10000)->Unit(benchmark::kMillisecond);

static void completion(benchmark::State &state)
{
    ZELShellServer server;
    for (int i = 0; i < state.range(0); ++i)
        server.command("board/many", "typed" + QByteArray::number(i), [](int number) { return number; });
    const auto shared = ZELShellServerState::current();
    const auto scope = ZELCompletionScope::ofTrees(shared->mainRoot(), shared->mainRoot(), shared->systemRoot());
    for (auto _ : state)
        benchmark::DoNotOptimize(zelComplete(QStringLiteral("board/many/typed123"), scope, 80));
}
BENCHMARK(completion)->Arg(10000)->Unit(benchmark::kMillisecond);

static void record(benchmark::State &state)
{
    const QString line = QStringLiteral("empty0");
    for (auto _ : state)
        benchmark::DoNotOptimize(ZELArguments(nullptr, line));
}
BENCHMARK(record);

BENCHMARK_MAIN();
#include "bench_dispatch.moc"
