// SPDX-License-Identifier: MIT
#include "arguments.h"
#include "families.h"
#include "procfs.h"

#include <QStringList>
#include <zelshellserver.h>

static void uptime(const ZELArguments &args)
{
    const double seconds = procfs::uptimeSeconds(procfs::contents("/proc/uptime"));
    if (seconds < 0)
        return refuse(args, "system/uptime: /proc/uptime cannot be read");
    const QByteArrayList load = procfs::contents("/proc/loadavg").split(' ').mid(0, 3);
    print(args, "up " + procfs::duration(seconds) + ", load " + load.join(' '));
}

static void memory(const ZELArguments &args)
{
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
}

static void processes(const ZELArguments &args, std::optional<int> count)
{
    QStringList lines{"    PID S    RESIDENT NAME"};
    for (const procfs::Process &process : procfs::processes().mid(0, count.value_or(-1))) {
        lines += QStringLiteral("%1 %2 %3 %4")
                     .arg(process.pid, 7)
                     .arg(process.state)
                     .arg(inBytes(process.residentBytes), 11)
                     .arg(process.name);
    }
    print(args, lines.join("\r\n"));
}

static QString version()
{
    return QStringLiteral("ZEL Shell " ZELHOST_VERSION ", demonstration host, Qt %1").arg(qVersion());
}

void addSystemCommands(ZELShellServer &server)
{
    server.command("system", "uptime", uptime).multiRun().help("time since the board started, and its load");
    server.command("system", "memory", memory).multiRun().help("memory of the board and of this program");
    server.command("system", "processes", processes)
        .multiRun()
        .help("the largest processes")
        .argument("count", "how many; all when left out")
        .range(1, INT_MAX);
    server.systemCommand("version", version).multiRun().help("tells what runs here");
    server.describeDirectory("system", "how the board is doing, and who is here");
}
