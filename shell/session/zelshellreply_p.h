// SPDX-License-Identifier: MIT
#ifndef ZELSHELLREPLY_P_H
#define ZELSHELLREPLY_P_H

#include "zelarguments.h"

class ZELShellPrivate;

/**
 * How a built-in answers: as text on a terminal, or as packets of which exactly one completes.
 *
 * A built-in calls text() and bytes() for what it prints, and then one of the others once.
 */
class ZELReply
{
public:
    ZELReply(ZELShellPrivate &session, ZELArguments &args)
        : m_session(session)
        , m_args(args)
    {
    }
    virtual ~ZELReply() = default;

    virtual void text(const QString &text) = 0;
    virtual void bytes(const QByteArray &bytes) = 0;
    /// It worked.
    virtual void done() = 0;
    /// The word itself was the value.
    virtual void value(const QString &value) = 0;
    /// It did not work; the message comes with its line end.
    virtual void fail(const QString &message) = 0;
    /// No built-in of that name either.
    virtual void unknown(const QString &message) = 0;
    /// The process or the session is about to end; terminalText may be empty.
    virtual void farewell(const QString &state, const QString &terminalText, const QString &packetText) = 0;

protected:
    ZELShellPrivate &m_session;
    ZELArguments &m_args;
};

/// What a line beyond the limit is answered with.
QString zelTooLong(int limit);

class ZELTerminalReply : public ZELReply
{
public:
    using ZELReply::ZELReply;
    void text(const QString &text) override;
    void bytes(const QByteArray &bytes) override;
    void done() override { }
    void value(const QString &value) override;
    void fail(const QString &message) override;
    void unknown(const QString &message) override;
    void farewell(const QString &state, const QString &terminalText, const QString &packetText) override;
};

class ZELPacketReply : public ZELReply
{
public:
    using ZELReply::ZELReply;
    void text(const QString &text) override;
    void bytes(const QByteArray &bytes) override;
    void done() override;
    void value(const QString &value) override;
    void fail(const QString &message) override;
    void unknown(const QString &message) override;
    void farewell(const QString &state, const QString &terminalText, const QString &packetText) override;
};

/// Bytes as text: UTF-8 where they are UTF-8, else Latin-1.
QString zelTextOf(const QByteArray &bytes);
/// The same for each of the lines.
QString zelTextOfLines(const QByteArray &bytes);

/// Bytes that arrive in pieces, cut anywhere, as pieces that cut no character.
class ZELTextPieces
{
public:
    /// What of it is whole, behind what was held back before; at the end all.
    QByteArray take(const QByteArray &bytes, bool isEnd);

private:
    QByteArray m_held;
};

#endif
