// SPDX-License-Identifier: MIT
#include "zeleventdispatcher_p.h"
#include "zelguard_p.h"
#include "zeltsan_p.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

namespace {

const qint64 nsPerMs = 1000000;
const qint64 nsPerSecond = 1000 * nsPerMs;

qint64 now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * nsPerSecond + time.tv_nsec;
}

short eventsOf(const QSocketNotifier *notifier)
{
    switch (notifier->type()) {
    case QSocketNotifier::Read:
        return POLLIN;
    case QSocketNotifier::Write:
        return POLLOUT;
    default:
        return POLLPRI;
    }
}

} // namespace

ZELEventDispatcher::ZELEventDispatcher(QThread *restarted)
    : m_restarted(restarted)
{
    ZEL_TSAN_RELEASE(this); // Qt hands it to other threads, and is not looked at
}

ZELEventDispatcher::~ZELEventDispatcher()
{
    if (m_wakeFd >= 0)
        close(m_wakeFd);
}

bool ZELEventDispatcher::processEvents(QEventLoop::ProcessEventsFlags flags)
{
    takeDescriptor();
    m_state = Awake;
    // An interrupt from before this pass may be meant for the loop that has just begun it: look, but do not wait.
    const bool interrupted = m_interrupted.exchange(false);
    Q_EMIT awake();
    QCoreApplication::sendPostedEvents();
    if (m_interrupted)
        return false;

    const bool wait = flags & QEventLoop::WaitForMoreEvents && !interrupted && fallAsleep();
    if (wait)
        Q_EMIT aboutToBlock();
    int processed = waitForDescriptors(flags, wait);
    if (wait)
        Q_EMIT awake();
    if (!(flags & QEventLoop::ExcludeSocketNotifiers))
        processed += activateNotifiers();
    if (!(flags & QEventLoop::X11ExcludeTimers))
        processed += activateTimers();
    return processed > 0;
}

bool ZELEventDispatcher::hasPendingEvents()
{
    return m_state == Woken;
}

bool ZELEventDispatcher::takeDescriptor()
{
    if (m_wakeFd < 0)
        m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return m_wakeFd >= 0;
}

// False when something was posted since posted events were sent: then nobody will write to the eventfd any more.
bool ZELEventDispatcher::fallAsleep()
{
    int awake = Awake;
    return m_state.compare_exchange_strong(awake, Asleep);
}

int ZELEventDispatcher::waitForDescriptors(QEventLoop::ProcessEventsFlags flags, bool wait)
{
    const int wakeFd = m_wakeFd;
    m_poll.resize(1);
    m_poll[0] = {wakeFd, POLLIN, 0};
    if (!(flags & QEventLoop::ExcludeSocketNotifiers))
        for (const QSocketNotifier *notifier : qAsConst(m_notifiers))
            m_poll.append({int(notifier->socket()), eventsOf(notifier), 0});

    const qint64 ns = waitingTime(flags, wait);
    const timespec time{time_t(ns / nsPerSecond), long(ns % nsPerSecond)};
    const int ready = ppoll(m_poll.data(), nfds_t(m_poll.size()), ns < 0 ? nullptr : &time, nullptr);

    int asleep = Asleep;
    const bool woken = !m_state.compare_exchange_strong(asleep, Awake) && wait;
    if (ready > 0 && m_poll[0].revents & POLLNVAL)
        zelGiveUp("the event descriptor of a thread was closed by somebody else");
    if (ready > 0 && m_poll[0].revents) {
        eventfd_t count;
        eventfd_read(wakeFd, &count);
    }
    if (ready > 0)
        collectReady();
    return woken;
}

// Nanoseconds, negative without a limit.
qint64 ZELEventDispatcher::waitingTime(QEventLoop::ProcessEventsFlags flags, bool wait) const
{
    if (!wait)
        return 0;
    qint64 limit = m_wakeFd < 0 ? 10 * nsPerMs : -1;
    if (flags & QEventLoop::X11ExcludeTimers)
        return limit;
    const auto next
        = std::find_if(m_timers.cbegin(), m_timers.cend(), [](const Timer &timer) { return !timer.active; });
    if (next == m_timers.cend())
        return limit;
    const qint64 rest = std::max(qint64(0), next->due - now());
    return limit < 0 ? rest : std::min(limit, rest);
}

void ZELEventDispatcher::collectReady()
{
    QVector<QSocketNotifier *> invalid;
    for (int i = 1; i < m_poll.size(); ++i) {
        QSocketNotifier *notifier = m_notifiers[i - 1];
        if (m_poll[i].revents & POLLNVAL)
            invalid.append(notifier);
        else if (m_poll[i].revents && !m_ready.contains(notifier))
            m_ready.append(notifier);
    }
    // A descriptor that was closed under its notifier would keep the thread spinning.
    for (QSocketNotifier *notifier : qAsConst(invalid)) {
        qWarning("ZELEventDispatcher: invalid socket %d, its notifier is disabled", int(notifier->socket()));
        notifier->setEnabled(false);
    }
}

