// SPDX-License-Identifier: MIT
#include "arguments.h"
#include "families.h"

#include <QStorageInfo>
#include <QStringList>
#include <zelshellserver.h>

static QString row(const QStorageInfo &storage)
{
    const qint64 total = storage.bytesTotal();
    const qint64 used = total - storage.bytesFree();
    return QStringLiteral("%1 %2 %3%  %4 (%5)")
        .arg(inBytes(total), 11)
        .arg(inBytes(used), 11)
        .arg((used * 100 + total / 2) / total, 4)
        .arg(storage.rootPath(), QString::fromLocal8Bit(storage.fileSystemType()));
}

static void usage(const ZELArguments &args, const std::optional<QString> &path)
{
    const auto volumes = path ? QList<QStorageInfo>{QStorageInfo(*path)} : QStorageInfo::mountedVolumes();
    QStringList lines{"       SIZE        USED  FULL  MOUNTED ON"};
    for (const QStorageInfo &storage : volumes) {
        // Kernel file systems such as proc have no size.
        if (storage.isValid() && storage.isReady() && storage.bytesTotal() > 0)
            lines += row(storage);
    }
    if (lines.size() == 1)
        return refuse(args, "storage/usage: no storage of any size " + (path ? "at " + *path : "is mounted"));
    print(args, lines.join("\r\n"));
}

void addStorageCommands(ZELShellServer &server)
{
    server.command("storage", "usage", usage)
        .multiRun()
        .help("how full the file systems, or that of a path, are")
        .argument("path")
        .completeFiles();
    server.describeDirectory("storage", "what is mounted");
}
