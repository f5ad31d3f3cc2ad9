// SPDX-License-Identifier: MIT
#ifndef ZELSTREAM_P_H
#define ZELSTREAM_P_H

#include "zellife_p.h"
#include "zelstream.h"
#include "zelwritegate_p.h"

class ZELAbstractStreamPrivate
{
public:
    explicit ZELAbstractStreamPrivate(ZELAbstractStream *q)
        : life(q)
    {
    }
    static ZELWriteGate &gateOf(ZELAbstractStream &stream) { return stream.d->gate; }
    /// What a log handle holds instead of a pointer; empty for null.
    static ZELLife<ZELAbstractStream>::Ref ref(const ZELAbstractStream *stream)
    {
        return stream ? stream->d->life.ref() : ZELLife<ZELAbstractStream>::Ref();
    }

    ZELLife<ZELAbstractStream> life;
    ZELWriteGate gate; ///< of the writes from outside
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
