// SPDX-License-Identifier: MIT
#include "arguments.h"
#include "families.h"

#include <QNetworkInterface>
#include <QStringList>
#include <zelshellserver.h>

static QString describe(const QNetworkInterface &interface)
{
    const auto flags = interface.flags();
    QString text = interface.name().leftJustified(12) + (flags & QNetworkInterface::IsUp ? "up  " : "down");
    if (flags & QNetworkInterface::IsLoopBack)
        text += "  loopback";
    else if (!interface.hardwareAddress().isEmpty())
        text += "  " + interface.hardwareAddress();
    for (const QNetworkAddressEntry &entry : interface.addressEntries())
        text += QStringLiteral("\r\n    %1/%2").arg(entry.ip().toString()).arg(entry.prefixLength());
    return text;
}

static void interfaces(const ZELArguments &args)
{
    QStringList blocks;
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces())
        blocks += describe(interface);
    if (blocks.isEmpty())
        return refuse(args, "network/interfaces: the kernel names no interface");
    print(args, blocks.join("\r\n"));
}

void addNetworkCommands(ZELShellServer &server)
{
    server.command("network", "interfaces", interfaces).multiRun().help("network interfaces with state and addresses");
    server.describeDirectory("network", "the interfaces of the board");
}
