// SPDX-License-Identifier: MIT
#include "zelshellserver_p.h"

#include "zelguard_p.h"

namespace {

struct Locked
{
    explicit Locked(std::mutex &mutex)
        : lock(mutex)
    {
    }
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock;
};

std::mutex currentMutex;
std::weak_ptr<ZELShellServerState> currentState;

} // namespace

ZELShellServer *ZELShellServer::seft = nullptr;

ZELShellServerState::ZELShellServerState()
    : m_systemRoot(new ZELShellCommandTree(QStringLiteral("Sys"), nullptr, nullptr))
    , m_mainRoot(new ZELShellCommandTree(QStringLiteral("Main"), nullptr, nullptr))
{
}

ZELShellServerState::~ZELShellServerState() = default;

std::shared_ptr<ZELShellServerState> ZELShellServerState::current()
{
    Locked locked(currentMutex);
    auto state = currentState.lock();
    return state ? state : std::make_shared<ZELShellServerState>();
}

void ZELShellServerState::setCurrent(const std::shared_ptr<ZELShellServerState> &state)
{
    Locked locked(currentMutex);
    currentState = state;
}

ZELShellSettings ZELShellServerState::settings() const
{
    Locked locked(m_mutex);
    return m_settings;
}

void ZELShellServerState::change(const std::function<void(ZELShellSettings &)> &change)
{
    Locked locked(m_mutex);
    change(m_settings);
}

ZELShellServer::ZELShellServer(QObject *parent)
    : QObject(parent)
    , d(new ZELShellServerPrivate)
{
    qRegisterMetaType<QPointer<ZELShellBase>>("QPointer<ZELShellBase>");
    ZELShellServerState::setCurrent(d->state);
    seft = this;
}

ZELShellServer::~ZELShellServer()
{
    if (seft == this) {
        seft = nullptr;
        ZELShellServerState::setCurrent({});
    }
    d->state->change([](ZELShellSettings &settings) { settings = ZELShellSettings(); });
}

void ZELShellServer::setShellCachePath(const QString &path)
{
    Locked locked(d->mutex);
    d->cachePath = path;
}

QString ZELShellServer::shellCachePath() const
{
    Locked locked(d->mutex);
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
    Locked locked(d->mutex);
    d->database = database;
}

void ZELShellServer::setMaxPendingConnections(int count)
{
    Locked locked(d->mutex);
    d->maxPendingConnections = count;
}

int ZELShellServer::maxPendingConnections() const
{
    Locked locked(d->mutex);
    return d->maxPendingConnections;
}
