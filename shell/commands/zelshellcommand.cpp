// SPDX-License-Identifier: MIT
// Invariants: what an execution has to give back lives on the heap, since a jump out of the command runs no
// destructors; counts and holds change inside critical sections; no lock is held while a slot runs.
#include "zelshellcommand_p.h"

#include "zelguard_p.h"
#include "zelshellcommandtree_p.h"

#include <QDebug>
#include <QMetaMethod>
#include <QPointer>

std::atomic<int> ZELShellCommandPrivate::defaultTimeLimit{0};

namespace {

using Run = ZELShellCommandPrivate::Run;

struct Locked
{
    explicit Locked(std::mutex &mutex)
        : lock(mutex)
    {
    }
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock;
};

/// A slot to call. The pointer is empty once the receiver's destruction has begun, on whatever thread.
struct Target
{
    QPointer<QObject> receiver;
    int method = -1;
    int returnType = QMetaType::Void;

    QVariant call(ZELArguments args) const
    {
        QObject *object = receiver.data();
        QVariant value;
        void *result = &value;
        if (returnType != QMetaType::QVariant) {
            value = returnType == QMetaType::Void ? QVariant() : QVariant(returnType, nullptr);
            result = value.isValid() ? value.data() : nullptr;
        }
        // Through the virtual function: an object that is half destroyed ignores methods of its lost classes.
        void *parameters[] = {result, &args};
        if (object)
            QMetaObject::metacall(object, QMetaObject::InvokeMetaMethod, method, parameters);
        return object ? value : QVariant();
    }
};

/// The text behind the code that the SLOT and SIGNAL macros put in front; bare signatures are taken as well.
const char *signatureOf(const char *member)
{
    return *member >= '0' && *member <= '2' ? member + 1 : member;
}

/// The index of the method that a member names; -1, with a warning, when it does not exist or takes something else
/// than a record.
int methodOf(const QObject *receiver, const char *member)
{
    if (!receiver || !member) {
        qWarning("ZELShellCommand::BindCommand: invalid null parameter");
        return -1;
    }
    const char *signature = signatureOf(member);
    const QMetaObject *meta = receiver->metaObject();
    const int index = meta->indexOfMethod(QMetaObject::normalizedSignature(signature));
    const char *problem = index < 0 ? "No such slot" : "Incompatible arguments of";
    if (index >= 0 && QMetaObject::checkConnectArgs("Execute(ZELArguments)", meta->method(index).methodSignature()))
        return index;
    qWarning("ZELShellCommand::BindCommand: %s %s::%s", problem, meta->className(), signature);
    return -1;
}

/// One execution, shared between the call and its frame.
class Execution
{
public:
    Execution(ZELShellCommandPrivate *d, Run run)
        : m_d(d)
        , m_run(std::move(run))
    {
    }

    bool begin()
    {
        ZELCriticalSection section;
        int idle = 0;
        if (m_run.always || m_d->multiRun)
            ++m_d->running;
        else if (!m_d->running.compare_exchange_strong(idle, 1))
            return false;
        m_counted = m_open = m_begun = true;
        if (m_run.watcher)
            m_run.watcher->started();
        return true;
    }

    void end()
    {
        ZELCriticalSection section;
        if (std::exchange(m_counted, false))
            --m_d->running;
        if (std::exchange(m_open, false) && m_run.watcher)
            m_run.watcher->ended();
        ZELShellCommandTreePrivate::drop(std::exchange(m_run.node, nullptr));
    }

    void abandon()
    {
        end();
        if (m_run.watcher)
            m_run.watcher->abandoned();
    }

    bool hasBegun() const { return m_begun; }

private:
    ZELShellCommandPrivate *const m_d;
    Run m_run;
    bool m_counted = false;
    bool m_open = false; ///< started and not ended
    bool m_begun = false;
};

class AbandonWatcher : public ZELCommandWatcher
{
public:
    explicit AbandonWatcher(std::function<void()> action)
        : m_action(std::move(action))
    {
    }
    void abandoned() override { m_action(); }

private:
    const std::function<void()> m_action;
};

void fail(const ZELArguments &args, const Exception &exception)
{
    const QString text = exception.ToString();
    // The name of the public function, not of this helper.
    QMessageLogger("zelshellcommand", __LINE__, "ZELShellCommand::doExecute").debug() << text;
    args.setProtoclState(QStringLiteral("EXECUTE_ERROR"));
    args.setErrorString(QStringLiteral("EXECUTE_ERROR :") + text);
}

} // namespace

