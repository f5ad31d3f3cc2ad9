// SPDX-License-Identifier: MIT
#include "zellogging_p.h"

#include "zelguard_p.h"
#include "zeliodevice.h"

#include <QDebug>
#include <new>
#include <unistd.h>

struct ZELLoggingSaver::State
{
    ZELLogging *logging;
    ZELLogging::LoggingMsgType type;
    bool space;
    bool noQuote;
    bool noNewLine;
};

namespace {
const char *prefix(ZELLogging::LoggingMsgType type)
{
    switch (type) {
    case ZELLogging::Warning:
        return "Warning: ";
    case ZELLogging::Error:
        return "Error: ";
    case ZELLogging::Critical:
        return "Critical: ";
    case ZELLogging::Fatal:
        return "Fatal: ";
    case ZELLogging::Info:
        return "Info: ";
    case ZELLogging::Debug:
        break;
    }
    return "";
}
} // namespace

ZELAbstractStream *ZELLoggingPrivate::newTerminal()
{
    ZELCriticalSection section;
    return new ZELStream(new ZELStdDevice(STDIN_FILENO), true);
}

void ZELLoggingPrivate::finish(const ZELLogging &last)
{
    if (!last.m_separator.isEmpty() && buffer.endsWith(last.m_separator))
        buffer.chop(last.m_separator.size());
    buffer.prepend(QLatin1String(prefix(last.m_type)));
    if (!last.m_noNewLine)
        buffer.append(QLatin1String("\r\n"));
}

void ZELLoggingPrivate::emitMessage()
{
    // A kill in the middle would leave the stream pinned.
    ZELCriticalSection section;
    if (auto stream = destination.use())
        stream->write(hook && stream->IsOpen() ? hook(buffer) : buffer);
    else
        qDebug() << "Stream is closed,"
                 << "Out [" << buffer << "]";
}

bool ZELLoggingPrivate::drop()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(mutex);
    return --ref == 0;
}

ZELLogging::ZELLogging(ZELAbstractStream *stream, LoggingMsgType type, const Hook &hook)
    : d(nullptr)
    , m_stream(stream ? stream : ZELLoggingPrivate::newTerminal())
    , m_type(type)
    , m_separator(QStringLiteral(" "))
{
    d = new ZELLoggingPrivate(m_stream, hook);
}

ZELLogging::ZELLogging(const ZELLogging &other)
    : d(other.d)
    , m_stream(other.m_stream)
    , m_type(other.m_type)
    , m_space(other.m_space)
    , m_noQuote(other.m_noQuote)
    , m_noNewLine(other.m_noNewLine)
    , m_separator(other.m_separator)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(d->mutex);
    ++d->ref;
}

ZELLogging &ZELLogging::operator=(const ZELLogging &other)
{
    ZELLogging copy(other);
    std::swap(d, copy.d);
    std::swap(m_stream, copy.m_stream);
    std::swap(m_type, copy.m_type);
    std::swap(m_space, copy.m_space);
    std::swap(m_noQuote, copy.m_noQuote);
    std::swap(m_noNewLine, copy.m_noNewLine);
    std::swap(m_separator, copy.m_separator);
    return *this;
}

ZELLogging::~ZELLogging()
{
    if (!d->drop())
        return;
    try {
        d->finish(*this);
        d->emitMessage();
    } catch (const std::bad_alloc &) { // the message is lost, not the process
    }
    delete d;
}

ZELLogging ZELLogging::debug(ZELAbstractStream *stream)
{
    return ZELLogging(stream, Debug, {});
}

ZELLogging ZELLogging::warning(ZELAbstractStream *stream)
{
    return ZELLogging(stream, Warning, {});
}

ZELLogging ZELLogging::critical(ZELAbstractStream *stream)
{
    return ZELLogging(stream, Critical, {});
}

ZELLogging ZELLogging::fatal(ZELAbstractStream *stream)
{
    return ZELLogging(stream, Fatal, {});
}

ZELLogging ZELLogging::info(ZELAbstractStream *stream)
{
    return ZELLogging(stream, Info, {});
}

ZELLogging &ZELLogging::space()
{
    m_space = true;
    return maybeSpace();
}

ZELLogging &ZELLogging::nospace()
{
    m_space = false;
    return *this;
}

ZELLogging &ZELLogging::maybeSpace()
{
    if (m_space)
        d->append(m_separator);
    return *this;
}

ZELLogging &ZELLogging::quote()
{
    m_noQuote = false;
    return *this;
}

ZELLogging &ZELLogging::noquote()
{
    m_noQuote = true;
    return *this;
}

ZELLogging &ZELLogging::noNewLine()
{
    m_noNewLine = true;
    return *this;
}

ZELLogging &ZELLogging::deleteOne()
{
    d->append(u"\b \b");
    return *this;
}

ZELLoggingSaver::ZELLoggingSaver(ZELLogging &logging)
    : d(new State{&logging, logging.m_type, logging.m_space, logging.m_noQuote, logging.m_noNewLine})
{
}

ZELLoggingSaver::~ZELLoggingSaver()
{
    d->logging->m_type = d->type;
    d->logging->m_space = d->space;
    d->logging->m_noQuote = d->noQuote;
    d->logging->m_noNewLine = d->noNewLine;
    delete d;
}

ZELLogging *ZELLoggingSaver::Logging()
{
    return d->logging;
}
