// SPDX-License-Identifier: MIT
#include "zelarguments_p.h"

#include "zelguard_p.h"
#include "zellogging_p.h"
#include "zelshellbase.h"

namespace {
// The hook may need the record, and a log handle may outlive every other handle of it.
ZELLogging::Hook keepingRecord(const ZELArguments &args)
{
    const ZELLogging::Hook hook = args.getMessagePrintHook();
    if (!hook)
        return {};
    return [args, hook](const QString &text) { return hook(text); };
}

// Where a command prints whose session has gone. One for all: what a handle makes for itself stays behind with each
// message, and such a command may print for ever.
ZELAbstractStream *terminal()
{
    static ZELAbstractStream *const stream = ZELLoggingPrivate::newTerminal();
    return stream;
}

ZELLogging channel(const ZELArguments &args, const char *accept, ZELLogging::LoggingMsgType type, bool asIs = false)
{
    args.setProtoclAccept(QLatin1String(accept));
    const ZELLogging::Hook hook = keepingRecord(args);
    ZELCriticalSection section;
    const auto &session = ZELArgumentsPrivate::get(args)->shell;
    auto shell = session.use();
    if (!shell)
        return ZELLogging(session.isNull() ? nullptr : terminal(), type, {});
    ZELLogging log(shell->getStream(), type, hook);
    if (asIs)
        log.noquote().noNewLine();
    return log;
}
} // namespace

ZELLogging ZELArguments::debug() const
{
    return channel(*this, "STDOUT", ZELLogging::Debug);
}

ZELLogging ZELArguments::info() const
{
    return channel(*this, "STDINFO", ZELLogging::Info);
}

ZELLogging ZELArguments::warning() const
{
    return channel(*this, "STDWARNING", ZELLogging::Warning);
}

ZELLogging ZELArguments::error() const
{
    return channel(*this, "STDERROR", ZELLogging::Error);
}

ZELLogging ZELArguments::critical() const
{
    return channel(*this, "STDCRITICAL", ZELLogging::Critical);
}

ZELLogging ZELArguments::fatal() const
{
    return channel(*this, "STDFATAL", ZELLogging::Fatal);
}

ZELLogging ZELArguments::stream() const
{
    return channel(*this, "STREAM", ZELLogging::Debug, true);
}

ZELLogging ZELArguments::object() const
{
    return channel(*this, "OBJECT", ZELLogging::Debug, true);
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
