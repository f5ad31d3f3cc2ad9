// SPDX-License-Identifier: MIT
#ifndef ZELSHELL_H
#define ZELSHELL_H

#include "zelshellbase.h"

#include <QSqlDatabase>
#include <QStringList>
#include <functional>

class ZELShellCollection;
class ZELShellPrivate;
class ZELStream;

/**
 * One shell session on one stream: the process's terminal or a TCP connection.
 *
 * Start() runs the session on a thread of its own, labelled "ZELShell Core Thread": it reads bytes, edits the line,
 * splits a finished line at ";" and runs each statement, those that end in "&" as background jobs on threads of the
 * pool. The session ends by Stop(), by the end of its input, by "quit", or after its line when it is a main session
 * without terminal. It then closes the device of a remote stream, waits up to three seconds for each job that still
 * runs, emits Stoped() and deletes itself in the thread that made it. The stream is not owned; that of a remote
 * session is given back with ZELIODevice::release() when the session object has gone.
 *
 *     auto *shell = new ZELShell(stream);
 *     shell->setShellName(QStringLiteral("Service"));
 *     shell->Start(false, false);                 // reads the handshake line first
 *
 * A session that was never started is a plain interpreter: Execute() may be called on it, and its owner deletes it.
 *
 * Threads: unless a function says otherwise it may be called from any thread while the object lives. Jobs may outlive
 * the object; what they use stays alive with them. Nothing is locked while a command runs.
 */
class ZELSHELL_EXPORT ZELShell : public ZELShellBase
{
    Q_OBJECT
public:
    /// Takes the command trees of the latest ZELShellServer, or empty ones. A null stream is an ended one.
    explicit ZELShell(ZELStream *stream, QObject *parent = nullptr);
    /// The core thread must have ended, or never been started.
    ~ZELShell() override;

    ZELAbstractStream *getStream() override;
    QUuid getUuid() override;
    void setUuid(QUuid uuid) override;
    bool IsMain() override;
    bool isNoTerminal() override;
    QString shellName() override;
    QString shellLicence() override;
    QList<QPointer<ZELThread>> getRunnings() override;

    /// Names the session; the server uses "TTyStream_Main" and "TcpStream_" with the peer's address.
    void setShellName(const QString &name);
    /// Stores a fresh index for shellLicence(); called by the collection that the session joins.
    void setShellIndex(const QUuid &index);
    /// The list that the session leaves when it is destroyed; null for none.
    void setParentContainer(ZELShellCollection *container);
    ZELShellCollection *parentContainer() const;
    /// "Stream=...;PeerName=...;PeerAddress=...;PeerPort=...;", used in the log lines of statements.
    void setConnectionDescription(const QString &text);
    QString connectionDescription();
    /// The database of logins; set before Start(). The session works on a clone of its own.
    void setDatabase(const QSqlDatabase &database);
    QSqlDatabase database() const;

    /// Prints a prompt after every dispatched command, for hosts that call Execute() themselves. Off; the key loop
    /// prints one prompt per line on its own. A prompt that stands as the last thing written is never doubled.
    void setInteractive(bool on);
    /// Whether a terminal session prints what a command returned. On.
    void setShowReturnValue(bool on);
    /// Whether lines enter the history. On.
    void setKeepHistory(bool on);
    /// Whether a UTF-8 sequence is one character for the line editor. Off: bytes are Latin-1 characters. Set before
    /// Start(). A line that carries the protocol tag is decoded as UTF-8 in either case.
    void setUtf8Editing(bool on);
    /// Whether byte 3 (Ctrl-C) from the session's terminal abandons the foreground command. Off.
    void setInterruptible(bool on);
    /// The longest input line in bytes; 0, the default, is no limit. A longer line is answered with an error and
    /// dropped up to its line feed; a longer handshake ends the session.
    void setLineLimit(int bytes);
    /// Ends a remote session whose peer has sent nothing for that long while no statement ran. 0, the default, never.
    void setIdleLimit(int ms);

