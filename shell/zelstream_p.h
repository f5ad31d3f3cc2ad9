// SPDX-License-Identifier: MIT
#ifndef ZELSTREAM_P_H
#define ZELSTREAM_P_H

#include "zellife_p.h"
#include "zelstream.h"

class ZELAbstractStreamPrivate
{
public:
    explicit ZELAbstractStreamPrivate(ZELAbstractStream *q)
        : life(q)
    {
    }
    /// What a log handle holds instead of a pointer; empty for null.
    static ZELLife<ZELAbstractStream>::Ref ref(const ZELAbstractStream *stream)
    {
        return stream ? stream->d->life.ref() : ZELLife<ZELAbstractStream>::Ref();
    }

    ZELLife<ZELAbstractStream> life;
};

#endif
