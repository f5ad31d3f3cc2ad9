// SPDX-License-Identifier: MIT
// Commands per second through one client, with some number of records in flight, against a server in this process.
#include <QCoreApplication>
#include <QThread>
#include <benchmark/benchmark.h>
#include <zelshellclient.h>
#include <zelshellserver.h>

namespace {

class Commands : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    QVariant nothing(ZELArguments) { return {}; }
};

/// A server with an event loop of its own: the clients of this program block.
class Host
{
public:
    Host()
    {
        m_there.moveToThread(&m_thread);
        m_thread.start();
        QMetaObject::invokeMethod(
            &m_there,
            [this] {
                server = new ZELShellServer;
                server->registerCmd("", "nothing", &m_commands, SLOT(nothing(ZELArguments)), true);
                server->setListenAddress(QHostAddress::LocalHost);
                server->startTcpServer(0);
            },
            Qt::BlockingQueuedConnection);
    }
    ~Host()
    {
        QMetaObject::invokeMethod(
            &m_there, [this] { delete server; }, Qt::BlockingQueuedConnection);
        m_thread.quit();
        m_thread.wait();
    }
    ZELShellServer *server = nullptr;

private:
    QThread m_thread;
    QObject m_there;
    Commands m_commands;
};

void commands(benchmark::State &state)
{
    Host host;
    ZELShellClient client;
    if (!client.connectToHost(QStringLiteral("127.0.0.1"), host.server->serverPort()))
        return state.SkipWithError("no connection");
    const int inFlight = int(state.range(0));
    std::vector<std::shared_ptr<ZELShellProcess>> window(static_cast<size_t>(inFlight));
    size_t next = 0;
    for (auto _ : state) {
        auto &slot = window[next++ % window.size()];
        if (slot && !slot->wait(10000))
            return state.SkipWithError("no answer");
        slot = client.execute(QStringLiteral("nothing"));
    }
    for (auto &slot : window)
        if (slot)
            slot->wait(10000);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(commands)->Arg(1)->Arg(64)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
#include "bench_client.moc"