    /**
     * The roles of the session itself, beside those of the user that logs in, for commands that ask for one. None at
     * first: a remote session may then run only commands without a role and those of its user's roles, the
     * terminal session, until its roles are set, all. Any thread.
     */
    void setRoles(const QStringList &roles);
    /// All roles, those of the user included.
    QStringList roles() const;

    /// True while the core loop runs.
    bool isRunning() const;
    /// The thread of the core loop; null before Start() and once it has ended.
    QPointer<ZELThread> coreThread() const;
    /// 0 running, 1 Stop() was called, 2 the stream ended or the session asked to end.
    int stopState() const;
    /// Statements of entered lines that have not been started yet.
    int pendingStatements() const;
    /// True once a statement has ended in "EXECUTE_ERROR".
    bool hasError() const;
    /// The lines entered so far, oldest first, each once.
    QStringList history();

    /**
     * Runs one statement on the calling thread and returns the command's return value, invalid when there was none.
     * A tagged line is answered in packets, others as terminal text. Failures are states of the record, never thrown.
     */
    QVariant Execute(QString line, bool background);
    QVariant ExecuteString(ZELArguments args) override;

    /// Runs the registered command of the record; false when its first word names none.
    bool doCmd(ZELArguments &args);
    /// Runs a command or built-in and answers as terminal text; false when the word is unknown.
    bool doExecuteStd(ZELArguments &args);
    /// Runs a command or built-in and answers in packets, the last of which completes; false when unknown.
    bool doExecutePro(ZELArguments &args);
    /// Whether a command of that name is executing in this session.
    bool isCommandRunning(QString name);
    /// One entry "name#number" per command executing in this session.
    QStringList runningNames();

    /// Enters a child directory, or "Main" from above the tree; false when there is none of that name.
    bool EnterDir(QString name);
    /// Goes one level up; above "Main" there is no current directory any more.
    void QuitDir();
    /// Leaves all levels: EnterDir("Main") brings the session back into the tree.
    void ReSetDir();
    ZELShellCommandTree *currentDirectory();
    /// "/Main/net", or "/net" without the root; empty above the tree.
    QString getShellPath(bool withRoot);
    QString getCurVirtualDir();
    /// Writes the coloured prompt, unless the session has no terminal or the prompt stands already.
    void PrintCurVirtualDir();
    /// Lists a directory in columns; "Main" for a null one. Hidden entries (a name that begins with ".") count only
    /// when the flag is set.
    void PrintDir(ZELShellCommandTree *dir, bool flag);
    /// Copies the nodes below src under dst, names and types only; dst is a ZELShellCommandTree or any other object,
    /// which then becomes their Qt parent.
    void dumptree(ZELShellCommandTree *src, QObject *dst);
    /// A copy of the main tree; with the system commands under "system" when asked for. The caller owns it.
    ZELShellCommandTree *getCommandTree(bool withSystem) override;
    /// The value of a variable, the name with its "$"; "NULL" when there is none.
    QString getEnvironment(QString name);
    void setEnvironment(const QString &name, const QString &value);

    /// The next input byte, waiting for it; 0 once the session is to end. Core thread only.
    char GetChar();
    /// Terminal echo: cursor left, cursor right, erase the character before the cursor. Nothing without terminal.
    void LeftShift();
    void RightShift();
    void DeleteOne();

    /// The clean-up after the core thread has ended, on the thread that reports it; waits for jobs, then schedules
    /// the session's deletion.
    void release();

public Q_SLOTS:
    /// Starts the core loop once. ismain: the session of the process itself, without handshake. isnotem: without
    /// terminal, so neither echo nor prompt; together a session of one line.
    void Start(bool ismain, bool isnotem);
    /// Asks the session to end and puts a terminal back into the mode it was found in.
    void Stop() override;

private:
    friend class ZELShellPrivate;
    std::shared_ptr<ZELShellPrivate> d;
};

#endif
