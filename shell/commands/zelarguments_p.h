// SPDX-License-Identifier: MIT
#ifndef ZELARGUMENTS_P_H
#define ZELARGUMENTS_P_H

#include "zelarguments.h"
#include "zellife_p.h"
#include <atomic>
#include <optional>

class ZELStatementFilter;

/// What a command asks the user.
struct ZELQuestion
{
    QString text;
    bool hidden = false;
    int timeoutMs = 0;
};

/// One execution's record; see ZELArguments for what the fields mean.
class ZELArgumentsPrivate
{
public:
    struct Protocl_Set_Type
    {
        QString accept = QStringLiteral("STDOUT");
        QString state = QStringLiteral("EXECUTE_PROCESS");
        QString host;
        QString baseCommand;
        bool encode = false;
        bool protocol = false;
    };

    ZELArgumentsPrivate(ZELShellBase *shell, const QStringList &arguments);
    ZELArgumentsPrivate(const ZELLife<ZELShellBase>::Ref &shell, const QStringList &arguments);

    /// The record behind a handle, good while a handle lives. A print hook that needs its record captures this and not
    /// a handle, which would keep the record alive for ever; the channels' log handles keep it alive while they print.
    static ZELArgumentsPrivate *get(const ZELArguments &args) { return args.d; }
    /// Another handle of a record that some handle keeps alive.
    static ZELArguments handle(ZELArgumentsPrivate *record);

    bool hasquote(int i) const;
    /// The state for a packet that this thread writes now. For a statement "EXECUTE_PROCESS", whatever its command has
    /// set and whoever prints, but in the packet that completes it.
    QString packetState() const;

    ZELLife<ZELShellBase>::Ref shell;
    QStringList arguments;
    QString execName;
    QString execIndex;
    QString execPath;
    QString allInput;
    QString errorString;
    QString usage; ///< stands behind the error on a terminal; empty unless the words did not fit
    QUuid uuid;
    std::function<QString(const QString &)> messagePrintHook;
    QVariant returnValue;
    bool hasReturnValue = false;
    std::shared_ptr<ZELStatementFilter> filter; ///< what the statement's text goes through; null without filters
    bool isBackground = false;
    bool takesQuestions = false; ///< the statement is a tagged one whose sender answers questions
    /// Asks the user of a record's session; nothing, with the reason, when there is no answer. Set by the sessions.
    static std::optional<QString> (*asker)(const ZELArguments &args, const ZELQuestion &question, QString *problem);
    /// The record is that of a statement answered in packets.
    bool answersInPackets = false;
    bool errorSaysWhere = false; ///< it comes out of a function of a script, and names its place
    bool errorIsShown = false; ///< by what the command ran
    /// The record whose completing packet this thread prints.
    static thread_local const ZELArgumentsPrivate *completing;
    /// The text or packet that completes the statement has been written.
    bool answered = false;
    Protocl_Set_Type protocol;
    std::atomic<int> refCount{1}; ///< handles on this record, which any thread may copy and destroy

private:
    static ZELLife<ZELShellBase>::Ref refOf(ZELShellBase *shell);
};

/// The address for reply headers; looked up at most once a second, since a board gets its address late.
QString zelHostAddress();

#endif
