// SPDX-License-Identifier: MIT
#include "networkcommands.h"

#include "arguments.h"
#include "commandbook.h"

#include <QNetworkInterface>
#include <QStringList>

NetworkCommands::NetworkCommands(CommandBook &book, QObject *parent)
    : QObject(parent)
{
    book.add("network/interfaces", "network interfaces with state and addresses", this, SLOT(interfaces(ZELArguments)),
        CommandBook::Shared);
}

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

QVariant NetworkCommands::interfaces(ZELArguments args)
{
    if (!takes(args, 0, 0))
        return {};
    QStringList blocks;
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces())
        blocks += describe(interface);
    if (blocks.isEmpty())
        return refuse(args, "network/interfaces: the kernel names no interface");
    print(args, blocks.join("\r\n"));
    return {};
}
