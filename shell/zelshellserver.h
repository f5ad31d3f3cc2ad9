// SPDX-License-Identifier: MIT
#ifndef ZELSHELLSERVER_H
#define ZELSHELLSERVER_H

#include "zelarguments.h"
#include "zelshell_export.h"
#include "zelshellbase.h"
#include "zelshellcommandtree.h"

#include <QHostAddress>
#include <QObject>
#include <QPointer>
#include <QSqlDatabase>
#include <QString>
#include <QVariant>
#include <QVector>
#include <functional>
#include <memory>

class ZELShell;
class ZELShellCollectionPrivate;
class ZELShellServerPrivate;

/**
 * The list of live shells.
 *
 * Owner: the server; shells are not owned and take themselves out when they are destroyed.
 * Threads: every function may be called from any thread.
 */
class ZELSHELL_EXPORT ZELShellCollection
{
public:
    ZELShellCollection();
    /// The shells that are still in the list forget their container and live on.
    ~ZELShellCollection();
    ZELShellCollection(const ZELShellCollection &) = delete;
    ZELShellCollection &operator=(const ZELShellCollection &) = delete;

    /// Gives the shell a fresh index, adds it and becomes its container.
    void append(ZELShell *shell);
    /// Takes out the first occurrence; the shell then has no container.
    void remove(ZELShell *shell);
    int length() const;

private:
    friend class ZELShellCollectionPrivate;
    std::unique_ptr<ZELShellCollectionPrivate> d;
};

/// A registered command, as commands() lists it.
struct ZELShellCommandInfo
{
    QString path; ///< directory, "/Main/net"; "/Sys" for system commands
    QString name;
    QString description;
    ZELShellCommandTree::ZELShellCommandType type = ZELShellCommandTree::Execute;
    bool multiRun = false;
};

/**
 * The host's front object: holds the commands, starts the shell on the process's terminal, and serves remote shells.
 *
 * One per process is the intended use; the latest one made is ZELShellServer::seft. The host owns it and may destroy it
 * at any time, also while shells run and before or after the receivers of its commands: running shells keep the
 * commands, the functions are called no more.
 *
 * Threads: the registry, execute(), ClientNumber() and the setters may be called from any thread; starting, connecting
 * and closing belong to the thread that made the server. shellConnected() may be emitted on another thread; connect
 * with Qt::DirectConnection to set up a shell before it starts.
 *
 *     ZELShellServer server;
 *     server.registerCmd("board", "reset", &board, SLOT(reset(ZELArguments)));
 *     server.setDescription(QStringLiteral("board"), QStringLiteral("reset"), QStringLiteral("Resets the board"));
 *     server.startServer();
 *     return application.exec();
 */
class ZELSHELL_EXPORT ZELShellServer : public QObject
{
    Q_OBJECT
public:
    /// The latest server made; null once it is destroyed. The spelling is part of the interface.
    static ZELShellServer *seft;

    explicit ZELShellServer(QObject *parent = nullptr);
    ~ZELShellServer() override;

    // The registry. Text is UTF-8. Paths are split at "/", empty pieces are skipped.

    /**
     * Registers an application command: `name` in the directory `path` below the main root, which is made as needed.
     * `path` is relative to the main root; "" is the main root itself; an absolute path begins with "/Main" and,
     * whatever follows, places the command directly under the main root. `member` is a slot as
     * ZELShellCommand::BindCommand() takes it; `multiRun` lets the command start while an earlier run is going. The
     * command is removed when the receiver is destroyed.
     *
     * False when receiver or member is null, the member does not fit (with a warning), or the place is refused as
     * CreatCommandPath() says.
     */
    bool registerCmd(
        const char *path, const char *name, const QObject *receiver, const char *member, bool multiRun = false);
    /// Registers a system command, reachable from every directory. False when the name is taken, or the member does not
    /// fit or is null (with a warning).
    bool registerSysCmd(const char *name, const QObject *receiver, const char *member);
    /**
     * The directory in which a command `name` registered at `path` is placed; missing ones are made. Null, with a line
     * in the debug log, when `path` and `name` lead to something already, `path` is absolute and does not begin with
     * the component "Main", or a component is a command. Directories made before a refusal stay.
     */
    ZELShellCommandTree *CreatCommandPath(const char *path, const char *name);
    /// A new, unbound leaf in `parent`; null when that is null.
    ZELShellCommandTree *Register(ZELShellCommandTree *parent, const char *name);
    /// The node `name` in the directory `path` ("" is the system root), of any type; null when there is none.
    ZELShellCommandTree *FindCommand(QString path, QString name);
    /// Runs a registered command on this thread, for `shell` (may be null), and returns its value; invalid when there
    /// is no such command or it returned none.
    QVariant execute(ZELShellBase *shell, const QString &path, const QString &name, const QString &args);

    /// The help line of a command found as FindCommand() does; false when there is no such command.
    bool setDescription(const QString &path, const QString &name, const QString &text);
    QString description(const QString &path, const QString &name);
    /// All commands, sorted by path, then by name.
    QVector<ZELShellCommandInfo> commands();

    // Shells.

    /// Starts the shell on the process's terminal. When it ends, the process ends.
    void startServer();
    /// Listens for remote shells on `port` of all interfaces, or of the address of setListenAddress().
    /// The result is not reported; see isListening().
    void startTcpServer(quint16 port);
    /// Whether the TCP server listens, and on which port (0: on none); port 0 lets the system choose.
    bool isListening() const;
    quint16 serverPort() const;
    /// Connects to a waiting client and serves a shell there. False when that fails within 30 seconds.
    bool connectToTcp(QString host, quint16 port);
    /// Stops listening, closes the outgoing connection and stops the terminal shell; remote shells go on.
    void closeServer();
    /// Number of live shells, the terminal shell included.
    int ClientNumber();

    // Settings; those of shells count for shells made afterwards unless said otherwise.

    /// Kept for the host; ".cache" at first.
    void setShellCachePath(const QString &path);
    QString shellCachePath() const;
    /// Answers "-h" and "--help" on any command, at once for all shells.
    void setHelpFunction(std::function<void(ZELArguments)> function);
    /// Answers "--weakup" on any command, at once for all shells. The spelling is part of the interface.
    void setWeakupFunction(std::function<void(ZELArguments)> function);
    /// The user accounts of remote shells.
    void setDatabase(QSqlDatabase database);
    /// Kept for the host.
    void setMaxPendingConnections(int count);
    int maxPendingConnections() const;

Q_SIGNALS:
    /// A remote shell was made and is about to start.
    void shellConnected(QPointer<ZELShellBase> shell);

private:
    std::unique_ptr<ZELShellServerPrivate> d;
};

#endif
