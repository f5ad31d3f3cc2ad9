// SPDX-License-Identifier: MIT
#ifndef ZELSHELLCOMMAND_H
#define ZELSHELLCOMMAND_H

#include "zelarguments.h"
#include "zelshell_export.h"

#include <QObject>
#include <QVariant>
#include <functional>
#include <memory>

class ZELShellCommandPrivate;

/**
 * A bound command: one or more slots of host objects, run inside a try frame.
 *
 * A failing slot (a thrown exception, a failed assertion, a fatal signal, a time limit) becomes the state
 * "EXECUTE_ERROR" and an error string of the record; the calling thread goes on.
 *
 * Owner: the tree leaf it is attached to, or whoever made it. It lives until its last execution has returned when it
 * is reached through the registry.
 * Threads: every function may be called from any thread. The slot runs on the thread that calls doExecute(), not on the
 * receiver's; receivers guard their own data.
 *
 *     ZELShellCommand command;
 *     command.BindCommand(&board, SLOT(reset(ZELArguments)));
 *     ZELArguments args(nullptr, QStringLiteral("reset --hard"));
 *     command.doExecute(args);
 *     if (args.hasError()) qDebug() << args.getErrorString();
 */
class ZELSHELL_EXPORT ZELShellCommand : public QObject
{
    Q_OBJECT
public:
    ZELShellCommand();
    ~ZELShellCommand() override;

    /**
     * Lets Execute() call `member` of `receiver`, a method in the form of the SLOT macro that takes a ZELArguments or
     * nothing. It may return nothing, a QVariant, or any type known to QMetaType, which is wrapped in a QVariant; a
     * value of an unknown type is dropped. A second binding is called after the first, and the last value returned
     * counts.
     *
     * The slot is called without a Qt connection of its own, so that a fault inside it leaves the receiver intact;
     * sender() is null there. Once the receiver is gone nothing is called.
     * On a null receiver, or a member that does not exist or does not fit, warns like QObject::connect() and binds
     * nothing.
     */
    void BindCommand(const QObject *receiver, const char *member);
    /// True once a member was bound, whether its receiver still lives or not.
    bool isBound() const;

    /**
     * Runs the command on the calling thread and returns when it has ended, in whatever way. The slot's value becomes
     * the record's return value; an invalid one leaves the record's as it is.
     */
    void doExecute(ZELArguments args);
    /// The same; `abandoned` runs on this thread when the whole thread body is killed and the call never returns.
    void doExecute(ZELArguments args, std::function<void()> abandoned);

    /// True while at least one execution is in progress.
    bool IsRunning() const;
    /// Whether shells may start the command while an earlier run is going; false at first.
    bool canMultRunning() const;
    void setMultRun(bool on);

    /// A line for the host's help; empty at first.
    QString description() const;
    void setDescription(const QString &text);

    /// Time limit of one execution in milliseconds: 0 none, -1 (at first) the server's
    /// ZELShellServer::setCommandTimeout().
    int timeLimit() const;
    void setTimeLimit(int ms);

Q_SIGNALS:
    QVariant Execute(ZELArguments args);

private:
    friend class ZELShellCommandPrivate;
    std::unique_ptr<ZELShellCommandPrivate> d;
};

#endif
