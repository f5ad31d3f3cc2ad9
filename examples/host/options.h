// SPDX-License-Identifier: MIT
#ifndef OPTIONS_H
#define OPTIONS_H

#include <QString>

class QCoreApplication;

/// What the command line asks for.
struct Options
{
    bool terminal = true; ///< a shell on the process's terminal
    bool tcp = false; ///< remote shells
    quint16 port = 0; ///< where they connect to; 0 lets the system choose
    bool local = false; ///< serve this machine only
    bool plain = false;
    QString userDb; ///< the SQLite file of the accounts; empty for none
    bool secure = false; ///< close what is open by default
    QString log; ///< a file for the log; empty: standard error, or nowhere if that is the shell's terminal
    QString reports; ///< an existing directory for crash reports; empty for none

    /// Reads the program's arguments; tells what is wrong and ends the program with status 2 when they make no sense.
    static Options parse(const QCoreApplication &app);
};

#endif
