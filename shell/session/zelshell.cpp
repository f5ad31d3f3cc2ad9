// SPDX-License-Identifier: MIT
#include "zelshell_p.h"

#include "zelshellcollection_p.h"
#include "zelshellidle_p.h"
#include "zelshelllog_p.h"
#include "zelshellloop_p.h"
#include "zelshellquestions_p.h"
#include "zelshellserverstate_p.h"
#include "zelterminal_p.h"
#include "zelthread.h"
#include "zelthread_p.h"
#include "zeltsan_p.h"
#include "zeluser.h"

#include <QDeadlineTimer>
#include <QDebug>
#include <QLoggingCategory>
#include <QStringBuilder>
#include <unistd.h>

namespace {

// How long the end of a session waits for each job that still runs.
const int jobGraceMs = 3000;

/// A field of the connection description, "Name=value;Name=value;".
QStringRef field(const QString &description, QLatin1String name)
{
    for (int start = 0; start < description.size();) {
        int end = description.indexOf(QLatin1Char(';'), start);
        if (end < 0)
            end = description.size();
        const QStringRef part = description.midRef(start, end - start);
        if (part.startsWith(name))
            return part.mid(name.size());
        start = end + 1;
    }
    return QStringRef();
}

} // namespace

QString zelProtocolTag()
{
    return QStringLiteral("UFJPVE9DT0w9WkVMX1NIRUxM"); // "PROTOCOL=ZEL_SHELL" in base64
}

ZELShellPrivate::ZELShellPrivate(ZELShell *q, ZELStream *stream)
    : server(ZELShellServerState::current())
    , life(q)
    , output(stream)
    , directories(server)
    , loop(new ZELShellLoop(*this))
{
    zelLetCommandsAsk();
    setDescription(QStringLiteral("Stream=StdStream;PeerName=*;PeerAddress=loaclhost;PeerPort=*;"));
    updatePath();
}

ZELShellPrivate::~ZELShellPrivate()
{
    endHandshake();
}

QString ZELShellPrivate::text(QString ZELShellPrivate::*field) const
{
    ZELSessionLock lock(mutex);
    return this->*field;
}

void ZELShellPrivate::setText(QString ZELShellPrivate::*field, const QString &value)
{
    ZELSessionLock lock(mutex);
    this->*field = value;
}

void ZELShellPrivate::setDescription(const QString &text)
{
    const QString shown
        = field(text, QLatin1String("PeerName=")) % QLatin1Char(':') % field(text, QLatin1String("PeerAddress="));
    ZELSessionLock lock(mutex);
    description = text;
    peer = shown;
}

ZELShellPrivate::Identity ZELShellPrivate::identity()
{
    ZELCriticalSection section;
    const auto use = life.ref().use();
    if (!use)
        return Identity();
    return {use->productId(), use->versionId(), use->hardId(), use->custom()};
}

QSqlDatabase ZELShellPrivate::loginDatabase() const
{
    ZELSessionLock lock(mutex);
    return database;
}

QUuid ZELShellPrivate::sessionUuid() const
{
    ZELSessionLock lock(mutex);
    return uuid;
}

void ZELShellPrivate::setSessionUuid(const QUuid &id)
{
    ZELSessionLock lock(mutex);
    uuid = id;
}

std::atomic<bool> ZELShellPrivate::quietOnTerminal{false};

void ZELShellPrivate::keepLogOffTerminal()
{
    // A handler of the host's own decides by itself where its lines go. There is no asking without setting.
    const QtMessageHandler handler = qInstallMessageHandler(nullptr);
    const QtMessageHandler standard = qInstallMessageHandler(handler);
    quietOnTerminal = handler == standard;
}

void ZELShellPrivate::log(const QString &line)
{
    ZELCriticalSection section;
    // What qDebug() does, without a text stream for each line.
    const QLoggingCategory *const category = QLoggingCategory::defaultCategory();
    if (category->isDebugEnabled() && !(quietOnTerminal && zelTerminalIsRaw(STDERR_FILENO)))
        qt_message_output(
            QtDebugMsg, QMessageLogContext(nullptr, 0, nullptr, category->categoryName()), zelHarmless(line));
}

