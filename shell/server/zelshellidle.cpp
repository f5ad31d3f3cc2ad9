// SPDX-License-Identifier: MIT
#include "zelshellidle_p.h"

#include "zelshell_p.h"
#include "zelthread.h"
#include "zelthread_p.h"

#include <QCoreApplication>

namespace {

using Clock = std::chrono::steady_clock;
using Sessions = std::vector<std::shared_ptr<ZELShellPrivate>>;

// Many sessions that end one after the other are served in one turn.
const auto shortestTurn = std::chrono::milliseconds(20);

struct Watch
{
    std::mutex mutex;
    std::condition_variable change;
    std::vector<std::weak_ptr<ZELShellPrivate>> sessions;
    bool running = false;
};

/// Never destroyed: its thread may outlive main().
Watch &theWatch()
{
    static Watch &watch = *new Watch;
    return watch;
}

std::chrono::milliseconds idleTime(const ZELShellPrivate &session, Clock::time_point now)
{
    const qint64 since = session.waitingSince;
    const bool idle = since && session.jobs.running().isEmpty();
    return idle ? std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch())
            - std::chrono::milliseconds(since)
                : std::chrono::milliseconds(0);
}

/// The sessions that live on; forgets the others.
Sessions living(std::vector<std::weak_ptr<ZELShellPrivate>> &watched)
{
    Sessions sessions;
    for (auto it = watched.begin(); it != watched.end();) {
        const auto session = it->lock();
        if (session && !session->coreFinished && session->idleLimit) {
            sessions.push_back(session);
            ++it;
        } else {
            it = watched.erase(it);
        }
    }
    return sessions;
}

/// Ends those that are over their limit; when to look again.
Clock::time_point endIdle(const Sessions &sessions)
{
    const auto now = Clock::now();
    auto next = now + std::chrono::seconds(60);
    for (const auto &session : sessions) {
        // The idle time first: a limit that was taken off before the session fell idle is not read as it was.
        const auto idle = idleTime(*session, now);
        const int limit = session->idleLimit;
        if (limit == 0)
            continue;
        const auto left = std::chrono::milliseconds(limit) - idle;
        if (left.count() > 0)
            next = std::min(next, now + left);
        else if (!session->isStopping())
            session->endIdle();
    }
    return std::max(next, now + shortestTurn);
}

void watchSessions()
{
    Watch &watch = theWatch();
    for (auto next = Clock::now();;) {
        Sessions sessions;
        {
            ZELSessionLock lock(watch.mutex);
            lock.wait(watch.change, next);
            sessions = living(watch.sessions);
            watch.running = !sessions.empty();
            if (!watch.running)
                return;
        }
        next = endIdle(sessions);
    }
}

} // namespace

void ZELIdleWatch::add(const std::shared_ptr<ZELShellPrivate> &session)
{
    Watch &watch = theWatch();
    ZELSessionLock lock(watch.mutex);
    watch.sessions.push_back(session);
    watch.change.notify_all();
    if (std::exchange(watch.running, true))
        return;
    auto *thread = new ZELThread;
    // The session's thread ends before this one, and what is to be deleted there then never is.
    if (QCoreApplication::instance())
        thread->moveToThread(QCoreApplication::instance()->thread());
    thread->setAutoDelete();
    thread->setLabel(QStringLiteral("ZELShell Idle Watch"));
    thread->setCallback([](ZELThreadInfo *) { watchSessions(); });
    thread->start();
    if (zelHasStarted(*thread))
        return;
    delete thread;
    watch.running = false; // the next session tries again
}
