// SPDX-License-Identifier: MIT
#include "families.h"

#include <zelshellserver.h>

using Channel = ZELLogging (ZELArguments::*)() const;

static const Channel channels[] = {&ZELArguments::debug, &ZELArguments::info, &ZELArguments::warning,
    &ZELArguments::error, &ZELArguments::critical, &ZELArguments::fatal, &ZELArguments::stream, &ZELArguments::object};

static void print(const ZELArguments &args, int number, const QStringList &words)
{
    const Channel channel = channels[number];
    (args.*channel)().noquote() << words.join(' ');
}

void addLogCommands(ZELShellServer &server)
{
    server.command("log", "print", print)
        .multiRun()
        .help("prints on a channel")
        .argument("level")
        .choices({{"debug", 0}, {"info", 1}, {"warning", 2}, {"error", 3}, {"critical", 4}, {"fatal", 5}, {"stream", 6},
            {"object", 7}})
        .argument("text")
        .range(1, 10000);
    server.describeDirectory("log", "writes on every output channel");
}
