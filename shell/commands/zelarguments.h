// SPDX-License-Identifier: MIT
#ifndef ZELARGUMENTS_H
#define ZELARGUMENTS_H

#include "zellogging.h"
#include "zelshell_export.h"

#include <QByteArray>
#include <QDebug>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QUuid>
#include <QVariant>
#include <functional>
#include <optional>

class ZELArgumentsPrivate;
class ZELShellBase;

/**
 * The record of one command execution: the words of the line, where and by whom it runs, and what it hands back.
 *
 * A handle: all copies share one record, so what a command sets is seen by the shell that dispatched it. Setters are
 * const for that reason. The record lives as long as its last handle, also beyond its shell.
 *
 * Threads: copies may be made and destroyed on any thread; one thread at a time uses the record's fields.
 *
 *     void Board::uptime(ZELArguments args)        // a slot, registered as a command
 *     {
 *         if (args.containsOpt("--raw"))
 *             args.setReturnValue(seconds());
 *         else
 *             args.info() << "up for" << seconds() << "s";
 *     }
 */
class ZELSHELL_EXPORT ZELArguments
{
public:
    ZELArguments();
    /// The words of the line with quotes and outer brackets kept; getAllInput() is the line.
    ZELArguments(ZELShellBase *shell, const QString &line);
    /// The words as given.
    ZELArguments(ZELShellBase *shell, const QString &line, QStringList list);
    ZELArguments(const ZELArguments &other);
    ZELArguments &operator=(const ZELArguments &other);
    ~ZELArguments();

    /// Splits a line into words. Blank, tab, line feed, carriage return, "," and ";" separate; "=" is a word of its
    /// own;
    /// "..", '..', `..`, (..), [..] and {..} group, brackets of one kind nest; there is no escape character. Outside of
    /// groups other characters, all beyond ASCII among them, are dropped.
    /// keepQuote leaves the group's own quotes or brackets in the word; with dropEmptyQuoted an empty group is no word.
    static QStringList CommandSplit(QString line, bool keepQuote, bool dropEmptyQuoted);

    /// Makes the handle a fresh record of the line, for the same shell (if it still lives) and with the same print
    /// hook. Unlike the constructors this strips quotes and outer brackets, and getAllInput() becomes empty. Other
    /// handles keep the old record.
    void reset(const QString &line);

    /// The number of words, command word included.
    int Length() const;
    /// The number of words after the command word.
    int ArgumentsLength() const;
    /// A word, to be changed in place. An index out of range raises an assertion, which ends the command.
    QString &operator[](int i);
    QString operator[](int i) const;
    /// True for a word between single or double quotes or a pair of brackets; not for backticks.
    bool HasQuote(int i) const;

    /// True when some word after the command word is opt; false for an empty opt.
    bool containsOpt(const QString &opt) const;
    /// The first index of the word opt after the command word, trailing "=" of opt left aside; -1 when there is none.
    int indexOfOptFromString(const QString &opt) const;
    /// The word that follows opt, without its quotes or brackets. Empty when opt or the word is missing, or the word is
    /// another option: "-" alone or "-" and a letter. A word that begins with "--" is taken as the value.
    QString getOptFromString(const QString &opt) const;
    /// Removes the word, and every occurrence of its text from getAllInput(). Nothing beyond the last word.
    void removeAt(int i) const;
    /// Has the shell run a line of script, or this very record when the code is empty. The shell must be alive: without
    /// one an assertion is raised.
    void Execl(QString code) const;

    /// The session that the command runs for; null without one and once it is gone.
    QObject *Sender() const;
    bool HasSender() const;
    /// The session's id at construction, or the null id.
    QUuid getUuid() const;
    void setUuid(const QUuid &uuid) const;

    QVariant getReturnValue() const;
    /// An invalid value changes nothing.
    void setReturnValue(const QVariant &value) const;
    bool hasRetrunValue() const; // the spelling is part of the interface

    QString getExecName() const;
    void setExecName(const QString &name) const;
    QString getExecIndex() const;
    void setExecIndex(const QString &index) const;
    QString getExecPath() const;
    void setExecPath(const QString &path) const;
    /// The line as it was typed.
    QString getAllInput() const;
    void setAllInput(const QString &input) const;
    QString getErrorString() const;
    void setErrorString(const QString &text) const;

    /// The channel that was printed on last, "STDOUT" at first.
    QString getProtoclAccept() const;
    void setProtoclAccept(const QString &accept) const;
    /// The execution state, "EXECUTE_PROCESS" at first.
    QString getProtoclState() const;
    void setProtoclState(const QString &state) const;
    /// This machine's first IPv4 address that is not the loopback one.
    QString getProtoclHost() const;
    void setProtoclHost(const QString &host) const;
    QString baseCommand() const;
    void setBaseCommand(const QString &command) const;
    /// True when the command came through the packet protocol.
    bool hasProtocl() const;
    void setProtocl(bool on) const;
    bool isEncode() const;
    void enableEncode() const;
    void disableEncode() const;
    bool IsBackground() const;
    void setIsBackground(bool on) const;
    /// Rewrites each finished message of the channels below.
    std::function<QString(const QString &)> getMessagePrintHook() const;
    void setMessagePrintHook(const std::function<QString(const QString &)> &hook) const;

    /// True when the state is "EXECUTE_ERROR".
    bool hasError() const;
    /**
     * Asks the user on the session's terminal and waits for a line, which is edited as others are; askHidden() shows
     * nothing of it. Nothing, with the record's error set, when there is nobody to ask: in the background, without a
     * terminal, after the time, when the user presses Ctrl-C or leaves. The command then just returns. A tagged
     * statement is asked only if it says that it answers, see docs/protocol.md.
     * On the thread that runs the command. Kills and time limits end the wait.
     */
    std::optional<QString> ask(const QString &question, int timeoutMs = 60000) const;
    std::optional<QString> askHidden(const QString &question, int timeoutMs = 60000) const;
    /// The same for "y" or "yes"; any other answer, and none, is false.
    bool confirm(const QString &question, int timeoutMs = 60000) const;

    /// Ends the command with an error; does not return.
    [[noreturn]] void throwError(const char *what, const char *file, int line) const;

    /// The words joined with one blank.
    operator QString() const;
    /// The same as Latin-1.
    operator QByteArray() const;
    operator QStringList() const;
    QString ToString(QString separator) const;

    /// Handles that print to the session, or to the terminal once it is gone. Each call notes its channel, which
    /// goes out with the reply. stream() and object() print as is: no quotes, no line end.
    ZELLogging debug() const;
    ZELLogging info() const;
    ZELLogging warning() const;
    ZELLogging error() const;
    ZELLogging critical() const;
    ZELLogging fatal() const;
    ZELLogging stream() const;
    ZELLogging object() const;

private:
    friend class ZELArgumentsPrivate;
    explicit ZELArguments(ZELArgumentsPrivate *record);
    void release();

    ZELArgumentsPrivate *d;
};

/// The words joined with one blank, quoted like a QString.
ZELSHELL_EXPORT ZELLogging operator<<(ZELLogging log, const ZELArguments &args);
ZELSHELL_EXPORT QDebug operator<<(QDebug dbg, const ZELArguments &args);

Q_DECLARE_METATYPE(ZELArguments)

#endif
