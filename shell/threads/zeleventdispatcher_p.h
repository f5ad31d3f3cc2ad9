// SPDX-License-Identifier: MIT
#ifndef ZELEVENTDISPATCHER_P_H
#define ZELEVENTDISPATCHER_P_H

#include <QAbstractEventDispatcher>
#include <QVector>
#include <atomic>
#include <poll.h>
#include <vector>

/**
 * The event dispatcher of worker threads: poll(), timers and one eventfd.
 *
 * Qt's own dispatchers take a descriptor (or more) for every started thread, even for one that never runs an event
 * loop, and abort the process when there is none left. This one takes its only descriptor at the first
 * processEvents(), so a thread that runs a callback never owns one, and when descriptors have run out it polls for
 * wake-ups a hundred times a second until one is free again.
 *
 * Owner: the QThread it is given to with setEventDispatcher(), before start(). Threads: wakeUp() and interrupt() from
 * any thread, all else in its own.
 *
 * All timers are precise. Every due timer fires once in a pass, in the order of their times; a timer whose handler is
 * still running does not fire again in a nested loop.
 */
class ZELEventDispatcher : public QAbstractEventDispatcher
{
public:
    /// Deleted by a thread that ends, as Qt does, it leaves a new one to `restarted`, for its next start.
    explicit ZELEventDispatcher(QThread *restarted = nullptr);
    ~ZELEventDispatcher() override;

    /// Takes the descriptor now, from whatever thread, before the dispatcher's own runs. False when there is none left.
    bool takeDescriptor();

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    bool hasPendingEvents() override;

    void registerSocketNotifier(QSocketNotifier *notifier) override;
    void unregisterSocketNotifier(QSocketNotifier *notifier) override;

    void registerTimer(int timerId, int interval, Qt::TimerType timerType, QObject *object) override;
    bool unregisterTimer(int timerId) override;
    bool unregisterTimers(QObject *object) override;
    QList<TimerInfo> registeredTimers(QObject *object) const override;
    /// Milliseconds until the timer fires, -1 when there is no such timer.
    int remainingTime(int timerId) override;

    void wakeUp() override;
    void interrupt() override;
    void flush() override;
    void closingDown() override;

private:
    struct Timer
    {
        int id;
        int interval;
        Qt::TimerType type;
        QObject *object;
        qint64 due; ///< nanoseconds on the monotonic clock
        bool active; ///< its handler is running
    };
    /// Awake: nothing to tell. Woken: do not wait before posted events were sent. Asleep: in poll, to be woken by the
    /// eventfd.
    enum State { Awake, Woken, Asleep };

    bool fallAsleep();
    int waitForDescriptors(QEventLoop::ProcessEventsFlags flags, bool wait);
    qint64 waitingTime(QEventLoop::ProcessEventsFlags flags, bool wait) const;
    void collectReady();
    int activateNotifiers();
    int activateTimers();
    bool fire(int timerId, qint64 time);
    void insertTimer(const Timer &timer);
    std::vector<Timer>::iterator findTimer(int timerId);

    QThread *const m_restarted;
    QVector<QSocketNotifier *> m_notifiers;
    QVector<QSocketNotifier *> m_ready; ///< have something to tell; shrinks when one of them is unregistered meanwhile
    QVector<pollfd> m_poll; ///< the eventfd, then one for each notifier
    std::vector<Timer> m_timers; ///< by due time
    std::atomic<int> m_state{Awake};
    std::atomic<int> m_wakeFd{-1};
    std::atomic<bool> m_interrupted{false};
};

#endif
