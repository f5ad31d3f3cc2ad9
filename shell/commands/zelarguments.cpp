// SPDX-License-Identifier: MIT
#include "zelarguments_p.h"

#include "zelcatch.h"
#include "zelcommandsplit_p.h"
#include "zelguard_p.h"
#include "zelshellbase_p.h"

namespace {
// The name under which queued connections and QMetaType::type() find the type; an alias covers the reference.
const int metaType = [] {
    qRegisterMetaType<ZELArguments>("ZELArguments&");
    return qRegisterMetaType<ZELArguments>("ZELArguments");
}();

// Apart from the raise, so that nothing of it is on the stack when that jumps.
Exception *errorAt(const ZELArgumentsPrivate &record, const char *what, const char *file, int line)
{
    const QByteArray where = (record.execPath + QLatin1Char('/') + record.execName).toLatin1();
    return new Exception(where.constData(), what, file, line);
}
} // namespace

ZELLife<ZELShellBase>::Ref ZELArgumentsPrivate::refOf(ZELShellBase *shell)
{
    return shell ? shell->d->life.ref() : ZELLife<ZELShellBase>::Ref();
}

ZELArgumentsPrivate::ZELArgumentsPrivate(ZELShellBase *shell, const QStringList &arguments)
    : ZELArgumentsPrivate(refOf(shell), arguments)
{
}

ZELArgumentsPrivate::ZELArgumentsPrivate(const ZELLife<ZELShellBase>::Ref &shell, const QStringList &arguments)
    : shell(shell)
    , arguments(arguments)
{
    ZELCriticalSection section;
    protocol.host = zelHostAddress();
    if (auto use = shell.use())
        uuid = use->getUuid();
}

bool ZELArgumentsPrivate::hasquote(int i) const
{
    if (i < 0 || i >= arguments.size())
        return false;
    const QString &word = arguments.at(i);
    for (const char *pair : {"''", "\"\"", "()", "{}", "[]"}) {
        if (word.startsWith(QLatin1Char(pair[0])) && word.endsWith(QLatin1Char(pair[1])))
            return true;
    }
    return false;
}

thread_local const ZELArgumentsPrivate *ZELArgumentsPrivate::completing = nullptr;

QString ZELArgumentsPrivate::packetState() const
{
    return answersInPackets && completing != this ? QStringLiteral("EXECUTE_PROCESS") : protocol.state;
}

ZELArguments ZELArgumentsPrivate::handle(ZELArgumentsPrivate *record)
{
    return ZELArguments(record);
}

ZELArguments::ZELArguments(ZELArgumentsPrivate *record)
    : d(record)
{
    ++d->refCount;
}

ZELArguments::ZELArguments()
    : d(new ZELArgumentsPrivate(nullptr, {}))
{
}

ZELArguments::ZELArguments(ZELShellBase *shell, const QString &line)
    : ZELArguments(shell, line, CommandSplit(line, true, true))
{
}

ZELArguments::ZELArguments(ZELShellBase *shell, const QString &line, QStringList list)
    : d(new ZELArgumentsPrivate(shell, list))
{
    d->allInput = line;
}

ZELArguments::ZELArguments(const ZELArguments &other)
    : d(other.d)
{
    ++d->refCount;
}

ZELArguments &ZELArguments::operator=(const ZELArguments &other)
{
    if (d == other.d)
        return *this;
    ++other.d->refCount;
    release();
    d = other.d;
    return *this;
}

ZELArguments::~ZELArguments()
{
    release();
}

void ZELArguments::release()
{
    if (--d->refCount == 0)
        delete d;
}

QStringList ZELArguments::CommandSplit(QString line, bool keepQuote, bool dropEmptyQuoted)
{
    return zelSplitCommandLine(line, keepQuote, dropEmptyQuoted);
}

void ZELArguments::reset(const QString &line)
{
    auto *fresh = new ZELArgumentsPrivate(d->shell, CommandSplit(line, false, true));
    fresh->messagePrintHook = d->messagePrintHook;
    release();
    d = fresh;
}

