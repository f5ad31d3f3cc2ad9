// SPDX-License-Identifier: MIT
#ifndef ZELENVIRONMENT_P_H
#define ZELENVIRONMENT_P_H

#include "zelsessionlock_p.h"

#include <QHash>
#include <QStringList>
#include <memory>
#include <optional>

/// The shell variables, by names that include the "$".
class ZELEnvironment
{
public:
    ZELEnvironment();
    /// Nothing for a variable that was never set.
    std::optional<QString> find(const QString &name) const;
    /// The value; "NULL" for a variable that was never set.
    QString value(const QString &name) const;
    void set(const QString &name, const QString &value);
    QStringList names() const;

    /**
     * Variables of a function that the calling thread is in, in front of all others until it returns. After a jump out
     * of the function the next one that begins forgets them: leaveAll().
     */
    class Scope
    {
    public:
        Scope(const ZELEnvironment &environment, const QHash<QString, QString> &values);
        ~Scope();
        Scope(const Scope &) = delete;
        Scope &operator=(const Scope &) = delete;
        /// How many functions the thread is in.
        int depth() const { return m_values->depth; }

        struct Values
        {
            const ZELEnvironment *environment;
            QHash<QString, QString> values;
            int depth;
        };
        /// Those of the calling thread; a job takes a copy with it.
        static std::shared_ptr<const Values> current();
        static void enter(const std::shared_ptr<const Values> &values);
        static void leaveAll();

    private:
        std::shared_ptr<Values> m_values;
        std::shared_ptr<Values> m_outer;
    };

private:
    QString *local(const QString &name) const;

    mutable std::mutex m_mutex;
    QHash<QString, QString> m_values;
};

#endif
