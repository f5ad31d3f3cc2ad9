// SPDX-License-Identifier: MIT
#include "zelenvironment_p.h"

#include <utility>

namespace {

const QString nullText = QStringLiteral("NULL");

thread_local std::shared_ptr<ZELEnvironment::Scope::Values> functionScope;

} // namespace

ZELEnvironment::ZELEnvironment()
{
    for (const char *name : {"$?", "$@", "$*"})
        m_values.insert(QLatin1String(name), nullText);
}

ZELEnvironment::Scope::Scope(const ZELEnvironment &environment, const QHash<QString, QString> &values)
    : m_values(std::make_shared<Values>(Values{&environment, values, functionScope ? functionScope->depth + 1 : 1}))
    , m_outer(std::exchange(functionScope, m_values))
{
}

ZELEnvironment::Scope::~Scope()
{
    functionScope = m_outer;
}

std::shared_ptr<const ZELEnvironment::Scope::Values> ZELEnvironment::Scope::current()
{
    return functionScope;
}

void ZELEnvironment::Scope::enter(const std::shared_ptr<const Values> &values)
{
    functionScope = values ? std::make_shared<Values>(*values) : nullptr;
}

void ZELEnvironment::Scope::leaveAll()
{
    functionScope.reset();
}

QString *ZELEnvironment::local(const QString &name) const
{
    if (!functionScope || functionScope->environment != this)
        return nullptr;
    const auto found = functionScope->values.find(name);
    return found == functionScope->values.end() ? nullptr : &*found;
}

std::optional<QString> ZELEnvironment::find(const QString &name) const
{
    if (const QString *value = local(name))
        return *value;
    ZELSessionLock lock(m_mutex);
    const auto found = m_values.constFind(name);
    return found == m_values.constEnd() ? std::nullopt : std::optional<QString>(*found);
}

QString ZELEnvironment::value(const QString &name) const
{
    return find(name).value_or(nullText);
}

void ZELEnvironment::set(const QString &name, const QString &value)
{
    if (QString *const own = local(name)) {
        *own = value;
        return;
    }
    ZELSessionLock lock(m_mutex);
    m_values.insert(name, value);
}

QStringList ZELEnvironment::names() const
{
    ZELSessionLock lock(m_mutex);
    return m_values.keys();
}
