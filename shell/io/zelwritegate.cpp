// SPDX-License-Identifier: MIT
#include "zelwritegate_p.h"

#include "zelguard_p.h"
#include "zelsemaphore_p.h"

#include <QThread>
#include <algorithm>

struct ZELWriteGate::Turn
{
    Qt::HANDLE thread = QThread::currentThreadId();
    ZELSemaphore granted;
};

bool ZELWriteGate::isMine()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_owner == QThread::currentThreadId();
}

bool ZELWriteGate::lock(bool mayWait)
{
    std::shared_ptr<Turn> turn;
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (!m_owner) {
            m_owner = QThread::currentThreadId();
            return true;
        }
        if (!mayWait)
            return false;
        turn = std::make_shared<Turn>();
        m_turns.push_back(turn);
    }
    return waitFor(turn);
}

bool ZELWriteGate::waitFor(const std::shared_ptr<Turn> &turn)
{
    for (;;) {
        const bool waited = zelWaitInterruptibly(turn->granted);
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (m_owner == turn->thread)
            return true;
        if (waited)
            continue;
        m_turns.erase(std::find(m_turns.begin(), m_turns.end(), turn));
        return false;
    }
}

void ZELWriteGate::unlock()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_owner = nullptr;
    if (m_turns.empty())
        return;
    m_owner = m_turns.front()->thread;
    m_turns.front()->granted.post();
    m_turns.pop_front();
}

void ZELWriteGate::setComposer(const Composer &composer)
{
    m_isUsed = true;
    alone([&] { m_composer = composer; });
}

void ZELWriteGate::alone(const std::function<void()> &action)
{
    ZELCriticalSection section;
    if (isMine())
        return action();
    // The owner of the screen is not to be kept from it by a kill: that is taken when this is done.
    while (!lock(true))
        QThread::msleep(1);
    action();
    unlock();
}

void ZELWriteGate::pass(const QByteArray &bytes, bool mayWait, const std::function<void(const QByteArray *)> &write)
{
    ZELCriticalSection section;
    if (bytes.isEmpty() || isMine() || !lock(mayWait))
        return write(nullptr);
    const QByteArray composed = m_composer ? m_composer(bytes) : QByteArray();
    ZELFrame frame;
    frame->abandoned = [this] { unlock(); };
    const int state = zelGuard(frame.get(), [&] { write(m_composer ? &composed : nullptr); });
    unlock();
    if (state)
        zelRaise(frame.take(), state);
}
