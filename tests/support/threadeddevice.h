// SPDX-License-Identifier: MIT
#ifndef THREADEDDEVICE_H
#define THREADEDDEVICE_H

#include "zeliodevice.h"

#include <QMutex>
#include <QMutexLocker>
#include <QThread>
#include <QVector>

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
        QMutexLocker lock(&m_mutex);
        m_writes << data;
        m_threads << QThread::currentThread();
    }
    void write(QString text) override { write(text.toLatin1()); }
    void Start() override { callStartHook(); }
    void Close() override { callCloseHook(); }
    QThread *innerThread() override { return m_thread; }
    bool readValid() const override { return true; }
    bool writeValid() const override { return true; }

    void receive() { callReadyReadHook(); }
    QVector<QByteArray> writes()
    {
        QMutexLocker lock(&m_mutex);
        return m_writes;
    }
    QVector<QThread *> threads()
    {
        QMutexLocker lock(&m_mutex);
        return m_threads;
    }

private:
    QThread *const m_thread;
    QMutex m_mutex;
    QVector<QByteArray> m_writes;
    QVector<QThread *> m_threads;
};

#endif
