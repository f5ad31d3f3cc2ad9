// SPDX-License-Identifier: MIT
#ifndef PROCESSINFO_H
#define PROCESSINFO_H

#include <QByteArray>
#include <QDir>
#include <QFile>

/// What this process holds at the moment.
namespace processinfo {

inline int entries(const char *directory)
{
    return QDir(QString::fromLatin1(directory))
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}

inline int descriptors()
{
    return entries("/proc/self/fd") - 1; // the listing's own
}

inline int threads()
{
    return entries("/proc/self/task");
}

/// Resident memory in kB.
inline int resident()
{
    QFile status(QStringLiteral("/proc/self/status"));
    status.open(QIODevice::ReadOnly);
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toInt();
    return -1;
}

} // namespace processinfo

#endif
