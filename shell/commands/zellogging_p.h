// SPDX-License-Identifier: MIT
#ifndef ZELLOGGING_P_H
#define ZELLOGGING_P_H

#include "zellogging.h"
#include "zelstream_p.h"
#include <mutex>
#include <optional>

/// One message, shared by the copies of its handle.
class ZELLoggingPrivate
{
public:
    ZELLoggingPrivate(ZELAbstractStream *stream, const ZELLogging::Hook &rewrite)
        : hook(rewrite)
        , destination(ZELAbstractStreamPrivate::ref(stream))
    {
    }
    static ZELAbstractStream *newTerminal();
    static void setHook(ZELLogging &log, ZELLogging::Hook rewrite) { log.d->hook = std::move(rewrite); }
    void finish(const ZELLogging &last);
    void emitMessage();
    bool drop();
    /// What formats numbers; strings, too, once it is there.
    QTextStream &formatter() { return ts ? *ts : ts.emplace(&buffer, QIODevice::WriteOnly); }
    void append(QStringView text)
    {
        if (ts)
            *ts << text;
        else
            buffer.append(text.data(), int(text.size()));
    }

    QString buffer;
    std::optional<QTextStream> ts; ///< made when it is needed: most messages are text, and it costs more than they do
    ZELLogging::Hook hook;
    ZELLife<ZELAbstractStream>::Ref destination; ///< the stream may be gone when the last handle dies
    std::mutex mutex; ///< guards ref
    int ref = 1;
};

#endif
