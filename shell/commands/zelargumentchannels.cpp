// SPDX-License-Identifier: MIT
#include "zelarguments_p.h"

#include "zelguard_p.h"
#include "zellogging_p.h"
#include "zelshellbase.h"

namespace {
// Where a command prints whose session has gone. One for all: what a handle makes for itself stays behind with each
// message, and such a command may print for ever.
ZELAbstractStream *terminal()
{
    ZELCriticalSection section;
    static ZELAbstractStream *const stream = ZELLoggingPrivate::newTerminal();
    return stream;
}

ZELLogging channel(const ZELArguments &args, const QString &accept, ZELLogging::LoggingMsgType type, bool asIs = false)
{
    args.setProtoclAccept(accept);
    ZELCriticalSection section;
    const auto &session = ZELArgumentsPrivate::get(args)->shell;
    auto shell = session.use();
    if (!shell)
        return ZELLogging(session.isNull() ? nullptr : terminal(), type, {});
    ZELLogging log(shell->getStream(), type, {});
    // The hook may need the record, and a log handle may outlive every other handle of it.
    if (ZELLogging::Hook hook = args.getMessagePrintHook())
        ZELLoggingPrivate::setHook(log, [args, hook = std::move(hook)](const QString &text) { return hook(text); });
    if (asIs)
        log.noquote().noNewLine();
    return log;
}
} // namespace

ZELLogging ZELArguments::debug() const
{
    return channel(*this, QStringLiteral("STDOUT"), ZELLogging::Debug);
}

ZELLogging ZELArguments::info() const
{
    return channel(*this, QStringLiteral("STDINFO"), ZELLogging::Info);
}

ZELLogging ZELArguments::warning() const
{
    return channel(*this, QStringLiteral("STDWARNING"), ZELLogging::Warning);
}

ZELLogging ZELArguments::error() const
{
    return channel(*this, QStringLiteral("STDERROR"), ZELLogging::Error);
}

ZELLogging ZELArguments::critical() const
{
    return channel(*this, QStringLiteral("STDCRITICAL"), ZELLogging::Critical);
}

ZELLogging ZELArguments::fatal() const
{
    return channel(*this, QStringLiteral("STDFATAL"), ZELLogging::Fatal);
}

ZELLogging ZELArguments::stream() const
{
    return channel(*this, QStringLiteral("STREAM"), ZELLogging::Debug, true);
}

ZELLogging ZELArguments::object() const
{
    return channel(*this, QStringLiteral("OBJECT"), ZELLogging::Debug, true);
}

ZELLogging operator<<(ZELLogging log, const ZELArguments &args)
{
    log << QString(args);
    return log;
}

QDebug operator<<(QDebug dbg, const ZELArguments &args)
{
    return dbg << QString(args);
}
