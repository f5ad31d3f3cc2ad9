// SPDX-License-Identifier: MIT
#ifndef ZELLOGGING_P_H
#define ZELLOGGING_P_H

#include "zellogging.h"
#include "zelstream_p.h"
#include <mutex>

/// One message, shared by the copies of its handle.
class ZELLoggingPrivate
{
public:
    ZELLoggingPrivate(ZELAbstractStream *stream, const ZELLogging::Hook &rewrite)
        : ts(&buffer, QIODevice::WriteOnly)
        , hook(rewrite)
        , destination(ZELAbstractStreamPrivate::ref(stream))
    {
    }
    static ZELAbstractStream *newTerminal();
    void finish(const ZELLogging &last);
    void emitMessage();
    bool drop();

    QString buffer;
    QTextStream ts;
    ZELLogging::Hook hook;
    ZELLife<ZELAbstractStream>::Ref destination; ///< the stream may be gone when the last handle dies
    std::mutex mutex; ///< guards ref
    int ref = 1;
};

#endif
