// SPDX-License-Identifier: MIT
#ifndef ZELSHELLEXECATESTRING_P_H
#define ZELSHELLEXECATESTRING_P_H

#include "zelarguments.h"
#include "zelshell_p.h"

#include <optional>

/**
 * How deep the calling thread is in statements: a command may run a script, which runs statements again. Restores on
 * leaving what it found on entering, so that a jump out of inner statements leaves the outer one right.
 */
class ZELStatementDepth
{
public:
    ZELStatementDepth();
    ~ZELStatementDepth();
    /// True for a statement that no other one has started.
    bool isOutermost() const { return m_outer.depth == 0; }
    /// 1 for the outermost.
    int depth() const { return m_outer.depth + 1; }

    /// Back to no statement at all, after a jump out of the outermost one.
    static void reset() { s_nesting = Nesting(); }

    /// The key of the session's tagged statement inside of which this thread is: of its script, or of its command.
    static std::optional<QString> remoteKey(const ZELShellPrivate &session);
    /// Unless there is one already.
    static void setRemoteKey(const ZELShellPrivate &session, const QString &key);

private:
    struct Nesting
    {
        int depth = 0;
        std::optional<QString> remoteKey;
        const ZELShellPrivate *session = nullptr; ///< whose key it is: a command may run statements of other sessions
    };
    static thread_local Nesting s_nesting;
    Nesting m_outer;
};

/**
 * One statement, from its text to its answer.
 *
 * A line with the protocol tag is answered in packets, one of which completes; a statement of a script that such a
 * line started answers in packets of that line, none of which completes; all others answer as terminal text.
 */
class ZELStatement
{
public:
    ZELStatement(ZELShellPrivate &session, const ZELArguments &args);

    QVariant run(const ZELStatementDepth &depth);

private:
    void chooseAnswer();
    void takeTag(int at);
    void takeWord(int at, const QString &tag);
    void dispatch();
    void query(bool outermost);
    void assign();
    QString assignedValue(bool ran) const;
    bool execute(ZELShellPrivate::Unknown unknown);
    /// False, with the answer given, when that would make too much of it.
    bool expand();

    ZELShellPrivate &m_session;
    ZELArguments m_args;
    bool m_tagged = false;
};

/// The code of a script record: what "--string" is followed by, or the content of the file of "--file"; nothing when
/// there is neither, or the file cannot be read, which the error then says.
std::optional<QString> zelScriptCode(const ZELArguments &args, QString *error);

#endif
