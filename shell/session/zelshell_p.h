// SPDX-License-Identifier: MIT
#ifndef ZELSHELL_P_H
#define ZELSHELL_P_H

#include "zelarguments.h"
#include "zellineeditor_p.h"
#include "zelshell.h"
#include "zelshellcommandtree_p.h"
#include "zelshellforeground_p.h"
#include "zelshellscripts_p.h"
#include "zelshellstate_p.h"

#include <QThread>

struct ZELCompletionScope;
class ZELAdmission;
class ZELShellLoop;

/**
 * Everything of a session that its core thread and its jobs work on. Held by the session object, by the core thread
 * and by every job, and gone with the last of them; the session object itself is reached through `life` only.
 *
 * Files that run on the core thread or a job's thread may be jumped out of anywhere outside of critical sections: they
 * hold locks inside of those only, and keep what must not be lost in this object rather than on the stack.
 */
class ZELShellPrivate : public std::enable_shared_from_this<ZELShellPrivate>
{
public:
    enum StopState { Running = 0, Stopped = 1, Ended = 2 };

    ZELShellPrivate(ZELShell *q, ZELStream *stream);
    ~ZELShellPrivate();

    static ZELShellPrivate *get(ZELShell *shell) { return shell->d.get(); }

    // The session as a whole: zelshell.cpp.
    void watchInterruptKey();
    void runCore();
    void finishCore();
    void stop(StopState state);
    /// Tells of the jobs that still run and waits for each; once, nothing is left of them then.
    void endJobs();
    /// The peer has said who it is, or never will.
    void endHandshake();
    /// Tells an idle peer and closes its connection.
    void endIdle();
    /// The peer has gone: what runs for it ends at its next write and after a time, where the host wants that.
    void noteGone();
    void endAbandoned();
    bool isAbandonedWriter();
    /// Why the session ends, for the log; the first one counts.
    void because(const char *reason);
    /// Whether this thread is the one that reads the session's input.
    bool isCoreThread() const { return coreThreadId == QThread::currentThreadId(); }
    /// The core thread begins to wait for the peer.
    void noteWaiting();
    bool isStopping() const { return stopState != Running; }
    void emitProcessReceived();
    QString text(QString ZELShellPrivate::*field) const;
    void setText(QString ZELShellPrivate::*field, const QString &value);
    void setDescription(const QString &text);
    struct Identity
    {
        QString product;
        QString version;
        QString hardware;
        QString custom;
    };
    /// What the host told of the device; nothing once the session object has gone.
    Identity identity();
    QSqlDatabase loginDatabase() const;
    QUuid sessionUuid() const;
    void setSessionUuid(const QUuid &id);
    /// A debug line, during which no kill is taken.
    static void log(const QString &line);
    /// From now on session lines that would go onto the screen of a session, to its terminal, are left out: they would
    /// stand between a command and its answer. Not where the host has a message handler of its own.
    static void keepLogOffTerminal();
    static std::atomic<bool> quietOnTerminal;

    // The line interpreter: zelshellexecatestring.cpp.
    QVariant execute(const QString &line, bool background);
    QVariant execute(const QString &line, ZELArguments args, bool background, bool mayBeScript = true);
    /// Answers a line that is not run.
    void refuseLine(const QString &line, bool tagged, const QString &message);
    /// Answers a tagged statement whose thread was ended before it gave its answer.
    void answerUnanswered(const QString &line, const ZELArguments &args);
    /// Runs a statement on the core thread.
    QVariant runForeground(const QString &statement);
    /// Runs a statement of a line: here, or as a job when it ends in "&".
    QVariant runStatement(const QString &statement);
    void startJob(const QString &statement);

    // One command: zelshellbuiltins.cpp.
    enum class Outcome {
        NotFound,
        Ran, ///< the record says how it ended; the answer is still to be given
        Answered
    };
    Outcome runCommand(ZELArguments &args);
    /// False when the command runs already and may not run twice.
    class CommandWatcher;
    bool runPinned(ZELShellCommandPin &pin, const ZELArguments &args);
    bool answerHelp(ZELArguments &args, ZELShellCommandPin &pin);
    /// The same for commands that explain themselves.
    bool explain(const ZELArguments &args, ZELShellCommandPin &pin) const;
    /// The node that a command word or path leads to; empty for none.
    ZELShellCommandPin resolve(const QString &word) const;
    /// Whether the host lets this remote session run what the record names.
    bool isPermitted(ZELArguments &args);
    /// Answers what is not permitted.
    static void refuse(const ZELArguments &args);
    /// Calls a function of the host in a frame of its own.
    void callGuarded(const std::function<void(ZELArguments)> &function, ZELArguments &args);
    void answerKilled(const ZELArguments &args);
    /// The record's error, and on a terminal how its command is to be typed when that was the mistake.
    void printError(const ZELArguments &args);
    /// What an unknown word means: an error, or for an assignment text to be stored.
    enum class Unknown { IsError, IsText };
    bool executeStd(ZELArguments &args, Unknown unknown);
    bool executePro(ZELArguments &args, Unknown unknown);
    /// Prints the packet that completes the exchange of a tagged statement.
    static void complete(const ZELArguments &args, const QString &state, const QString &text);

