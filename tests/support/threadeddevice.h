// SPDX-License-Identifier: MIT
#ifndef THREADEDDEVICE_H
#define THREADEDDEVICE_H

#include "zeliodevice.h"

#include <QThread>
#include <mutex>
#include <vector>

/// A device with a thread of its own that notes what is written, and on which thread.
class ThreadedDevice : public ZELIODevice
{
public:
    explicit ThreadedDevice(QThread *thread)
        : m_thread(thread)
    {
    }
    ~ThreadedDevice() override { endLife(); }
    QByteArray readAll() override { return "input"; }
    void write(QByteArray data) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_writes.push_back(data);
        m_threads.push_back(QThread::currentThread());
    }
    void write(QString text) override { write(text.toLatin1()); }
    void Start() override { callStartHook(); }
    void Close() override { callCloseHook(); }
    QThread *innerThread() override { return m_thread; }
    bool readValid() const override { return true; }
    bool writeValid() const override { return true; }

    void receive() { callReadyReadHook(); }
    std::vector<QByteArray> writes()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_writes;
    }
    std::vector<QThread *> threads()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads;
    }

private:
    QThread *const m_thread;
    std::mutex m_mutex;
    std::vector<QByteArray> m_writes;
    std::vector<QThread *> m_threads;
};

#endif
