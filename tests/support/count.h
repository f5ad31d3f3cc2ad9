// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_COUNT_H
#define TESTS_SUPPORT_COUNT_H

#include <QObject>
#include <atomic>
#include <memory>

/// Counts a signal that may come on any thread, which a QSignalSpy does not bear.
class Count
{
public:
    template <class Sender, class Signal>
    Count(Sender *sender, Signal signal)
        : m_connection(QObject::connect(sender, signal, [count = m_count] { ++*count; }))
    {
    }
    ~Count() { QObject::disconnect(m_connection); }
    int count() const { return *m_count; }

private:
    const std::shared_ptr<std::atomic<int>> m_count = std::make_shared<std::atomic<int>>(0);
    const QMetaObject::Connection m_connection;
};

#endif
