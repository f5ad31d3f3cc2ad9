// SPDX-License-Identifier: MIT
// Who a session is to the commands.
#include "zelshell_p.h"

#include "zelshellcommand_p.h"
#include "zeluserroles.h"

ZELCommandAudience ZELShellPrivate::audience() const
{
    ZELSessionLock lock(mutex);
    return {!roles && isMain, roles.value_or(QStringList()) + userRoles};
}

void ZELShellPrivate::takeUserRoles(const QString &userName)
{
    const QStringList taken = ZELUserRoles::roles(loginDatabase(), userName);
    ZELSessionLock lock(mutex);
    userRoles = taken;
}

bool ZELShellPrivate::hasRoleFor(ZELShellCommand *command) const
{
    const ZELShellCommandPrivate *const wanted = ZELShellCommandPrivate::get(command);
    return !wanted->restricted || wanted->isFor(audience());
}

void ZELShell::setRoles(const QStringList &roles)
{
    ZELSessionLock lock(d->mutex);
    d->roles = roles;
}

QStringList ZELShell::roles() const
{
    return d->audience().roles;
}
