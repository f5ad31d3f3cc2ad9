// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_USERDATABASE_H
#define TESTS_SUPPORT_USERDATABASE_H

#include <QSqlDatabase>
#include <QTemporaryDir>

/// A new database of users in a file; gone with this object.
struct UserDatabase
{
    UserDatabase()
    {
        database.setDatabaseName(m_directory.filePath("users.db"));
        if (!database.open())
            qFatal("no database");
    }
    ~UserDatabase()
    {
        const QString name = database.connectionName();
        database = QSqlDatabase();
        QSqlDatabase::removeDatabase(name);
    }
    QSqlDatabase database = QSqlDatabase::addDatabase("QSQLITE", "users");

private:
    QTemporaryDir m_directory;
};

#endif
