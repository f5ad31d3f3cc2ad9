// SPDX-License-Identifier: MIT
#include "systemcommands.h"

#include "arguments.h"
#include "commandbook.h"
#include "procfs.h"

#include <QStringList>

SystemCommands::SystemCommands(CommandBook &book, QObject *parent)
    : QObject(parent)
{
    const auto shared = CommandBook::Shared;
    book.add("system/uptime", "time since the board started, and its load", this, SLOT(uptime(ZELArguments)), shared);
    book.add("system/memory", "memory of the board and of this program", this, SLOT(memory(ZELArguments)), shared);
    book.add(
        "system/processes [COUNT]", "the COUNT largest processes, or all", this, SLOT(processes(ZELArguments)), shared);
}

QVariant SystemCommands::uptime(ZELArguments args)
{
    if (!takes(args, 0, 0))
        return {};
    const double seconds = procfs::uptimeSeconds(procfs::contents("/proc/uptime"));
    if (seconds < 0)
        return refuse(args, "system/uptime: /proc/uptime cannot be read");
    const QByteArrayList load = procfs::contents("/proc/loadavg").split(' ').mid(0, 3);
    print(args, "up " + procfs::duration(seconds) + ", load " + load.join(' '));
    return {};
}

QVariant SystemCommands::memory(ZELArguments args)
{
    if (!takes(args, 0, 0))
        return {};
    const QByteArray board = procfs::contents("/proc/meminfo");
    const QByteArray self = procfs::contents("/proc/self/status");
    const struct
    {
        const char *label;
        qint64 bytes;
    } rows[] = {
        {"total", procfs::bytesOf(board, "MemTotal")},
        {"available", procfs::bytesOf(board, "MemAvailable")},
        {"free", procfs::bytesOf(board, "MemFree")},
        {"cached", procfs::bytesOf(board, "Cached")},
        {"swap total", procfs::bytesOf(board, "SwapTotal")},
        {"swap free", procfs::bytesOf(board, "SwapFree")},
        {"this program", procfs::bytesOf(self, "VmRSS")},
    };
    QStringList lines;
    for (const auto &row : rows) {
        if (row.bytes >= 0)
            lines += QString(row.label).leftJustified(13) + inBytes(row.bytes).rightJustified(11);
    }
    if (lines.isEmpty())
        return refuse(args, "system/memory: /proc/meminfo cannot be read");
    print(args, lines.join("\r\n"));
    return {};
}

QVariant SystemCommands::processes(ZELArguments args)
{
    int count = INT_MAX;
    if (!takes(args, 0, 1) || (args.ArgumentsLength() && !takesNumber(args, 1, "COUNT", 1, INT_MAX, &count)))
        return {};
    QStringList lines{"    PID S    RESIDENT NAME"};
    for (const procfs::Process &process : procfs::processes().mid(0, count)) {
        lines += QStringLiteral("%1 %2 %3 %4")
                     .arg(process.pid, 7)
                     .arg(process.state)
                     .arg(inBytes(process.residentBytes), 11)
                     .arg(process.name);
    }
    print(args, lines.join("\r\n"));
    return {};
}
