// SPDX-License-Identifier: MIT
#include "storagecommands.h"

#include "arguments.h"
#include "commandbook.h"

#include <QStorageInfo>
#include <QStringList>

StorageCommands::StorageCommands(CommandBook &book, QObject *parent)
    : QObject(parent)
{
    book.add("storage/usage [PATH]", "how full the file systems, or that of PATH, are", this, SLOT(usage(ZELArguments)),
        CommandBook::Shared);
}

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

QVariant StorageCommands::usage(ZELArguments args)
{
    if (!takes(args, 0, 1))
        return {};
    QList<QStorageInfo> volumes = QStorageInfo::mountedVolumes();
    if (args.ArgumentsLength())
        volumes = {QStorageInfo(unquoted(args[1]))};
    QStringList lines{"       SIZE        USED  FULL  MOUNTED ON"};
    for (const QStorageInfo &storage : volumes) {
        // Kernel file systems such as proc have no size.
        if (storage.isValid() && storage.isReady() && storage.bytesTotal() > 0)
            lines += row(storage);
    }
    if (lines.size() == 1)
        return refuse(
            args, "storage/usage: no storage of any size " + (args.ArgumentsLength() ? "at " + args[1] : "is mounted"));
    print(args, lines.join("\r\n"));
    return {};
}
