// SPDX-License-Identifier: MIT
#ifndef PROCFS_H
#define PROCFS_H

#include <QByteArray>
#include <QString>
#include <QVector>

/*
 * The kernel's figures: pure readers of the text forms under /proc, and what fetches them.
 */
namespace procfs {

struct Process
{
    int pid = 0;
    QChar state;
    qint64 residentBytes = 0;
    QString name;
};

/// A whole file; empty when it cannot be read, such as that of a process that has just ended.
QByteArray contents(const QString &path);

/// The first figure of /proc/uptime in seconds, or -1.
double uptimeSeconds(const QByteArray &uptime);

/// "2 days, 03:04:05"; the days are left out when there are none.
QString duration(double seconds);

/// A line of /proc/meminfo ("MemTotal") or /proc/self/status ("VmRSS") in bytes, or -1 when it is not there.
qint64 bytesOf(const QByteArray &text, const QByteArray &key);

/// One /proc/PID/stat. The name stands in brackets and may itself hold blanks and brackets. A pid of 0 means the
/// text was not understood.
Process process(const QByteArray &stat, long pageSize);

/// All processes that can be seen, the largest first.
QVector<Process> processes();

} // namespace procfs

#endif
