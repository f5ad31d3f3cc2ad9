// SPDX-License-Identifier: MIT
#include "zelguard_p.h"
#include "zelshellclient_p.h"
#include "zelshellprocess_p.h"
#include "zelthreadpool.h"

#include <QElapsedTimer>
#include <algorithm>

using Lock = std::lock_guard<std::mutex>;

namespace {

/// What this thread waits on, kept alive since the record may be destroyed meanwhile. Not on the stack: a kill would
/// leave the reference there for ever.
thread_local std::shared_ptr<ZELShellProcessPrivate> waitedOn;

template <class Read>
auto waitAndRead(const std::shared_ptr<ZELShellProcessPrivate> &d, unsigned long ms, Read &&read)
{
    {
        ZELCriticalSection section;
        waitedOn = d;
    }
    const bool ended = waitedOn->wait(ms);
    ZELCriticalSection section;
    const auto held = std::move(waitedOn);
    Lock lock(held->mutex);
    return read(*held, ended);
}

} // namespace

bool ZELShellProcessPrivate::wait(unsigned long ms)
{
    const unsigned before = dismissals;
    QElapsedTimer timer;
    timer.start();
    while (!done && dismissals == before) {
        const auto elapsed = static_cast<unsigned long>(timer.elapsed());
        if (elapsed >= ms)
            return false;
        // Not longer: another waiter may have taken the wake-up.
        doneEvent.waitOne(static_cast<int>(std::min(ms - elapsed, 100ul)));
    }
    doneEvent.set(); // for the next waiter
    return true;
}

void ZELShellProcessPrivate::dismissWaiters()
{
    ++dismissals;
    doneEvent.set();
}

void ZELShellProcessPrivate::finish(const HookCall &call)
{
    ZELCriticalSection section;
    {
        Lock lock(mutex);
        if (!call.packet.isComplete() || call.dismissals != dismissals)
            return;
        done = true;
    }
    doneEvent.set();
}

bool ZELShellProcessPrivate::doWork()
{
    HookCall call;
    bool asynchronous = false;
    {
        ZELCriticalSection section;
        Lock lock(mutex);
        if (headers.isEmpty())
            return false;
        call = {finished ? nullptr : hook, headers.takeLast(), dismissals};
        headers.clear();
        textOutput += call.packet.getRequestBody();
        asynchronous = asynchronousHook && hook;
        if (call.packet.isComplete()) {
            completing = call.packet;
            finished = finished || !asynchronous;
        }
    }
    if (call.hook && asynchronous)
        enqueue(call);
    else if (call.hook)
        callWhileWaiting(call);
    if (!asynchronous)
        finish(call);
    return call.packet.isComplete();
}

/// Calls the hook in a frame of its own: one that fails must not take the calls behind it along. A kill may lead
/// further out; then only `abandoned` is still called.
void ZELShellProcessPrivate::callHook(const HookCall &call, const std::function<void()> &abandoned)
{
    ZELFrame frame;
    if (!gate->enter())
        return;
    frame->abandoned = [gate = gate, abandoned] {
        gate->leave();
        if (abandoned)
            abandoned();
    };
    zelGuard(frame.get(), [&] { call.hook(call.packet); });
    gate->leave();
}

void ZELShellProcessPrivate::callWhileWaiting(const HookCall &call)
{
    const auto self = shared_from_this();
    ZELThreadPool::Pool()->Invoke([self, call, waiting = zelServedThread()] {
        zelWaitingThread() = waiting;
        self->callHook(call, {});
        zelWaitingThread() = {};
    });
}

void ZELShellProcessPrivate::enqueue(const HookCall &call)
{
    {
        ZELCriticalSection section;
        Lock lock(mutex);
        m_calls.append(call);
        if (m_running)
            return;
        m_running = true;
    }
    startHooks();
}

void ZELShellProcessPrivate::startHooks()
{
    ZELThreadPool::Pool()->BeginInvoke([self = shared_from_this()] { self->runHooks(); });
}

