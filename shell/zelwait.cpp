// SPDX-License-Identifier: MIT
#include "zelwait.h"

#include <QMutexLocker>
#include <climits>

ZELWait::ZELWait() = default;

bool ZELWait::waitOne(int ms)
{
    bool woken = m_signalled;
    if (!woken) {
        QMutexLocker lock(&m_mutex);
        m_waiting = true;
        woken = m_cond.wait(&m_mutex, ms < 0 ? ULONG_MAX : static_cast<unsigned long>(ms));
        m_waiting = false;
    }
    m_signalled = false;
    return woken;
}

void ZELWait::set()
{
    m_signalled = true;
    if (m_waiting) {
        QMutexLocker lock(&m_mutex);
        m_cond.wakeAll();
    }
}

bool ZELWait::isWaiting()
{
    return m_waiting;
}
