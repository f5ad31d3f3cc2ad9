// SPDX-License-Identifier: MIT
#include "zeluserroles.h"

#include "zeluseraccess_p.h"

#include <QVariant>

namespace {

bool run(const ZELUserAccess &access, const char *statement, const QVector<QString> &values = {})
{
    QSqlQuery query = access.query();
    if (!query.prepare(QString::fromLatin1(statement)))
        return false;
    for (const QString &value : values)
        query.addBindValue(value);
    return query.exec();
}

bool replace(const ZELUserAccess &access, const QString &name, QStringList roles)
{
    roles.removeDuplicates();
    bool done = run(access, "delete from ZELUserRole where [UserName] = ?", {name});
    for (const QString &role : qAsConst(roles))
        done = done && run(access, "insert into ZELUserRole([UserName],[Role]) values(?,?)", {name, role});
    return done;
}

} // namespace

bool ZELUserRoles::setRoles(const QSqlDatabase &database, const QString &userName, const QStringList &roles)
{
    const ZELUserAccess access(database);
    const QString name = userName.simplified();
    if (!database.isValid() || name.isEmpty()
        || !run(access, "create table if not exists ZELUserRole([UserName] text,[Role] text)")
        || !run(access, "begin immediate"))
        return false;
    const bool done = replace(access, name, roles);
    return run(access, done ? "commit" : "rollback") && done;
}

QStringList ZELUserRoles::roles(const QSqlDatabase &database, const QString &userName)
{
    const ZELUserAccess access(database);
    QSqlQuery query = access.query();
    QStringList roles;
    if (!database.isValid()
        || !query.prepare(QStringLiteral("select [Role] from ZELUserRole where [UserName] = ? order by [Role]")))
        return roles;
    query.addBindValue(userName.simplified());
    if (query.exec())
        while (query.next())
            roles += query.value(0).toString();
    return roles;
}
