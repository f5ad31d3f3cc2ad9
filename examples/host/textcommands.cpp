// SPDX-License-Identifier: MIT
#include "arguments.h"
#include "families.h"

#include <zelshellserver.h>

void addTextCommands(ZELShellServer &server)
{
    // The words of the record and not the converted ones, which have lost their quotes.
    server
        .command("text", "echo",
            [](ZELArguments args, const QStringList &) { print(args, QStringList(args).mid(1).join(' ')); })
        .multiRun()
        .help("prints its words as the shell split them")
        .argument("word");
    server.command("text", "ping", [] { return "pong"; }).multiRun().help("prints nothing and returns \"pong\"");
    server.describeDirectory("text", "the smallest commands there are");
}
