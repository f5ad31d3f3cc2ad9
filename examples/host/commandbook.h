// SPDX-License-Identifier: MIT
#ifndef COMMANDBOOK_H
#define COMMANDBOOK_H

#include <QMap>
#include <QObject>
#include <QVariant>
#include <zelarguments.h>

class ZELShellServer;

/**
 * The host's table of contents: registers commands with the server together with their purpose and keeps their
 * usage, so that "help" and the option "-h" of every command answer from one place.
 *
 * A usage text begins with the command's path and goes on with its arguments:
 *
 *     book.add("jobs/sleep MS", "sleeps MS milliseconds", this, SLOT(sleep(ZELArguments)), CommandBook::Shared);
 *
 * Filled in before the server starts and only read afterwards, hence safe to read from every session's thread.
 */
class CommandBook : public QObject
{
    Q_OBJECT
public:
    enum Running {
        Alone, ///< a second start while the first is going on is refused
        Shared, ///< any number of sessions may run it at once
    };

    /// Adds the system commands "help" and "version" and becomes the server's help function.
    explicit CommandBook(ZELShellServer *server, QObject *parent = nullptr);

    /// Registers a command; a refusal by the server is a programming error of this host and is warned of.
    void add(const char *usage, const char *purpose, QObject *receiver, const char *member, Running running);
    void addSystem(const char *usage, const char *purpose, QObject *receiver, const char *member);

public Q_SLOTS:
    QVariant help(ZELArguments args);
    QVariant version(ZELArguments args);

private:
    void describe(ZELArguments args) const;
    QString listing(const QString &prefix) const;

    ZELShellServer *m_server;
    QMap<QString, QString> m_usages; // by the path that a record carries, such as /Main/jobs/sleep
};

#endif
