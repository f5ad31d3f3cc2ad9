// SPDX-License-Identifier: MIT
#ifndef ZELUSER_H
#define ZELUSER_H

#include "zelshell_export.h"

#include <QDateTime>
#include <QExplicitlySharedDataPointer>
#include <QList>
#include <QSqlDatabase>
#include <QString>
#include <QUuid>

class ZELUserPrivate;

/**
 * A user of the shell: an account in an SQLite database and a history of its logins and logouts.
 *
 * A value that is explicitly shared: copies stand for the same user, and a login or logout through one is seen by
 * all. Logging in a name that has no account creates one. A process-wide list holds a copy of every user that is
 * logged in, so a user stays logged in when the last copy outside of it dies, until logout() or autologout().
 *
 * A failure sets getErrorString() and answers false or an empty user; nothing is thrown. Names and passwords are
 * set into statements as text, so one that holds a single quote, a NUL character, a non-character or half a surrogate
 * pair is not: the call fails with "Error : sql exec error". Passwords are kept and compared as plain text.
 *
 * The history of a user stands in the table userName + "_LoginInfo", made only for names that are a bare identifier
 * (letters, digits, "_", "$", anything beyond ASCII, no digit first) of at most 255 characters; others have an account
 * and no history. SQLite compares table names without case: "Bob" and "bob" are two accounts that share one history.
 * The trigger that bounds a history has one name for the whole database, so that only the first history made is
 * bounded.
 *
 * Threads: all functions may be called from any thread. The database is used directly only on the thread that opened
 * it; elsewhere every operation opens a connection of its own to the same file and closes it again. That cannot be
 * done for an in-memory database, which therefore serves only the thread that opened it.
 *
 *     ZELUser user(name, password, database);
 *     if (!user.isLogin())
 *         return user.getErrorString();
 *     ...
 *     user.autologout();
 */
class ZELSHELL_EXPORT ZELUser
{
public:
    /// An empty user, never logged in.
    ZELUser();
    /// Logs the user in, creating the account when there is none; isLogin() tells whether that worked. A name that is
    /// logged in already is refused. White space in the name is simplified.
    ZELUser(const QString &name, const QString &password, QSqlDatabase db);
    ZELUser(const ZELUser &other);
    ZELUser &operator=(const ZELUser &other);
    ~ZELUser();

    /// The same account: one record, or equal names and ids.
    bool operator==(const ZELUser &other) const;
    bool operator!=(const ZELUser &other) const;

    /// Logs in with the name and password given at construction. False when logged in already.
    bool login();
    /// Writes the logout to the history and leaves the list of users. Nothing when not logged in.
    void logout();
    /// One more holder of this login.
    void autologin();
    /// One holder less; the last one logs out. A login starts with one holder.
    void autologout();
    /// Changes the password of the account; only while logged in.
    bool setPassword(const QString &password);
    /// Brings the list of users and the history in line with isLogin(). Called by login() and logout().
    void updateLoginInfo();

    bool isLogin() const;
    QString userName() const;
    QString password() const;
    /// The id of the account; null before the first login.
    QUuid uid() const;
    /// The id of the terminal or session that logged in by loginByUid(), else null.
    QUuid tid() const;
    QString getErrorString();

    /// The first user of that name that is logged in, else an empty one.
    static ZELUser getUserByName(const QString &name);
    /// The first user that is logged in with that account id or terminal id, else an empty one.
    static ZELUser getUser(QUuid id);
    /// The user that is logged in with that terminal id, whatever the name and password; else logs in and gives the
    /// user the terminal id. An empty user when the login fails.
    static ZELUser loginByUid(const QString &name, const QString &password, QSqlDatabase db, QUuid tid);
    /// As the constructor, for sessions that bring an id which is no credential: the user gets it as terminal id unless
    /// another login or account goes by it. Without mayCreate a name that has no account is refused with "Error : user
    /// name error".
    static ZELUser loginAs(const QString &name, const QString &password, QSqlDatabase db, QUuid tid, bool mayCreate);
    /// All users that are logged in, in the order of their logins.
    static QList<ZELUser> loggedIn();

    /// The latest login or logout in the user's history, invalid when there is none or it cannot be read.
    static QDateTime getLastLoginTime(const ZELUser &user);
    static QDateTime getLastLogoutTime(const ZELUser &user);

private:
    friend class ZELUserPrivate;
    explicit ZELUser(ZELUserPrivate *record);
    QExplicitlySharedDataPointer<ZELUserPrivate> d;
};

#endif
