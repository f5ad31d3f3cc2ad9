// SPDX-License-Identifier: MIT
#ifndef ZELSTREAM_P_H
#define ZELSTREAM_P_H

#include "zellife_p.h"
#include "zelstream.h"
#include "zelwritegate_p.h"

#include <atomic>
#include <functional>

class ZELAbstractStreamPrivate
{
public:
    explicit ZELAbstractStreamPrivate(ZELAbstractStream *q)
        : life(q)
    {
    }
    static ZELWriteGate &gateOf(ZELAbstractStream &stream) { return stream.d->gate; }
    static ZELAbstractStreamPrivate *get(ZELAbstractStream *stream) { return stream->d.get(); }
    /// What a log handle holds instead of a pointer; empty for null.
    static ZELLife<ZELAbstractStream>::Ref ref(const ZELAbstractStream *stream)
    {
        return stream ? stream->d->life.ref() : ZELLife<ZELAbstractStream>::Ref();
    }

    /// How many writes the stream has made, whoever made them. It outlives the stream.
    static std::shared_ptr<const std::atomic<quint64>> writes(const ZELAbstractStream &stream)
    {
        return stream.d->writeCount;
    }
    /// Called in the thread of every writer whose bytes are dropped since the device closed, outside of all locks. To
    /// be set before the first write.
    static void setDropHook(ZELAbstractStream &stream, std::function<void()> hook)
    {
        stream.d->dropHook = std::make_shared<const std::function<void()>>(std::move(hook));
    }

    ZELLife<ZELAbstractStream> life;
    ZELWriteGate gate; ///< of the writes from outside
    const std::shared_ptr<std::atomic<quint64>> writeCount = std::make_shared<std::atomic<quint64>>(0);
    std::shared_ptr<const std::function<void()>> dropHook;
};

/**
 * Lets a thread wait for one short write later, together with something else: when the writer would next go to sleep
 * anyway, being told costs it a wake-up for nothing. At most one write of a thread is behind; the order stays.
 *
 *     ZELWriteBehind::enable();                                     // once, on a thread that calls finish()
 *     { ZELWriteBehind behind; stream->write(answer); }
 *     waitForQuestion();
 *     ZELWriteBehind::finish();                                     // the answer has been written now
 */
class ZELWriteBehind
{
public:
    /// While it stands, a short write to a device with a thread of its own returns at once.
    ZELWriteBehind() { s_may = s_enabled; }
    ~ZELWriteBehind() { s_may = false; }
    ZELWriteBehind(const ZELWriteBehind &) = delete;
    ZELWriteBehind &operator=(const ZELWriteBehind &) = delete;

    static void enable() { s_enabled = true; }
    /// Waits as the write would have done.
    static void finish();

private:
    friend class ZELStreamPrivate;
    static thread_local bool s_enabled;
    static thread_local bool s_may;
};

#endif
