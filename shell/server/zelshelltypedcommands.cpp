// SPDX-License-Identifier: MIT
// The members of ZELShellServer that concern single commands beyond their registration.
#include "zelshellserver_p.h"

#include "zelshellcommand_p.h"

ZELCommandBuilder ZELShellServer::build(const char *path, const char *name, ZELCommandFunction function, bool isSystem)
{
    return ZELCommandBuilder(
        path, name, std::move(function), [this, isSystem](ZELCommandDraft &draft) { return plant(draft, isSystem); });
}

bool ZELShellServer::unregisterCommand(const QString &path, const QString &name)
{
    const ZELShellCommandPin pin = zelLocateCommand(*d->state, path, name);
    if (!pin.command())
        return false;
    ZELShellCommandTreePrivate::takeOut(pin.node()->Parent(), name, ZELShellCommandTreePrivate::serialOf(pin.node()));
    return true;
}
