// SPDX-License-Identifier: MIT
#ifndef ZELSHELLPROCESS_P_H
#define ZELSHELLPROCESS_P_H

#include "zelhookgate_p.h"
#include "zelshellprocess.h"
#include "zelwait.h"

#include <QList>
#include <atomic>
#include <mutex>

/**
 * What a record shares with those who wait on it and with the tasks that run its hook, so that it outlives the record
 * for their sake. The mutex guards everything that is not constant or atomic; no hook is called under it.
 */
class ZELShellProcessPrivate : public std::enable_shared_from_this<ZELShellProcessPrivate>
{
public:
    bool wait(unsigned long ms);
    void append(const ZELShellProcessHeader &packet);
    bool doWork();
    /// False when it was sent before.
    bool markSent();
    void release();
    void clear();
    /// Wakes waiters whatever the state of the command.
    void dismissWaiters();

    // Set by the client before the record is handed out.
    std::weak_ptr<ZELShellClientPrivate> client;
    std::weak_ptr<ZELShellProcess> record;
    std::shared_ptr<ZELHookGate> gate = std::make_shared<ZELHookGate>(); ///< the client's, or one that stays open
    QString commandLine;
    QString key; ///< empty without a client
    bool numbered = false; ///< the key is unique on the connection
    bool background = false;

    mutable std::mutex mutex;
    std::function<void(ZELShellProcessHeader)> hook;
    bool asynchronousHook = true;
    QList<ZELShellProcessHeader> headers;
    QString textOutput;
    ZELShellProcessHeader completing;
    bool finished = false;
    bool sentOut = false;

    std::atomic<bool> done{false}; ///< the end was worked off, by the hook too
    std::atomic<unsigned> dismissals{0};
    ZELWait doneEvent;

private:
    struct HookCall
    {
        std::function<void(ZELShellProcessHeader)> hook;
        ZELShellProcessHeader packet;
        unsigned dismissals = 0; ///< a call of before clear() completes nothing any more
    };
    void finish(const HookCall &call);
    void enqueue(const HookCall &call);
    void startHooks();
    void runHooks();
    void callHook(const HookCall &call, const std::function<void()> &abandoned);
    void callWhileWaiting(const HookCall &call);
    bool nextCall(HookCall &call);

    QList<HookCall> m_calls; ///< asynchronous calls to come
    bool m_running = false; ///< a task works them off
};

#endif