int ZELEventDispatcher::activateNotifiers()
{
    int activated = 0;
    while (!m_ready.isEmpty()) {
        QEvent event(QEvent::SockAct);
        QCoreApplication::sendEvent(m_ready.takeFirst(), &event);
        ++activated;
    }
    return activated;
}

int ZELEventDispatcher::activateTimers()
{
    if (m_timers.empty())
        return 0;
    // Told apart before the first handler runs: a slow handler or one that starts timers must not keep the pass going.
    const qint64 time = now();
    QVector<int> due;
    for (auto timer = m_timers.cbegin(); timer != m_timers.cend() && timer->due <= time; ++timer)
        due.append(timer->id);
    return int(std::count_if(due.cbegin(), due.cend(), [&](int id) { return fire(id, time); }));
}

bool ZELEventDispatcher::fire(int timerId, qint64 time)
{
    auto found = findTimer(timerId);
    if (found == m_timers.end() || found->active)
        return false;
    Timer timer = *found;
    m_timers.erase(found);
    timer.due += timer.interval * nsPerMs;
    if (timer.due < time)
        timer.due = time + timer.interval * nsPerMs;
    timer.active = true;
    insertTimer(timer);
    QTimerEvent event(timerId);
    QCoreApplication::sendEvent(timer.object, &event);
    found = findTimer(timerId);
    if (found != m_timers.end())
        found->active = false;
    return true;
}

void ZELEventDispatcher::registerSocketNotifier(QSocketNotifier *notifier)
{
    m_notifiers.append(notifier);
}

void ZELEventDispatcher::unregisterSocketNotifier(QSocketNotifier *notifier)
{
    m_notifiers.removeOne(notifier);
    m_ready.removeOne(notifier);
}

void ZELEventDispatcher::registerTimer(int timerId, int interval, Qt::TimerType timerType, QObject *object)
{
    insertTimer({timerId, interval, timerType, object, now() + interval * nsPerMs, false});
}

bool ZELEventDispatcher::unregisterTimer(int timerId)
{
    const auto found = findTimer(timerId);
    if (found == m_timers.end())
        return false;
    m_timers.erase(found);
    return true;
}

bool ZELEventDispatcher::unregisterTimers(QObject *object)
{
    const auto rest
        = std::remove_if(m_timers.begin(), m_timers.end(), [=](const Timer &timer) { return timer.object == object; });
    const bool any = rest != m_timers.end();
    m_timers.erase(rest, m_timers.end());
    return any;
}

QList<QAbstractEventDispatcher::TimerInfo> ZELEventDispatcher::registeredTimers(QObject *object) const
{
    QList<TimerInfo> result;
    for (const Timer &timer : m_timers)
        if (timer.object == object)
            result.append(TimerInfo(timer.id, timer.interval, timer.type));
    return result;
}

int ZELEventDispatcher::remainingTime(int timerId)
{
    const auto found = findTimer(timerId);
    if (found == m_timers.end())
        return -1;
    return int(std::max(qint64(0), (found->due - now() + nsPerMs - 1) / nsPerMs));
}

void ZELEventDispatcher::insertTimer(const Timer &timer)
{
    const auto place = std::upper_bound(m_timers.begin(), m_timers.end(), timer,
        [](const Timer &left, const Timer &right) { return left.due < right.due; });
    m_timers.insert(place, timer);
}

std::vector<ZELEventDispatcher::Timer>::iterator ZELEventDispatcher::findTimer(int timerId)
{
    return std::find_if(
        m_timers.begin(), m_timers.end(), [timerId](const Timer &timer) { return timer.id == timerId; });
}

void ZELEventDispatcher::wakeUp()
{
    ZEL_TSAN_ACQUIRE(this);
    if (m_state.exchange(Woken) != Asleep)
        return;
    const int fd = m_wakeFd;
    if (fd >= 0)
        eventfd_write(fd, 1);
}

void ZELEventDispatcher::interrupt()
{
    m_interrupted = true;
    wakeUp();
}

void ZELEventDispatcher::flush() { }

/// Called where the thread has let go of this one already, and does not count as ended yet.
void ZELEventDispatcher::closingDown()
{
    if (m_restarted)
        m_restarted->setEventDispatcher(new ZELEventDispatcher(m_restarted));
    ZEL_TSAN_RELEASE(m_restarted);
}
