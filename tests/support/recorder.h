// SPDX-License-Identifier: MIT
#ifndef RECORDER_H
#define RECORDER_H

#include "zelarguments.h"
#include "zelshellbase.h"
#include "zelstream.h"

#include <QStringList>
#include <atomic>
#include <mutex>

/// A stream that keeps what is written to it, one entry a write, from any thread.
class Recorder : public ZELAbstractStream
{
public:
    ~Recorder() override { endLife(); }
    QByteArray readAll() override { return {}; }
    void write(QByteArray data) override { write(QString::fromLatin1(data)); }
    void write(QString data) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_writes << data;
    }
    bool IsOpen() override { return open; }
    QStringList writes() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_writes;
    }
    /// The only write since the last call.
    QString take()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const QString result = m_writes.size() == 1 ? m_writes.first() : m_writes.join(QLatin1Char('|')) + "?";
        m_writes.clear();
        return result;
    }
    std::atomic<bool> open{true};

private:
    mutable std::mutex m_mutex;
    QStringList m_writes;
};

/// A session without an interpreter.
class RecorderShell : public ZELShellBase
{
public:
    ~RecorderShell() override { endLife(); }
    ZELAbstractStream *getStream() override { return &stream; }
    QUuid getUuid() override { return uuid; }
    void setUuid(QUuid id) override { uuid = id; }
    QVariant ExecuteString(ZELArguments) override { return {}; }
    bool isNoTerminal() override { return true; }
    QString shellName() override { return QStringLiteral("recorder"); }
    QString shellLicence() override { return QString(); }
    void Stop() override { }

    Recorder stream;
    QUuid uuid = QUuid::createUuid();
};

#endif
