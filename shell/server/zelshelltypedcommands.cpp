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

bool ZELShellServer::describeDirectory(const QString &path, const QString &text)
{
    const auto pin = ZELShellCommandPin::walk(d->state->mainRoot(), path.split(QLatin1Char('/'), Qt::SkipEmptyParts));
    if (!pin || pin.command())
        return false;
    ZELShellCommandTreePrivate::setSummary(pin.node(), text);
    return true;
}

static bool changeTraits(const ZELShellCommandPin &pin, const std::function<void(ZELCommandTraits &)> &change)
{
    ZELShellCommand *command = pin.command();
    if (command)
        ZELShellCommandPrivate::get(command)->changeTraits(change);
    return command;
}

bool ZELShellServer::setHidden(const QString &path, const QString &name, bool on)
{
    return changeTraits(zelLocateCommand(*d->state, path, name), [&](auto &traits) { traits.hidden = on; });
}

bool ZELShellServer::setDeprecated(const QString &path, const QString &name, const QString &replacement)
{
    return changeTraits(
        zelLocateCommand(*d->state, path, name), [&](auto &traits) { traits.replacement = replacement; });
}

bool ZELShellServer::setGroup(const QString &path, const QString &name, const QString &group)
{
    return changeTraits(zelLocateCommand(*d->state, path, name), [&](auto &traits) { traits.group = group; });
}

bool ZELShellServer::setRole(const QString &path, const QString &name, const QString &role)
{
    return changeTraits(zelLocateCommand(*d->state, path, name), [&](auto &traits) { traits.role = role; });
}

void ZELShellServer::setFilters(bool on)
{
    d->state->change([&](ZELShellSettings &settings) { settings.filters = on; });
}
