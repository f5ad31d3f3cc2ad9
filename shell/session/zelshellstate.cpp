// SPDX-License-Identifier: MIT
#include "zelshellstate_p.h"

#include "zeliodevice.h"
#include "zelshellserverstate_p.h"
#include "zelterminal_p.h"
#include "zelthread.h"

#include <QDeadlineTimer>
#include <algorithm>
#include <sys/ioctl.h>
#include <sys/stat.h>

namespace {

const QString mainName = QStringLiteral("Main");
const QString here = QStringLiteral(".");

QStringList namesOf(const QVector<ZELShellCommandTree *> &nodes)
{
    QStringList names;
    for (ZELShellCommandTree *node : nodes)
        names += node->objectName();
    return names;
}

} // namespace

ZELRunningNames::Entry ZELRunningNames::take(const QString &path)
{
    ZELSessionLock lock(m_mutex);
    Entry entry{path.mid(path.lastIndexOf(QLatin1Char('/')) + 1), 0, path};
    while (m_entries.contains(entry))
        ++entry.number;
    m_entries.append(entry);
    return entry;
}

void ZELRunningNames::drop(const Entry &entry)
{
    ZELSessionLock lock(m_mutex);
    m_entries.removeOne(entry);
}

bool ZELRunningNames::contains(const QString &name) const
{
    const QString end = QLatin1Char('/') + ZELShellDirectories::split(name).join(QLatin1Char('/'));
    ZELSessionLock lock(m_mutex);
    return std::any_of(
        m_entries.cbegin(), m_entries.cend(), [&](const Entry &entry) { return entry.path.endsWith(end); });
}

QStringList ZELRunningNames::all() const
{
    ZELSessionLock lock(m_mutex);
    QStringList labels;
    for (const Entry &entry : m_entries)
        labels += entry.name + QLatin1Char('#') + QString::number(entry.number);
    return labels;
}

ZELShellDirectories::ZELShellDirectories(std::shared_ptr<ZELShellServerState> server)
    : m_server(std::move(server))
    , m_stack{m_server->mainRoot()}
{
}

QStringList ZELShellDirectories::split(const QString &path)
{
    QString plain = path;
    return plain.replace(QLatin1Char('\\'), QLatin1Char('/')).split(QLatin1Char('/'), Qt::SkipEmptyParts);
}

bool ZELShellDirectories::isAbsolute(const QString &path)
{
    return path.startsWith(QLatin1Char('/')) || path.startsWith(QLatin1Char('\\'));
}

bool ZELShellDirectories::enterOn(Stack &stack, const QString &name) const
{
    if (stack.isEmpty()) {
        if (name != mainName)
            return false;
        stack.append(m_server->mainRoot());
        return true;
    }
    ZELShellCommandTree *child = stack.last()->Find(name);
    if (!child || child->CommandType() != ZELShellCommandTree::Directory)
        return false;
    stack.append(child);
    return true;
}

bool ZELShellDirectories::enter(const QString &name)
{
    ZELSessionLock lock(m_mutex);
    return enterOn(m_stack, name);
}

void ZELShellDirectories::quit()
{
    ZELSessionLock lock(m_mutex);
    if (!m_stack.isEmpty())
        m_stack.removeLast();
}

void ZELShellDirectories::reset()
{
    ZELSessionLock lock(m_mutex);
    m_stack.clear();
}

ZELShellCommandTree *ZELShellDirectories::current() const
{
    ZELSessionLock lock(m_mutex);
    return m_stack.isEmpty() ? nullptr : m_stack.last();
}

QString ZELShellDirectories::path(bool withRoot) const
{
    QStringList names;
    {
        ZELSessionLock lock(m_mutex);
        names = namesOf(m_stack);
    }
    if (!withRoot && !names.isEmpty())
        names.removeFirst();
    QString result;
    for (const QString &name : names)
        result += QLatin1Char('/') + name;
    return result;
}

bool ZELShellDirectories::namesRoot(const QStringList &pieces) const
{
    return !pieces.isEmpty() && pieces.first() == mainName && !m_server->mainRoot()->Find(mainName);
}

