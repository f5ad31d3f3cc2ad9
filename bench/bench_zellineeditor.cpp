// SPDX-License-Identifier: MIT
// What typing costs: a byte at the end of a line, in the middle of one, and Tab over large directories.
#include "zelcompleter_p.h"
#include "zellineeditor_p.h"

#include <benchmark/benchmark.h>

namespace {

void typeAtEnd(benchmark::State &state)
{
    for (auto _ : state) {
        ZELLineEditor editor;
        editor.setUtf8(state.range(1));
        for (int i = 0; i < state.range(0); ++i)
            editor.feed('x');
        benchmark::DoNotOptimize(editor.takeOutput());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(typeAtEnd)->Args({60, 0})->Args({1 << 20, 0})->Args({1 << 20, 1});

void typeInside(benchmark::State &state)
{
    ZELLineEditor editor;
    for (int i = 0; i < 60; ++i)
        editor.feed('x');
    for (const char byte : QByteArray("\033[D").repeated(30))
        editor.feed(byte);
    for (auto _ : state) {
        editor.feed('y');
        editor.feed('\177');
        benchmark::DoNotOptimize(editor.takeOutput());
    }
}
BENCHMARK(typeInside);

void tab(benchmark::State &state)
{
    ZELListing commands;
    for (int i = 0; i < state.range(0); ++i)
        commands.append({QStringLiteral("command%1").arg(i), ZELShellCommandTree::Execute});
    ZELCompletionScope scope;
    scope.fromRoot = scope.fromCurrent
        = [&](const QStringList &, const QString &) { return std::make_optional(commands); };
    scope.systemCommands = [] { return ZELListing(); };
    for (auto _ : state)
        benchmark::DoNotOptimize(zelComplete(QStringLiteral("com"), scope, 80));
}
BENCHMARK(tab)->Arg(10)->Arg(1000);

} // namespace

BENCHMARK_MAIN();
