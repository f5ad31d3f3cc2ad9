// SPDX-License-Identifier: MIT
#include "zelshellserver_p.h"

#include "zeladmission_p.h"

#include "zelshellcommand_p.h"

void ZELShellServer::setShellCachePath(const QString &path)
{
    const ZELServerLock locked(d->mutex);
    d->cachePath = path;
}

QString ZELShellServer::shellCachePath() const
{
    const ZELServerLock locked(d->mutex);
    return d->cachePath;
}

void ZELShellServer::setHelpFunction(std::function<void(ZELArguments)> function)
{
    d->state->change([&](ZELShellSettings &settings) { settings.help.swap(function); });
}

void ZELShellServer::setWeakupFunction(std::function<void(ZELArguments)> function)
{
    d->state->change([&](ZELShellSettings &settings) { settings.weakup.swap(function); });
}

void ZELShellServer::setDatabase(QSqlDatabase database)
{
    const ZELServerLock locked(d->mutex);
    d->database = database;
}

void ZELShellServer::setMaxPendingConnections(int count)
{
    const ZELServerLock locked(d->mutex);
    d->maxPendingConnections = count;
}

int ZELShellServer::maxPendingConnections() const
{
    const ZELServerLock locked(d->mutex);
    return d->maxPendingConnections;
}

void ZELShellServer::setCommandTimeout(int ms)
{
    ZELShellCommandPrivate::defaultTimeLimit = qMax(0, ms);
}

void ZELShellServer::setInterruptible(bool on)
{
    d->state->change([&](ZELShellSettings &settings) { settings.interruptible = on; });
}

void ZELShellServer::setUtf8Editing(bool on)
{
    d->state->change([&](ZELShellSettings &settings) { settings.utf8Editing = on; });
}

void ZELShellServer::setEditing(Editing editing)
{
    d->state->change([&](ZELShellSettings &settings) { settings.editing = int(editing); });
}

void ZELShellServer::setPrompt(std::function<QString(const ZELShell &)> prompt)
{
    d->state->change([&](ZELShellSettings &settings) { settings.prompt = std::move(prompt); });
}

void ZELShellServer::setLineLimit(int bytes)
{
    d->state->change([&](ZELShellSettings &settings) { settings.lineLimit = qMax(0, bytes); });
}

void ZELShellServer::setListenAddress(const QHostAddress &address)
{
    const ZELServerLock locked(d->mutex);
    d->listenAddress = address;
}

QHostAddress ZELShellServer::listenAddress() const
{
    const ZELServerLock locked(d->mutex);
    return d->listenAddress;
}

void ZELShellServer::setLoginRequired(bool on)
{
    d->state->change([&](ZELShellSettings &settings) { settings.loginRequired = on; });
}

void ZELShellServer::setPermissionFunction(std::function<bool(const ZELArguments &)> function)
{
    d->state->change([&](ZELShellSettings &settings) { settings.permission.swap(function); });
}

void ZELShellServer::setRemoteSystemCommands(bool on)
{
    d->state->change([&](ZELShellSettings &settings) { settings.remoteSys = on; });
}

void ZELShellServer::setKeyLogin(bool on)
{
    d->state->change([&](ZELShellSettings &settings) { settings.keyLogin = on; });
}

void ZELShellServer::setPasswordHidden(bool on)
{
    d->state->change([&](ZELShellSettings &settings) { settings.passwordHidden = on; });
}

void ZELShellServer::setIdleLimit(int ms)
{
    d->state->change([&](ZELShellSettings &settings) { settings.idleLimit = qMax(0, ms); });
}

void ZELShellServer::setHandshakeLimits(int peers, int ms)
{
    d->admission->setLimit(qMax(0, peers));
    d->state->change([&](ZELShellSettings &settings) { settings.handshakeTime = qMax(0, ms); });
}

void ZELShellServer::setAbandonedLimit(int ms)
{
    d->state->change([&](ZELShellSettings &settings) { settings.abandonedLimit = qMax(0, ms); });
}
