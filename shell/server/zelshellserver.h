// SPDX-License-Identifier: MIT
#ifndef ZELSHELLSERVER_H
#define ZELSHELLSERVER_H

#include "zelarguments.h"
#include "zelcommandbuilder.h"
#include "zelshell_export.h"
#include "zelshellbase.h"
#include "zelshellcollection.h"
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
class ZELShellServerPrivate;
class ZELStream;

/// A registered command, as commands() lists it.
struct ZELShellCommandInfo
{
    QString path; ///< directory, "/Main/net"; "/Sys" for system commands
    QString name;
    QString description;
    ZELShellCommandTree::ZELShellCommandType type = ZELShellCommandTree::Execute;
    bool multiRun = false;
    // As ZELCommandBuilder says them; empty and false at first.
    QString group;
    QString role;
    QString replacement;
    bool hidden = false;
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
     * Registers any function as a command, with its words checked and converted for it: see ZELCommandBuilder, whose
     * functions say more of it. Places and names are those of registerCmd(). Without a receiver the command stays until
     * it is unregistered or the last shell has gone.
     */
    template <class Function>
    ZELCommandBuilder command(const char *path, const char *name, Function &&function)
    {
        return build(path, name, ZELCommandTypes::function(std::forward<Function>(function)), false);
    }
    /// The same with a method of `receiver`, or a function that is to be called only while it lives; the command is
    /// removed when it is destroyed.
    template <class Object, class Method>
    ZELCommandBuilder command(const char *path, const char *name, Object *receiver, Method &&method)
    {
        return build(path, name, ZELCommandTypes::function(receiver, std::forward<Method>(method)), false);
    }
    /// The same as a system command.
    template <class Function>
    ZELCommandBuilder systemCommand(const char *name, Function &&function)
    {
        return build("", name, ZELCommandTypes::function(std::forward<Function>(function)), true);
    }
    template <class Object, class Method>
    ZELCommandBuilder systemCommand(const char *name, Object *receiver, Method &&method)
    {
        return build("", name, ZELCommandTypes::function(receiver, std::forward<Method>(method)), true);
    }
    /**
     * Adds the system command "help [PATH] [--json]", which lists directories and commands or explains one, and lets
     * every command answer "-h" and "--help" as typed ones do. The host's own help function, if set, goes before the
     * latter. False when the name is taken.
     */
    bool registerHelpCommands();
    /// The line that the help says of a directory, "board/pump"; "" is the main root. False when there is none.
    bool describeDirectory(const QString &path, const QString &text);

    // What ZELCommandBuilder says of a command, for any command, found as FindCommand() does, at any time. False when
    // there is none.
    bool setHidden(const QString &path, const QString &name, bool on);
    bool setDeprecated(const QString &path, const QString &name, const QString &replacement);
    bool setGroup(const QString &path, const QString &name, const QString &group);
    bool setRole(const QString &path, const QString &name, const QString &role);
    /// Takes a command, found as FindCommand() does, out of the tree; executions of it run to their end. False when
    /// there is none.
    bool unregisterCommand(const QString &path, const QString &name);

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
    /// Listens for remote shells on `port`, 0 for one that the system chooses. The result is not reported; see
    /// isListening().
    void startTcpServer(quint16 port);
    bool isListening() const;
    /// The port listened on; 0 for none.
    quint16 serverPort() const;
    /// Connects to a waiting client and serves a shell there. False when that fails, at the latest after 30 seconds. A
    /// connection made before is closed.
    bool connectToTcp(QString host, quint16 port);
    /// Stops listening, closes the outgoing connection and stops the terminal shell; accepted connections go on. Called
    /// from another thread it takes effect at the next turn of the server's event loop.
    void closeServer();
    /// Number of live shells, the terminal shell included.
    int ClientNumber();

    // Settings. Unless said otherwise they count at once for all shells, and are off or empty at first.

    /// Kept for the host; ".cache" at first.
    void setShellCachePath(const QString &path);
    QString shellCachePath() const;
    /// Answers "-h" and "--help" on any command.
    void setHelpFunction(std::function<void(ZELArguments)> function);
    /// Answers "--weakup" on any command. The spelling is part of the interface.
    void setWeakupFunction(std::function<void(ZELArguments)> function);
    /// The user accounts of remote shells; for shells made afterwards.
    void setDatabase(QSqlDatabase database);
    /// The limit of remote shells, one more of which fit; for the next startTcpServer(). 10000 when never set.
    void setMaxPendingConnections(int count);
    int maxPendingConnections() const;

