// SPDX-License-Identifier: MIT
#ifndef FAKEDEVICE_H
#define FAKEDEVICE_H

#include "zeliodevice.h"

#include <QStringList>
#include <QThread>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

/// A device whose peer is the test: bytes are typed in, and what is written is kept, one entry a write. With a thread
/// of its own its stream carries the writes there.
class FakeDevice : public ZELIODevice
{
public:
    explicit FakeDevice(QThread *thread = nullptr)
        : m_thread(thread)
    {
    }
    ~FakeDevice() override
    {
        endLife();
        end();
    }
    QByteArray readAll() override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (m_input.isEmpty() && !m_ended)
            m_change.wait(lock);
        return std::exchange(m_input, QByteArray());
    }
    void write(QByteArray data) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_writers << QThread::currentThread();
        m_writes << QString::fromLatin1(data.constData(), data.size());
    }
    void write(QString text) override { write(text.toLatin1()); }
    void Start() override { callStartHook(); }
    QThread *innerThread() override { return m_thread; }
    void Close() override
    {
        end();
        callCloseHook();
    }
    void release() override { released = true; }
    bool readValid() const override { return true; }
    bool writeValid() const override { return true; }

    bool waitForInput(int ms) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_change.wait_for(lock, std::chrono::milliseconds(ms), [&] { return !m_input.isEmpty() || m_ended; });
    }

    bool takeByte(char byte) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const int at = m_input.indexOf(byte);
        if (at >= 0)
            m_input.remove(at, 1);
        return at >= 0;
    }

    void type(const QByteArray &bytes)
    {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_input += bytes;
            m_change.notify_all();
        }
        callReadyReadHook();
    }
    /// The end of the input.
    void end()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_ended = true;
        m_change.notify_all();
    }
    QStringList writes() const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_writes;
    }
    /// The threads that wrote, an entry a write.
    QList<QThread *> writers() const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_writers;
    }
    QString text() const { return writes().join(QString()); }
    /// Everything written since the last call.
    QString take()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return std::exchange(m_writes, QStringList()).join(QString());
    }
    std::atomic<bool> released{false};

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_change;
    QByteArray m_input;
    QStringList m_writes;
    QList<QThread *> m_writers;
    QThread *const m_thread;
    bool m_ended = false;
};

#endif
