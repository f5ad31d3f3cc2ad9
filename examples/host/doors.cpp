// SPDX-License-Identifier: MIT
#include "doors.h"

#include <QHostAddress>
#include <zelfault.h>
#include <zelshellserver.h>

void setLimits(ZELShellServer &server)
{
    server.setLineLimit(1024 * 1024);
    server.setInterruptible(true);
    server.setUtf8Editing(true);
    server.setEditing(ZELShellServer::ModernIfTold);
    server.setFilters(true);
}

/// Asked for remote sessions only, with a command's path or, for a built-in, its word.
static bool isPermitted(const ZELArguments &args)
{
    const QString word = args.getExecName(); // args[0] may carry a number, as in "exit#1"
    return !args.getExecPath().startsWith("/Main/fault/") && word != "exit" && word != "reinit";
}

void closeDoors(ZELShellServer &server)
{
    const int tenMinutes = 10 * 60 * 1000;
    const int abandonedMs = 10 * 1000;
    server.setListenAddress(QHostAddress::LocalHost);
    server.setLoginRequired(true);
    server.setKeyLogin(false);
    server.setPasswordHidden(true);
    server.setRemoteSystemCommands(false);
    server.setPermissionFunction(isPermitted);
    server.setIdleLimit(tenMinutes);
    ZELFault::setReportMode(0600);
    server.setAbandonedLimit(abandonedMs);
}