    /**
     * Ends every command that runs longer, with "Application Timerout,Max time is MS" as its error; 0 is no limit.
     * Counts for the whole process.
     */
    void setCommandTimeout(int ms);
    /// The same for one command, found as FindCommand() does: 0 no limit, -1 that of all. False when there is none.
    bool setCommandTimeout(const QString &path, const QString &name, int ms);
    /// Lets Ctrl-C (byte 3) abandon the foreground command of a terminal session; for shells made afterwards.
    void setInterruptible(bool on);
    /// Makes a UTF-8 sequence one character for the line editors; for shells made afterwards. Off: bytes pass
    /// unchanged.
    void setUtf8Editing(bool on);
    enum Editing {
        Plain, ///< the keys of a VT100: arrows, Backspace, Tab
        Modern, ///< as the shells that people use all day
        /// Modern on the process's terminal where TERM says what that is, and for peers that tell of their terminal
        /// with "--columns" or "--rows" in the handshake, as zelsh does, or speak telnet; Plain for others, who may be
        /// programs.
        ModernIfTold,
    };
    /**
     * How terminal sessions, the local one and remote ones, edit their lines; for shells made afterwards. Plain at
     * first. Modern has readline(3)'s keys, UTF-8, bracketed paste, completion in columns, grey hints (not with
     * TERM=dumb or NO_COLOR), lines that go on in the next one while quotes or brackets are open, and a history kept
     * below the shell cache path: one file for the terminal, one for each user who logs in, none for others. Not on
     * a pipe, and not in sessions without a terminal.
     */
    void setEditing(Editing editing);
    /**
     * The prompt of modern sessions, asked for before each line on the session's thread; several lines are allowed,
     * and sequences that colour (ZELPalette). Null, and whenever it fails or takes longer than 200 ms: the library's.
     */
    void setPrompt(std::function<QString(const ZELShell &)> prompt);
    /// Lets statements filter their text, "board/log | exclude idle | tail 20"; off: a bar is a word as others.
    void setFilters(bool on);
    /// The longest line a remote session takes, in bytes; 0 is no limit. For shells made afterwards.
    void setLineLimit(int bytes);
    /// Adds the system commands "jobs" and "kill NUMBER", which list and end the background jobs of the session that
    /// runs them. False when one of the names is taken.
    bool registerJobCommands();

    // Closing the doors. Without these, everybody who reaches the port can do everything.

    /// The interface that startTcpServer() listens on; all of them at first.
    void setListenAddress(const QHostAddress &address);
    QHostAddress listenAddress() const;
    /// A remote session that has not logged in is told so and closed, and unknown names are not made accounts.
    void setLoginRequired(bool on);
    /**
     * Asked before every command and built-in of a remote session except "quit"; false is answered with the state
     * "EXECUTE_PERMISSION_ERROR", and so is a function that fails. The record tells the command (getExecPath(), empty
     * for built-ins, and getExecName()), the words, the session and the user's id. It is called on the sessions'
     * threads, for several of them at once. Once the server is gone nothing is permitted any more.
     */
    void setPermissionFunction(std::function<bool(const ZELArguments &)> function);
    /// Whether remote sessions may use "sys", the system's shell; they may at first.
    void setRemoteSystemCommands(bool on);
    /// Whether the handshake's "--key" is looked at: with the id of a session that somebody saw, one can join its
    /// login. It is at first.
    void setKeyLogin(bool on);
    /// Hides the password in the debug line of the handshake.
    void setPasswordHidden(bool on);
    /// Ends a remote session whose peer sends nothing for that long while no statement runs; 0 never. For shells made
    /// afterwards.
    void setIdleLimit(int ms);
    /// How many peers may be between accept and the end of their handshake (64 at first; others wait to be accepted),
    /// and for how many milliseconds each (10,000 at first, and one second while others wait); 0 is no limit.
    void setHandshakeLimits(int peers, int ms);
    /// Ends what still runs for a remote session whose peer has gone: at its next write there, and after that time
    /// whatever it does, as a kill does; 0: it runs on to its own end.
    void setAbandonedLimit(int ms);

Q_SIGNALS:
    /// A remote shell was made and is about to start.
    void shellConnected(QPointer<ZELShellBase> shell);

private:
    ZELCommandBuilder build(const char *path, const char *name, ZELCommandFunction function, bool isSystem);
    bool plant(ZELCommandDraft &draft, bool isSystem);
    void serve(const QPointer<ZELStream> &stream, bool isAccepted);
    std::unique_ptr<ZELShellServerPrivate> d;
};

#endif