QString ZELShellDirectories::change(const QStringList &arguments)
{
    ZELSessionLock lock(m_mutex);
    if (arguments.isEmpty()) {
        m_stack = {m_server->mainRoot()};
        return QString();
    }
    if (arguments == QStringList(QStringLiteral(".."))) {
        if (!m_stack.isEmpty())
            m_stack.removeLast();
        return QString();
    }
    QStringList pieces = split(arguments.first());
    if (isAbsolute(arguments.first())) {
        m_stack = {m_server->mainRoot()};
        if (namesRoot(pieces))
            pieces.removeFirst();
    } else if (!m_stack.isEmpty() && pieces.value(0) == here && !m_stack.last()->Find(here)) {
        pieces.removeFirst();
    }
    for (const QString &piece : qAsConst(pieces)) {
        if (!enterOn(m_stack, piece))
            return piece;
    }
    return QString();
}

ZELShellDirectories::Place ZELShellDirectories::place(const QString &path) const
{
    Place place{current(), split(path)};
    if (isAbsolute(path)) {
        place.start = m_server->mainRoot();
        if (namesRoot(place.pieces))
            place.pieces.removeFirst();
    } else if (!place.start && !place.pieces.isEmpty() && place.pieces.first() == mainName) {
        place.start = m_server->mainRoot();
        place.pieces.removeFirst();
    }
    if (place.start && !place.pieces.isEmpty() && place.pieces.first() == here && !place.start->Find(here))
        place.pieces.removeFirst();
    return place;
}

ZELShellJob::ZELShellJob(const QString &statement)
    : statement(statement.trimmed())
    , label(QLatin1String("ZELShell Cammand (") + statement + QLatin1Char(')')) // the spelling is kept
{
}

void ZELShellJob::open(ZELThread *thread, const std::function<void()> &ended)
{
    thread->setLabel(label);
    QObject::connect(thread, &ZELThread::completed, ended);
    ZELSessionLock lock(m_mutex);
    m_thread = thread;
    m_open = true;
    m_change.notify_all();
}

void ZELShellJob::begin()
{
    ZELSessionLock lock(m_mutex);
    while (!m_open)
        lock.wait(m_change);
    m_threadId = QThread::currentThreadId();
}

void ZELShellJob::end()
{
    ZELSessionLock lock(m_mutex);
    m_ended = true;
    m_change.notify_all();
}

bool ZELShellJob::kill()
{
    // Under the lock, so that the thread, which may be given other work afterwards, cannot leave this job meanwhile.
    ZELSessionLock lock(m_mutex);
    return !m_ended && m_threadId && except_stack->Kill(m_threadId) == 0;
}

bool ZELShellJob::waitForEnd(int ms)
{
    ZELSessionLock lock(m_mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!m_ended && lock.wait(m_change, deadline)) { }
    return m_ended;
}

QPointer<ZELThread> ZELShellJob::thread() const
{
    ZELSessionLock lock(m_mutex);
    return m_thread;
}

void ZELShellJobs::append(const std::shared_ptr<ZELShellJob> &job)
{
    ZELSessionLock lock(m_mutex);
    m_jobs.erase(
        std::remove_if(m_jobs.begin(), m_jobs.end(), [](const auto &old) { return old->hasEnded(); }), m_jobs.end());
    job->number = m_jobs.isEmpty() ? 1 : m_jobs.last()->number + 1;
    m_jobs.append(job);
}

QVector<std::shared_ptr<ZELShellJob>> ZELShellJobs::running() const
{
    ZELSessionLock lock(m_mutex);
    QVector<std::shared_ptr<ZELShellJob>> result;
    for (const auto &job : m_jobs) {
        if (!job->hasEnded())
            result.append(job);
    }
    return result;
}

void ZELShellJobs::clear()
{
    ZELSessionLock lock(m_mutex);
    m_jobs.clear();
}

ZELSessionOutput::ZELSessionOutput(ZELStream *stream)
    : m_stream(stream)
    , m_life(ZELAbstractStreamPrivate::ref(stream))
    , m_writes(stream ? ZELAbstractStreamPrivate::writes(*stream) : std::make_shared<const std::atomic<quint64>>(0))
{
}

void ZELSessionOutput::write(const QString &text)
{
    ZELCriticalSection section;
    if (const auto use = m_life.use())
        use->write(text);
}

