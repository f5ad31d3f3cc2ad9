// SPDX-License-Identifier: MIT
#ifndef OPTIONS_H
#define OPTIONS_H

#include <QString>
#include <QStringList>
#include <QUuid>

/// What the command line asks for. Mistakes end the process with a line on standard error and the status for usage.
struct Options
{
    QString host;
    quint16 port = 0;
    bool listen = false; ///< wait for the host at that address instead of calling it
    QString command; ///< empty for none
    QString scriptFile; ///< "-" for standard input, empty for none
    QString user;
    QString password;
    QUuid key;
    int timeoutMs = -1; ///< for each command; -1 for none
    bool json = false;

    static Options parse(const QStringList &arguments);
    QString address() const;
};

#endif
