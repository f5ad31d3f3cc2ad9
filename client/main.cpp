// SPDX-License-Identifier: MIT
// zelsh: commands and sessions on a host's remote shell; see zelsh.1.
#include "options.h"
#include "runner.h"
#include "terminal.h"

#include <QCoreApplication>
#include <QFile>
#include <cstdio>
#include <optional>
#include <unistd.h>
#include <zelshellclient.h>

namespace {

Status say(Status status, const QString &message)
{
    std::fprintf(stderr, "zelsh: %s\n", qPrintable(message));
    return status;
}

bool open(ZELShellClient &client, const Options &options)
{
    constexpr int patience = 10000;
    if (!options.listen)
        return client.connectToHost(options.host, options.port, patience);
    if (!client.listen(options.host, options.port))
        return false;
    std::fprintf(stderr, "zelsh: waiting at port %d\n", int(client.listenPort()));
    return client.waitForHost(-1);
}

QString reasonOf(const ZELShellClient &client, const Options &options)
{
    const QString reason = client.errorString().remove("Error : ");
    return reason == "login required" && !options.user.isEmpty() ? "login refused" : reason;
}

Status runScript(ZELShellClient &client, const Options &options)
{
    const bool standard = options.scriptFile.isEmpty() || options.scriptFile == "-";
    QFile script(options.scriptFile);
    const bool good = standard ? script.open(stdin, QIODevice::ReadOnly) : script.open(QIODevice::ReadOnly);
    if (!good)
        return say(Usage, options.scriptFile + ": " + script.errorString());
    return Runner(client, options).runScript(script);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    // What concerns the person is said by this program, in one line each.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    const Options options = Options::parse(QCoreApplication::arguments());
    const bool interactive = options.command.isEmpty() && options.scriptFile.isEmpty() && isatty(STDIN_FILENO);

    ZELShellClient client;
    client.setUser(options.user, options.password);
    client.setKey(options.key);
    std::optional<Terminal> terminal;
    if (interactive)
        terminal.emplace(client);
    if (!open(client, options))
        return say(NoConnection, options.address() + ": " + reasonOf(client, options));
    if (!options.user.isEmpty() && !client.isLogin())
        return say(NoConnection, options.address() + ": login refused");
    if (interactive)
        return terminal->run(options.address());
    if (options.command.isEmpty())
        return runScript(client, options);
    return Runner(client, options).runCommand(options.command);
}
