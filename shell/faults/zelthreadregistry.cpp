// SPDX-License-Identifier: MIT
#include "zelcodemap_p.h"
#include "zelguard_p.h"

#include <QHash>
#include <QThread>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// Threads by id, for kills from others. The thread's own handlers never look here.
struct Shard
{
    std::mutex mutex;
    QHash<void *, ZELThreadFaults *> threads;
};

Shard &shardOf(void *threadId)
{
    static Shard *shards = new Shard[16]; // never destroyed: threads may outlive the statics
    return shards[(quintptr(threadId) >> 12) * 0x9e3779b1u >> 4 & 15];
}

} // namespace

void zelSetRegistered(bool registered)
{
    ZELCriticalSection section;
    void *id = QThread::currentThreadId();
    Shard &shard = shardOf(id);
    std::lock_guard<std::mutex> lock(shard.mutex);
    if (registered)
        shard.threads.insert(id, &zelThreadFaults);
    else
        shard.threads.remove(id);
    zelThreadFaults.registered = registered;
}

void zelSetHasFrames(bool has)
{
    ZELThreadFaults &self = zelThreadFaults;
    Shard &shard = shardOf(QThread::currentThreadId());
    {
        std::lock_guard<std::mutex> lock(shard.mutex);
        self.hasFrames = has;
    }
    if (!has && self.kill.load()) {
        syscall(SYS_gettid); // a signal that was sent under the lock arrives here, inside the critical section
        self.kill = 0;
    }
}

int Except_frame::Kill(void *threadId)
{
    ZELCriticalSection section;
    zelRefreshCodeMap();
    Shard &shard = shardOf(threadId);
    std::lock_guard<std::mutex> lock(shard.mutex);
    ZELThreadFaults *thread = shard.threads.value(threadId);
    if (!thread || !thread->hasFrames)
        return ESRCH;
    // The request is the flag: signals of one number melt into one while they are pending.
    thread->kill = 1;
    if (QThread *loop = thread->loopThread)
        loop->quit();
    return pthread_kill(pthread_t(threadId), SIGQUIT); // under the lock, so the thread cannot end meanwhile
}

ZELInterruptTarget zelInterruptTarget()
{
    return {&zelThreadFaults, pthread_self()};
}

void zelInterrupt(const ZELInterruptTarget &target)
{
    target.faults->interrupt = 1;
    pthread_kill(target.thread, SIGQUIT);
}
