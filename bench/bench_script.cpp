// SPDX-License-Identifier: MIT
// What a script adds to what it runs: an empty loop, and a statement in a loop against the same statement by itself.
#include "zelscriptevaluator_p.h"
#include "zelshell.h"
#include "zelshellserver.h"

#include <benchmark/benchmark.h>

namespace {

/// Ends after so many rounds; no variable is anything.
class CountingHost : public ZELScriptHost
{
public:
    Result run(const QString &) override { return {}; }
    QString variable(const QString &) override { return QString(); }
    void setVariable(const QString &, const QString &) override { }
    void define(const ZELScriptStep &) override { }
    bool isEnding() override { return --left < 0; }
    qint64 left = 0;
};

ZELScriptBody parsed(const QString &code)
{
    ZELScriptError error;
    return zelParseScript(code, &error);
}

void emptyLoop(benchmark::State &state)
{
    const ZELScriptBody script = parsed(QStringLiteral("while (1) { }"));
    CountingHost host;
    for (auto _ : state) {
        host.left = state.range(0);
        ZELScriptEvaluator(host).run(*script);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(emptyLoop)->Arg(1000000)->Unit(benchmark::kMillisecond);

void expression(benchmark::State &state)
{
    int offset = 0;
    QString problem;
    const auto parsed = ZELScriptExpression::parse(QStringLiteral("$i + 1"), &offset, &problem);
    for (auto _ : state)
        benchmark::DoNotOptimize(parsed->evaluate([](const QString &) { return QStringLiteral("12"); }, &problem));
}
BENCHMARK(expression);

/// By itself, and a hundred times in a loop over words, which has no expression.
void statement(benchmark::State &state, bool inLoop)
{
    ZELShellServer server;
    server.command("text", "empty", [] {}).multiRun();
    ZELShell shell(nullptr);
    const QString words = QStringLiteral("w ").repeated(100);
    const QString loop = QStringLiteral("for $w in (%1) { text/empty }").arg(words);
    for (auto _ : state) {
        if (inLoop)
            shell.Execute(loop, false);
        for (int i = 0; !inLoop && i < 100; ++i)
            shell.Execute(QStringLiteral("text/empty"), false);
    }
    state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK_CAPTURE(statement, alone, false);
BENCHMARK_CAPTURE(statement, inLoop, true);

} // namespace

BENCHMARK_MAIN();