    // Scripts: zelshellscripts.cpp.
    QVariant executeString(const ZELArguments &args, bool *hasReturned = nullptr);
    /// Runs a script's text; the record says what went wrong.
    QVariant runScript(const QString &code, const ZELArguments &args, bool *hasReturned = nullptr);
    Outcome runScripted(ZELArguments &args);
    QVariant runBlocks(const QString &line, const ZELArguments &args);
    void callFunction(const ZELScriptStep &function, ZELArguments &args);

    ZELArguments newRecord(const QString &line);
    // Roles and completion: zelshellroles.cpp, zelshellcompletion.cpp.
    ZELCommandAudience audience() const;
    void takeUserRoles(const QString &userName);
    bool hasRoleFor(ZELShellCommand *command) const;
    /// To be used while the session lives.
    ZELCompletionScope completionScope() const;

    // Directories: zelshelldirectories.cpp.
    void printPrompt();
    void updatePath();
    QString listing(ZELShellCommandTree *directory, bool hidden);
    /// A path as names have it: without quotes, of which the last may be missing, and decoded where UTF-8 is typed.
    QString pathOf(const QString &word) const;
    QString decoded(const QString &word) const;
    /// Names for this terminal, to which texts go as Latin-1.
    QString namesFor(const ZELArguments &args, const QString &text) const;
    QString namesForTerminal(const QString &text) const;

    const std::shared_ptr<ZELShellServerState> server;
    ZELLife<ZELShell> life;
    ZELSessionOutput output;
    ZELEnvironment environment;
    ZELShellDirectories directories;
    ZELRunningNames running;
    ZELShellJobs jobs;
    ZELHistory history;
    ZELShellFunctions functions;
    ZELForeground foreground{output};
    std::unique_ptr<ZELShellLoop> loop; ///< used by the core thread alone
    std::optional<std::pair<QString, ZELArguments>> underway; ///< the core thread's statement; used by it alone

    std::atomic<int> stopState{Running};
    std::atomic<Qt::HANDLE> quitter{nullptr}; ///< the thread that ran "quit"
    std::atomic<Qt::HANDLE> coreThreadId{nullptr};
    std::atomic<bool> started{false};
    std::atomic<bool> coreRunning{false};
    std::atomic<bool> coreFinished{false};
    std::atomic<bool> isMain{false};
    std::atomic<bool> takesPartInLogin{true}; ///< false with the key of a login that was yet to come
    std::atomic<bool> noTerminal{false};
    std::atomic<qint64> waitingSince{
        0}; ///< steady ms since which the core thread waits for the peer; 0 when it does not
    std::atomic<qint64> goneSince{0}; ///< steady ms since which the peer is gone; 0 while it is there
    std::atomic<const char *> endReason{nullptr};
    std::atomic<int> pending{0};
    std::atomic<bool> hasPrompt{false}; ///< the loop shows prompts and keeps lines by itself
    std::atomic<bool> failed{false}; ///< a statement ended in an error

    // Settings.
    std::atomic<bool> interactive{false};
    std::atomic<bool> showReturnValue{true};
    std::atomic<bool> keepHistory{true};
    std::atomic<bool> utf8Editing{false};
    std::atomic<bool> modernEditing{false};
    std::atomic<bool> needsTerminal{false}; ///< for modern editing: something that says what the terminal is
    std::atomic<bool> interruptible{false};
    std::atomic<int> lineLimit{0};
    std::shared_ptr<ZELAdmission> admission; ///< of a peer that was accepted; set before the start
    std::atomic<bool> isAdmitted{true}; ///< counts no more among those who shake hands
    std::atomic<int> idleLimit{0};
    std::atomic<bool> terminalSwitch{false}; ///< what the built-in "terminal" of the protocol sets

    mutable std::mutex mutex; ///< guards what follows
    QString description;
    QString peer; ///< its name and address as log lines show them
    QString name;
    QString cachePath; ///< below it modern sessions keep their lines
    QUuid index;
    QUuid uuid = QUuid::createUuid();
    QSqlDatabase database;
    std::optional<QStringList> roles;
    QStringList userRoles;
    ZELShellCollection *container = nullptr;
    QPointer<ZELThread> coreThread;
};

/// base64 of "PROTOCOL=ZEL_SHELL": the word that makes a line a tagged one.
QString zelProtocolTag();

#endif