void ZELShellPrivate::emitProcessReceived()
{
    ZELCriticalSection section;
    if (const auto use = life.ref().use())
        Q_EMIT use->ProcessReceived();
}

void ZELShellPrivate::noteWaiting()
{
    using namespace std::chrono;
    waitingSince = duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void ZELShellPrivate::stop(StopState state)
{
    because("it was stopped");
    stopState = state;
    if (state == Stopped)
        output.leaveRawMode();
}

void ZELShellPrivate::runCore()
{
    coreThreadId = QThread::currentThreadId();
    coreRunning = true;
    if (!isMain && idleLimit)
        ZELIdleWatch::add(shared_from_this());
    loop->run();
    finishCore();
}

void ZELShellPrivate::finishCore()
{
    if (coreFinished.exchange(true))
        return;
    because("its thread was ended by a kill or a fault");
    endHandshake();
    ZELWriteBehind::finish();
    if (underway)
        answerUnanswered(underway->first, underway->second);
    ZELUser user = ZELUser::getUser(sessionUuid());
    if (takesPartInLogin && user.isLogin())
        user.autologout();
    coreRunning = false;
    if (!isMain)
        log(QLatin1Char('[') % text(&ZELShellPrivate::peer) % QLatin1String("] session ends: ")
            % QLatin1String(endReason.load()));
    log(QStringLiteral("ZELShell Closed!"));
}

void ZELShellPrivate::endJobs()
{
    const QDeadlineTimer together(jobGraceMs);
    const auto left = jobs.running();
    for (auto job = left.crbegin(); job != left.crend(); ++job) {
        if ((*job)->hasEnded())
            continue;
        qDebug() << "Waring:" << (*job)->label << "is not closed while of shell closing.";
        // Somebody waits for the end of the terminal's session.
        if (!(*job)->waitForEnd(isMain ? int(together.remainingTime()) : jobGraceMs))
            qDebug("Waring:Thread exit failed,Some operations are time-consuming or have that  locks cause threads "
                   "to block!");
    }
    jobs.clear();
}

void ZELShellPrivate::watchInterruptKey()
{
    if (!interruptible || !output.stream())
        return;
    // Without a receiver, as above all on the device's thread: the core thread is busy then.
    QObject::connect(output.stream(), &ZELStream::readyRead, [state = weak_from_this()] {
        if (const auto session = state.lock())
            session->foreground.noteInput();
    });
    ZEL_TSAN_RELEASE(static_cast<ZELAbstractStream *>(output.stream()));
}

ZELShell::ZELShell(ZELStream *stream, QObject *parent)
    : ZELShellBase(parent)
    , d(std::make_shared<ZELShellPrivate>(this, stream))
{
    if (!stream)
        return;
    // Without a receiver: the signal comes on the device's thread, and the state outlives this object.
    connect(stream, &ZELStream::DeviceClose, [state = std::weak_ptr<ZELShellPrivate>(d)] {
        if (const auto session = state.lock())
            session->noteGone();
    });
    ZELAbstractStreamPrivate::setDropHook(*stream, [state = std::weak_ptr<ZELShellPrivate>(d)] {
        const auto session = state.lock();
        if (session && session->isAbandonedWriter())
            except_stack->Kill(QThread::currentThreadId());
    });
    ZEL_TSAN_RELEASE(static_cast<ZELAbstractStream *>(stream));
}

ZELShell::~ZELShell()
{
    if (d->coreRunning)
        qWarning("ZELShell::~ZELShell: the core thread is still running");
    d->life.end();
    endLife();
    ZELShellCollectionPrivate::leave(this);
    if (d->started && !d->isMain)
        d->output.releaseDevice();
}

void ZELShell::Start(bool ismain, bool isnotem)
{
    if (d->started.exchange(true)) {
        qWarning("ZELShell::Start: the session was started before");
        return;
    }
    d->isMain = ismain;
    d->noTerminal = isnotem;
    d->watchInterruptKey();
    auto *thread = new ZELThread;
    thread->setAutoDelete();
    thread->setLabel(QStringLiteral("ZELShell Core Thread"));
    thread->setCallback([state = d](ZELThreadInfo *) { state->runCore(); });
    // On the core thread itself: the thread that accepts connections must not wait for jobs.
    connect(
        thread, &ZELThread::completed, this, [this] { release(); }, Qt::DirectConnection);
    {
        ZELSessionLock lock(d->mutex);
        d->coreThread = thread;
    }
    Q_EMIT Started();
    thread->start(QThread::InheritPriority);
    if (zelHasStarted(*thread))
        return;
    delete thread;
    qWarning("ZELShell::Start: no thread left, the session ends");
    d->finishCore();
    Stop();
    Q_EMIT Stoped();
    deleteLater();
}

void ZELShell::Stop()
{
    d->stop(ZELShellPrivate::Stopped);
}

void ZELShell::release()
{
    const auto state = d;
    state->finishCore();
    Stop();
    if (!state->isMain)
        state->output.closeDevice();
    Q_EMIT Stoped();
    state->endJobs();
    deleteLater();
}

ZELAbstractStream *ZELShell::getStream()
{
    return d->output.stream();
}

QUuid ZELShell::getUuid()
{
    return d->sessionUuid();
}

void ZELShell::setUuid(QUuid uuid)
{
    d->setSessionUuid(uuid);
}

bool ZELShell::IsMain()
{
    return d->isMain && !d->noTerminal;
}

bool ZELShell::isNoTerminal()
{
    return d->noTerminal;
}

QString ZELShell::shellName()
{
    return d->text(&ZELShellPrivate::name);
}

void ZELShell::setShellName(const QString &name)
{
    d->setText(&ZELShellPrivate::name, name);
}

QString ZELShell::shellLicence()
{
    ZELSessionLock lock(d->mutex);
    return d->name + QLatin1Char('@') + d->index.toString();
}

void ZELShell::setShellIndex(const QUuid &index)
{
    ZELSessionLock lock(d->mutex);
    d->index = index;
}

QString ZELShell::connectionDescription()
{
    return d->text(&ZELShellPrivate::description);
}

void ZELShell::setConnectionDescription(const QString &text)
{
    d->setDescription(text);
}

void ZELShell::setParentContainer(ZELShellCollection *container)
{
    ZELSessionLock lock(d->mutex);
    d->container = container;
}

ZELShellCollection *ZELShell::parentContainer() const
{
    ZELSessionLock lock(d->mutex);
    return d->container;
}

QSqlDatabase ZELShell::database() const
{
    return d->loginDatabase();
}

void ZELShell::setDatabase(const QSqlDatabase &database)
{
    ZELSessionLock lock(d->mutex);
    d->database = database;
}

QList<QPointer<ZELThread>> ZELShell::getRunnings()
{
    QList<QPointer<ZELThread>> threads;
    for (const auto &job : d->jobs.running())
        threads += job->thread();
    return threads;
}

void ZELShell::setInteractive(bool on)
{
    d->interactive = on;
}

void ZELShell::setShowReturnValue(bool on)
{
    d->showReturnValue = on;
}

void ZELShell::setKeepHistory(bool on)
{
    d->keepHistory = on;
}

void ZELShell::setUtf8Editing(bool on)
{
    d->utf8Editing = on;
}

void ZELShell::setInterruptible(bool on)
{
    d->interruptible = on;
}

void ZELShell::setLineLimit(int bytes)
{
    d->lineLimit = qMax(0, bytes);
}

void ZELShell::setIdleLimit(int ms)
{
    const int before = d->idleLimit.exchange(qMax(0, ms));
    if (before == 0 && ms > 0 && d->coreRunning && !d->isMain)
        ZELIdleWatch::add(d);
}

bool ZELShell::isRunning() const
{
    return d->coreRunning;
}

QPointer<ZELThread> ZELShell::coreThread() const
{
    ZELSessionLock lock(d->mutex);
    return d->coreThread;
}

int ZELShell::stopState() const
{
    return d->stopState;
}

int ZELShell::pendingStatements() const
{
    return d->pending;
}

bool ZELShell::hasError() const
{
    return d->failed;
}

QStringList ZELShell::history()
{
    return d->history.entries();
}

char ZELShell::GetChar()
{
    return d->loop->getChar();
}