void ZELSessionOutput::write(const QByteArray &bytes)
{
    ZELCriticalSection section;
    if (const auto use = m_life.use())
        use->write(bytes);
}

void ZELSessionOutput::prompt(const QString &text)
{
    const quint64 before = *m_writes;
    if (before == m_promptMark && before != 0)
        return;
    write(text);
    // With output of a job in between the count is higher than this, and the prompt does not stand.
    m_promptMark = before + 1;
}

bool ZELSessionOutput::isOpen()
{
    ZELCriticalSection section;
    const auto use = m_life.use();
    return use && use->IsOpen();
}

template <class F>
void ZELSessionOutput::withDevice(F &&action)
{
    ZELCriticalSection section;
    const auto use = m_life.use();
    if (!use)
        return;
    if (ZELIODevice *device = m_stream->getDevice())
        action(device);
}

int ZELSessionOutput::width()
{
    int columns = -1;
    withDevice([&](ZELIODevice *device) { columns = get_screen_width(dynamic_cast<ZELStdDevice *>(device)); });
    return columns > 0 ? columns : m_columns.load();
}

QPair<int, int> ZELSessionOutput::window()
{
    winsize size = {};
    withDevice([&](ZELIODevice *device) {
        if (const auto *terminal = dynamic_cast<ZELStdDevice *>(device))
            ioctl(terminal->descriptor(), TIOCGWINSZ, &size);
    });
    return size.ws_col > 0 ? qMakePair(int(size.ws_col), int(size.ws_row)) : qMakePair(m_columns.load(), m_rows.load());
}

void ZELSessionOutput::setComposer(const std::function<QByteArray(const QByteArray &)> &composer)
{
    ZELCriticalSection section;
    if (const auto use = m_life.use())
        ZELAbstractStreamPrivate::gateOf(*use.get()).setComposer(composer);
}

void ZELSessionOutput::alone(const std::function<void()> &action)
{
    ZELCriticalSection section;
    if (const auto use = m_life.use())
        ZELAbstractStreamPrivate::gateOf(*use.get()).alone(action);
    else
        action();
}

void ZELSessionOutput::takeAllKeys()
{
    withDevice([](ZELIODevice *device) {
        if (const auto *terminal = dynamic_cast<ZELStdDevice *>(device))
            zelTerminalTakeAllKeys(terminal->descriptor());
    });
}

bool ZELSessionOutput::isPiped()
{
    bool piped = false;
    withDevice([&](ZELIODevice *device) {
        const auto *standard = dynamic_cast<ZELStdDevice *>(device);
        struct stat file = {};
        // Not isatty(), which a terminal that was hung up fails.
        piped = standard && fstat(standard->descriptor(), &file) == 0 && !S_ISCHR(file.st_mode);
    });
    return piped;
}

void ZELSessionOutput::restoreRawMode()
{
    withDevice([](ZELIODevice *device) {
        if (auto *terminal = dynamic_cast<ZELStdDevice *>(device))
            zelTerminalReenterRaw(terminal->descriptor());
    });
}

void ZELSessionOutput::leaveRawMode()
{
    withDevice([](ZELIODevice *device) {
        if (auto *terminal = dynamic_cast<ZELStdDevice *>(device))
            terminal->CloseRawInputMode();
    });
}

bool ZELSessionOutput::enableInterruptKey(bool on)
{
    bool done = false;
    withDevice([&](ZELIODevice *device) {
        if (auto *terminal = dynamic_cast<ZELStdDevice *>(device))
            done = zelTerminalInterruptKey(terminal->descriptor(), on);
    });
    return done;
}

bool ZELSessionOutput::takeByte(char byte)
{
    bool taken = false;
    withDevice([&](ZELIODevice *device) { taken = device->takeByte(byte); });
    return taken;
}

void ZELSessionOutput::closeDevice()
{
    ZELWriteBehind::finish();
    withDevice([](ZELIODevice *device) { device->Close(); });
}

void ZELSessionOutput::closeDeviceSoon()
{
    withDevice([](ZELIODevice *device) { device->closeSoon(); });
}

void ZELSessionOutput::releaseDevice()
{
    withDevice([](ZELIODevice *device) { device->release(); });
}