bool ZELShellCommandPrivate::execute(ZELShellCommand *command, const ZELArguments &args, Run run)
{
    ZELFrame frame;
    auto owner = std::make_shared<Execution>(this, std::move(run));
    Execution *const execution = owner.get();
    // The frame alone owns it: what the stack holds is lost in a kill.
    frame->abandoned = [owner = std::move(owner)] { owner->abandon(); };
    const int ownLimit = timeLimit;
    frame->timeoutMs = ownLimit >= 0 ? ownLimit : defaultTimeLimit.load();
    const int failed = zelGuard(frame.get(), [&] {
        if (execution->begin())
            args.setReturnValue(call(command, args));
    });
    if (failed)
        fail(args, *frame->exception);
    zelCheckDescriptors();
    execution->end(); // the command may be gone from here on
    return execution->hasBegun();
}

ZELShellCommandPrivate::~ZELShellCommandPrivate()
{
    QObject::disconnect(receiverGone);
}

std::unique_ptr<ZELShellCommand> ZELShellCommandPrivate::make(ZELCommandDraft &draft)
{
    auto command = std::make_unique<ZELShellCommand>();
    ZELShellCommandPrivate *d = command->d.get();
    d->typed = std::make_shared<const ZELTypedCommand>(std::move(draft.typed));
    d->description = draft.help;
    d->multiRun = draft.multiRun;
    d->timeLimit = draft.timeLimit;
    d->changeTraits([&](ZELCommandTraits &traits) { traits = draft.traits; });
    return command;
}

ZELCommandTraits ZELShellCommandPrivate::commandTraits() const
{
    Locked locked(mutex);
    return traits;
}

void ZELShellCommandPrivate::changeTraits(const std::function<void(ZELCommandTraits &)> &change)
{
    Locked locked(mutex);
    change(traits);
    deprecated = !traits.replacement.isEmpty();
    restricted = traits.hidden || !traits.role.isEmpty();
}

bool ZELShellCommandPrivate::isVisible(const ZELCommandAudience &audience) const
{
    if (!restricted)
        return true;
    const ZELCommandTraits now = commandTraits();
    return !now.hidden && audience.hasRole(now.role);
}

bool ZELShellCommandPrivate::isFor(const ZELCommandAudience &audience) const
{
    return !restricted || audience.hasRole(commandTraits().role);
}

QVariant ZELShellCommandPrivate::call(ZELShellCommand *command, const ZELArguments &args)
{
    if (deprecated)
        args.warning().noquote() << args.getExecName() << "is deprecated, use" << commandTraits().replacement;
    const QVariant value = Q_EMIT command->Execute(args);
    return typed ? typed->run(args) : value;
}

ZELShellCommand::ZELShellCommand()
    : d(new ZELShellCommandPrivate)
{
    qRegisterMetaType<ZELArguments>("ZELArguments");
    qRegisterMetaType<ZELArguments>("ZELArguments&");
}

ZELShellCommand::~ZELShellCommand() = default;

void ZELShellCommand::BindCommand(const QObject *receiver, const char *member)
{
    const int method = methodOf(receiver, member);
    if (method < 0)
        return;
    Target target;
    target.receiver = const_cast<QObject *>(receiver);
    target.method = method;
    target.returnType = receiver->metaObject()->method(method).returnType();
    if (target.returnType == QMetaType::UnknownType)
        target.returnType = QMetaType::Void;
    // The signal's receiver is a relay that lives in no thread. A receiver in the calling thread would keep a pointer
    // into the stack when its slot is jumped out of, and could not be destroyed any more.
    auto relay = std::make_unique<QObject>();
    relay->moveToThread(nullptr);
    connect(
        this, &ZELShellCommand::Execute, relay.get(), [target](const ZELArguments &args) { return target.call(args); },
        Qt::DirectConnection);
    Locked locked(d->mutex);
    d->relays.push_back(std::move(relay));
}

bool ZELShellCommand::isBound() const
{
    Locked locked(d->mutex);
    return d->typed || !d->relays.empty();
}

void ZELShellCommand::doExecute(ZELArguments args)
{
    doExecute(args, {});
}

void ZELShellCommand::doExecute(ZELArguments args, std::function<void()> abandoned)
{
    Run run;
    if (abandoned)
        run.watcher = std::make_shared<AbandonWatcher>(std::move(abandoned));
    d->execute(this, args, std::move(run));
}

bool ZELShellCommand::IsRunning() const
{
    return d->running > 0;
}

bool ZELShellCommand::canMultRunning() const
{
    return d->multiRun;
}

void ZELShellCommand::setMultRun(bool on)
{
    d->multiRun = on;
}

QString ZELShellCommand::description() const
{
    Locked locked(d->mutex);
    return d->description;
}

void ZELShellCommand::setDescription(const QString &text)
{
    Locked locked(d->mutex);
    d->description = text;
}

int ZELShellCommand::timeLimit() const
{
    return d->timeLimit;
}

void ZELShellCommand::setTimeLimit(int ms)
{
    d->timeLimit = ms;
}
