// SPDX-License-Identifier: MIT
#include "zelshellidle_p.h"

#include "zelshell_p.h"
#include "zelshellserverstate_p.h"
#include "zelthread.h"
#include "zelthread_p.h"

#include <QCoreApplication>

namespace {

using Clock = std::chrono::steady_clock;
using Sessions = std::vector<std::shared_ptr<ZELShellPrivate>>;

// Many sessions that end one after the other are served in one turn.
const std::chrono::milliseconds shortestTurn(20);
const std::chrono::milliseconds longestTurn(60000);
const std::chrono::milliseconds killAgain(1000);

struct Watch
{
    std::mutex mutex;
    std::condition_variable change;
    std::vector<std::weak_ptr<ZELShellPrivate>> sessions;
    bool running = false;
    bool added = false; ///< since the watch looked at them
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

bool isOver(const ZELShellPrivate &session)
{
    if (session.goneSince)
        return session.coreFinished && session.jobs.running().isEmpty();
    return session.coreFinished || !session.idleLimit;
}

/// The sessions that live on; forgets the others.
Sessions living(std::vector<std::weak_ptr<ZELShellPrivate>> &watched)
{
    Sessions sessions;
    for (auto it = watched.begin(); it != watched.end();) {
        const auto session = it->lock();
        if (session && !isOver(*session)) {
            sessions.push_back(session);
            ++it;
        } else {
            it = watched.erase(it);
        }
    }
    return sessions;
}

/// Kills come again each time until they have found what they are to end.
std::chrono::milliseconds leftWhenGone(ZELShellPrivate &session, Clock::time_point now)
{
    const auto gone = now.time_since_epoch() - std::chrono::milliseconds(session.goneSince);
    const auto left = std::chrono::milliseconds(session.server->settings()->abandonedLimit) - gone;
    if (left.count() > 0)
        return std::chrono::duration_cast<std::chrono::milliseconds>(left) + std::chrono::milliseconds(1);
    session.endAbandoned();
    return killAgain;
}

std::chrono::milliseconds leftWhenIdle(ZELShellPrivate &session, Clock::time_point now)
{
    // The idle time first: a limit that was taken off before the session fell idle is not read as it was.
    const auto idle = idleTime(session, now);
    const int limit = session.idleLimit;
    const auto left = std::chrono::milliseconds(limit) - idle;
    if (limit == 0 || session.isStopping())
        return longestTurn;
    if (left.count() > 0)
        return left;
    session.endIdle();
    return longestTurn;
}

/// Ends those that are over their limit; when to look again.
Clock::time_point endIdle(const Sessions &sessions)
{
    const auto now = Clock::now();
    auto next = longestTurn;
    for (const auto &session : sessions)
        next = std::min(next, session->goneSince ? leftWhenGone(*session, now) : leftWhenIdle(*session, now));
    return now + std::max(next, shortestTurn);
}

void watchSessions()
{
    Watch &watch = theWatch();
    for (auto next = Clock::now();;) {
        Sessions sessions;
        {
            ZELSessionLock lock(watch.mutex);
            // One that was added while the others were looked at has told nobody.
            if (!watch.added)
                lock.wait(watch.change, next);
            watch.added = false;
            sessions = living(watch.sessions);
            watch.running = !sessions.empty();
            if (!watch.running)
                return;
        }
        next = endIdle(sessions);
    }
}

} // namespace

qint64 ZELIdleWatch::now()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count();
}

void ZELIdleWatch::add(const std::shared_ptr<ZELShellPrivate> &session)
{
    Watch &watch = theWatch();
    ZELSessionLock lock(watch.mutex);
    watch.sessions.push_back(session);
    watch.added = true;
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
