// SPDX-License-Identifier: MIT
#include "zelshellserverstate_p.h"

namespace {

std::mutex currentMutex;
std::weak_ptr<ZELShellServerState> currentState;

} // namespace

ZELShellServerState::ZELShellServerState()
    : m_systemRoot(new ZELShellCommandTree(QStringLiteral("Sys"), nullptr, nullptr))
    , m_mainRoot(new ZELShellCommandTree(QStringLiteral("Main"), nullptr, nullptr))
{
}

ZELShellServerState::~ZELShellServerState() = default;

std::shared_ptr<ZELShellServerState> ZELShellServerState::current()
{
    const ZELServerLock locked(currentMutex);
    auto state = currentState.lock();
    return state ? state : std::make_shared<ZELShellServerState>();
}

void ZELShellServerState::setCurrent(const std::shared_ptr<ZELShellServerState> &state)
{
    const ZELServerLock locked(currentMutex);
    currentState = state;
}

std::shared_ptr<const ZELShellSettings> ZELShellServerState::settings() const
{
    const ZELServerLock locked(m_mutex);
    return m_settings;
}

void ZELShellServerState::change(const std::function<void(ZELShellSettings &)> &change)
{
    const ZELServerLock locked(m_mutex);
    auto changed = std::make_shared<ZELShellSettings>(*m_settings);
    change(*changed);
    m_settings = std::move(changed);
}
