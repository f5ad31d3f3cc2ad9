// SPDX-License-Identifier: MIT
// The members of ZELShellPrivate that end a session, or what runs for it, from outside.
#include "zelshell_p.h"

#include "zeladmission_p.h"
#include "zelshellidle_p.h"
#include "zelshellserverstate_p.h"
#include "zelthread.h"

#include <algorithm>

void ZELShellPrivate::endIdle()
{
    log(QLatin1String("ZELShell idle limit reached ") + text(&ZELShellPrivate::description));
    because("it was idle for too long");
    stopState = Ended;
    output.closeDeviceSoon();
}

void ZELShellPrivate::endHandshake()
{
    if (!isAdmitted.exchange(true))
        admission->leave();
}

void ZELShellPrivate::because(const char *reason)
{
    const char *none = nullptr;
    endReason.compare_exchange_strong(none, reason);
}

void ZELShellPrivate::noteGone()
{
    because("the connection is closed");
    stopState = Ended;
    const bool watched = !isMain && started && server->settings()->abandonedLimit > 0;
    if (watched && goneSince.exchange(ZELIdleWatch::now()) == 0)
        ZELIdleWatch::add(shared_from_this());
}

void ZELShellPrivate::endAbandoned()
{
    for (const auto &job : jobs.running())
        job->kill();
    ZELSessionLock lock(mutex);
    if (coreThread && !coreFinished)
        coreThread->Kill();
}

// Only what runs for this session: another one's command, or a thread of the host, may write here, too.
bool ZELShellPrivate::isAbandonedWriter()
{
    if (goneSince == 0)
        return false;
    const QThread *const current = QThread::currentThread();
    const auto running = jobs.running();
    const bool isJob = std::any_of(
        running.cbegin(), running.cend(), [=](const auto &job) { return job->thread().data() == current; });
    ZELSessionLock lock(mutex);
    return isJob || (!coreFinished && coreThread == current);
}