bool ZELShellProcessPrivate::nextCall(HookCall &call)
{
    ZELCriticalSection section;
    Lock lock(mutex);
    m_running = !m_calls.isEmpty();
    if (m_running)
        call = m_calls.takeFirst();
    return m_running;
}

// One task at a time, so that the packets of a record reach its hook in their order.
void ZELShellProcessPrivate::runHooks()
{
    HookCall call;
    while (nextCall(call)) {
        callHook(call, [self = shared_from_this(), call] {
            self->finish(call);
            self->startHooks();
        });
        finish(call);
    }
}

void ZELShellProcessPrivate::release()
{
    ZELShellProcessHeader packet;
    packet.headers.insert(QStringLiteral("State"), QByteArrayLiteral("UNKNOW")); // peers know it by this spelling
    append(packet);
    doWork();
}

bool ZELShellProcessPrivate::markSent()
{
    Lock lock(mutex);
    return !std::exchange(sentOut, true);
}

void ZELShellProcessPrivate::append(const ZELShellProcessHeader &packet)
{
    ZELCriticalSection section;
    Lock lock(mutex);
    headers.append(packet);
}

void ZELShellProcessPrivate::clear()
{
    ZELCriticalSection section;
    {
        Lock lock(mutex);
        ++dismissals;
        done = false;
        finished = false;
        sentOut = false;
        headers.clear();
        completing = {};
        hook = nullptr;
    }
    doneEvent.set();
}

ZELShellProcess::ZELShellProcess()
    : d(std::make_shared<ZELShellProcessPrivate>())
{
}

ZELShellProcess::~ZELShellProcess()
{
    d->dismissWaiters();
    if (const auto client = d->client.lock())
        client->forget(d.get());
}

bool ZELShellProcess::send()
{
    bool sent = false;
    {
        ZELCriticalSection section; // nothing is held when it ends
        if (!d->markSent())
            return false;
        const auto client = d->client.lock();
        sent = client && client->send(d);
    }
    // A record without a client has nobody to answer it, but also nothing that went wrong.
    if (!sent && !d->commandLine.isEmpty())
        d->release();
    return true;
}

bool ZELShellProcess::setProcess(std::function<void(ZELShellProcessHeader)> hook, bool asynchronous)
{
    ZELCriticalSection section;
    Lock lock(d->mutex);
    if (d->sentOut)
        return false;
    d->hook = std::move(hook);
    d->asynchronousHook = asynchronous;
    return true;
}

bool ZELShellProcess::wait(unsigned long ms)
{
    return waitAndRead(d, ms, [](const ZELShellProcessPrivate &, bool ended) { return ended; });
}

QString ZELShellProcess::getTextOutput(unsigned long ms)
{
    return waitAndRead(d, ms, [](const ZELShellProcessPrivate &record, bool) { return record.textOutput; });
}

QString ZELShellProcess::getReturnValue(unsigned long ms)
{
    return waitAndRead(d, ms, [](const ZELShellProcessPrivate &record, bool) {
        return (record.headers.isEmpty() ? record.completing : record.headers.last()).getReturn();
    });
}

ZELShellProcessHeader ZELShellProcess::lastPacket() const
{
    ZELCriticalSection section;
    Lock lock(d->mutex);
    return d->completing;
}

QString ZELShellProcess::getCommand() const
{
    return d->commandLine;
}

QString ZELShellProcess::key() const
{
    return d->key;
}

bool ZELShellProcess::isSendOut() const
{
    ZELCriticalSection section;
    Lock lock(d->mutex);
    return d->sentOut;
}

bool ZELShellProcess::isBackground() const
{
    return d->background;
}

void ZELShellProcess::append(const ZELShellProcessHeader &packet)
{
    d->append(packet);
}

bool ZELShellProcess::doWork()
{
    const auto keep = d;
    return keep->doWork();
}

void ZELShellProcess::release()
{
    if (const auto client = d->client.lock())
        client->forget(d.get());
    d->release();
}

void ZELShellProcess::clear()
{
    d->clear();
}
