// SPDX-License-Identifier: MIT
#ifndef ZELUSERROLES_H
#define ZELUSERROLES_H

#include "zelshell_export.h"

#include <QSqlDatabase>
#include <QString>
#include <QStringList>

/**
 * The roles of users: names of the host's, kept in a table of their own beside the accounts, by the users' names.
 *
 * A session that logs in takes its user's roles; a change counts from the next login on. A role may be given before
 * there is an account.
 * Threads: as ZELUser.
 *
 *     ZELUserRoles::setRoles(database, "ann", {"service"});
 */
class ZELSHELL_EXPORT ZELUserRoles
{
public:
    /// Replaces the user's roles. False when that cannot be stored; nothing is changed then.
    static bool setRoles(const QSqlDatabase &database, const QString &userName, const QStringList &roles);
    /// Sorted; none for an unknown user and when the database cannot be read.
    static QStringList roles(const QSqlDatabase &database, const QString &userName);
};

#endif
