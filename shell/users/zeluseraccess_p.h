// SPDX-License-Identifier: MIT
#ifndef ZELUSERACCESS_P_H
#define ZELUSERACCESS_P_H

#include "zelguard_p.h"

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <mutex>

/// One operation on the database: the right to it, and the calling thread's own connection. Held for the whole
/// operation, so that a check and the login that rests on it are one step.
class ZELUserAccess
{
public:
    explicit ZELUserAccess(const QSqlDatabase &db);
    ~ZELUserAccess();
    ZELUserAccess(const ZELUserAccess &) = delete;
    ZELUserAccess &operator=(const ZELUserAccess &) = delete;

    /// A query that fails when there is no connection; Qt would take the application's default one instead.
    QSqlQuery query() const { return m_db.isValid() ? QSqlQuery(m_db) : QSqlQuery(static_cast<QSqlResult *>(nullptr)); }

private:
    void openClone(const QSqlDatabase &db);

    ZELCriticalSection m_section; ///< a kill must tear neither the lock nor the database engine
    std::lock_guard<std::mutex> m_lock;
    QString m_cloneName;
    QSqlDatabase m_db;
};

/// Whether the text can stand between the quotes of a statement.
bool zelFitsStatement(const QString &text);
/// Whether a user of that name can have a table of logins.
bool zelFitsTableName(const QString &name);

#endif