void ZELArguments::Execl(QString code) const
{
    auto *shell = static_cast<ZELShellBase *>(Sender());
    if (!shell)
        zel_assert_x("ZELArguments::Execl", "no shell", "zelarguments", __LINE__);
    shell->ExecuteString(
        code.isEmpty() ? *this : ZELArguments(nullptr, QStringLiteral("dostring --string %1\n").arg(code)));
}

QObject *ZELArguments::Sender() const
{
    ZELCriticalSection section;
    return d->shell.peek();
}

bool ZELArguments::HasSender() const
{
    return Sender() != nullptr;
}

bool ZELArguments::hasError() const
{
    return d->protocol.state == QLatin1String("EXECUTE_ERROR");
}

void ZELArguments::throwError(const char *what, const char *file, int line) const
{
    // The raising place is part of the text that the caught error shows.
    exception_raise(errorAt(*d, what, file, line), "zelarguments", 624);
}

QUuid ZELArguments::getUuid() const
{
    return d->uuid;
}

void ZELArguments::setUuid(const QUuid &uuid) const
{
    d->uuid = uuid;
}

QString ZELArguments::getExecName() const
{
    return d->execName;
}

void ZELArguments::setExecName(const QString &name) const
{
    d->execName = name;
}

QString ZELArguments::getExecIndex() const
{
    return d->execIndex;
}

void ZELArguments::setExecIndex(const QString &index) const
{
    d->execIndex = index;
}

QString ZELArguments::getExecPath() const
{
    return d->execPath;
}

void ZELArguments::setExecPath(const QString &path) const
{
    d->execPath = path;
}

QString ZELArguments::getAllInput() const
{
    return d->allInput;
}

void ZELArguments::setAllInput(const QString &input) const
{
    d->allInput = input;
}

QString ZELArguments::getErrorString() const
{
    return d->errorString;
}

void ZELArguments::setErrorString(const QString &text) const
{
    d->errorString = text;
}

QString ZELArguments::getProtoclAccept() const
{
    return d->protocol.accept;
}

void ZELArguments::setProtoclAccept(const QString &accept) const
{
    d->protocol.accept = accept;
}

QString ZELArguments::getProtoclState() const
{
    return d->protocol.state;
}

void ZELArguments::setProtoclState(const QString &state) const
{
    d->protocol.state = state;
}

QString ZELArguments::getProtoclHost() const
{
    return d->protocol.host;
}

void ZELArguments::setProtoclHost(const QString &host) const
{
    d->protocol.host = host;
}

QString ZELArguments::baseCommand() const
{
    return d->protocol.baseCommand;
}

void ZELArguments::setBaseCommand(const QString &command) const
{
    d->protocol.baseCommand = command;
}

bool ZELArguments::hasProtocl() const
{
    return d->protocol.protocol;
}

void ZELArguments::setProtocl(bool on) const
{
    d->protocol.protocol = on;
}

bool ZELArguments::IsBackground() const
{
    return d->isBackground;
}

void ZELArguments::setIsBackground(bool on) const
{
    d->isBackground = on;
}

std::function<QString(const QString &)> ZELArguments::getMessagePrintHook() const
{
    return d->messagePrintHook;
}

void ZELArguments::setMessagePrintHook(const std::function<QString(const QString &)> &hook) const
{
    d->messagePrintHook = hook;
}

bool ZELArguments::isEncode() const
{
    return d->protocol.encode;
}

void ZELArguments::enableEncode() const
{
    d->protocol.encode = true;
}

void ZELArguments::disableEncode() const
{
    d->protocol.encode = false;
}

QVariant ZELArguments::getReturnValue() const
{
    return d->returnValue;
}

void ZELArguments::setReturnValue(const QVariant &value) const
{
    if (!value.isValid())
        return;
    d->returnValue = value;
    d->hasReturnValue = true;
}

bool ZELArguments::hasRetrunValue() const
{
    return d->hasReturnValue;
}
