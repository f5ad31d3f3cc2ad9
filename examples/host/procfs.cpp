// SPDX-License-Identifier: MIT
#include "procfs.h"

#include <QDir>
#include <QFile>
#include <algorithm>
#include <unistd.h>

namespace procfs {

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

double uptimeSeconds(const QByteArray &uptime)
{
    bool ok = false;
    const double seconds = uptime.split(' ').value(0).toDouble(&ok);
    return ok ? seconds : -1;
}

QString duration(double seconds)
{
    const auto whole = qint64(seconds);
    const qint64 days = whole / 86400;
    const QString clock = QStringLiteral("%1:%2:%3")
                              .arg(whole / 3600 % 24, 2, 10, QChar('0'))
                              .arg(whole / 60 % 60, 2, 10, QChar('0'))
                              .arg(whole % 60, 2, 10, QChar('0'));
    return days ? QStringLiteral("%1 day%2, %3").arg(days).arg(days == 1 ? "" : "s", clock) : clock;
}

qint64 bytesOf(const QByteArray &text, const QByteArray &key)
{
    for (const QByteArray &line : text.split('\n')) {
        if (!line.startsWith(key + ':'))
            continue;
        bool ok = false;
        const qint64 kib = line.mid(key.size() + 1).simplified().split(' ').value(0).toLongLong(&ok);
        return ok ? kib * 1024 : -1;
    }
    return -1;
}

Process process(const QByteArray &stat, long pageSize)
{
    const int open = stat.indexOf('(');
    const int close = stat.lastIndexOf(')');
    const QList<QByteArray> fields = stat.mid(close + 1).simplified().split(' ');
    const int residentPages = 21; // counted from the state, which follows the name
    if (open < 0 || close < open || fields.size() <= residentPages)
        return {};
    Process result;
    result.pid = stat.left(open).trimmed().toInt();
    result.state = QLatin1Char(fields[0].isEmpty() ? '?' : fields[0][0]);
    result.residentBytes = fields[residentPages].toLongLong() * pageSize;
    result.name = QString::fromLocal8Bit(stat.mid(open + 1, close - open - 1));
    return result;
}

QVector<Process> processes()
{
    QVector<Process> result;
    const long pageSize = sysconf(_SC_PAGESIZE);
    for (const QString &entry : QDir("/proc").entryList({"[0-9]*"}, QDir::Dirs)) {
        const Process found = process(contents("/proc/" + entry + "/stat"), pageSize);
        if (found.pid)
            result += found;
    }
    std::sort(result.begin(), result.end(), [](const Process &a, const Process &b) {
        return a.residentBytes != b.residentBytes ? a.residentBytes > b.residentBytes : a.pid < b.pid;
    });
    return result;
}

} // namespace procfs
