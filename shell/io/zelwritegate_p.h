// SPDX-License-Identifier: MIT
#ifndef ZELWRITEGATE_P_H
#define ZELWRITEGATE_P_H

#include <QByteArray>
#include <QtGlobal>
#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

/**
 * Lets the owner of a screen put what others write there between two of its own pictures: its line is taken away, their
 * text printed, the line put back, all in one write.
 *
 * Every stream has one, open at first: writes pass it at the cost of an atomic load. Once there is a composer they come
 * one after the other. Waiting for one's turn ends for a kill or time limit; then, as in a thread that others wait for
 * and in a write out of a write, the bytes pass as they are. Threads: any.
 */
class ZELWriteGate
{
public:
    /// What is to be written in the place of the bytes; called by whoever writes, with the gate held.
    using Composer = std::function<QByteArray(const QByteArray &)>;

    bool isUsed() const { return m_isUsed; }
    /// Null for none; once there was one, writes go on taking turns.
    void setComposer(const Composer &composer);

    /// Calls `action` while nobody else writes or is composed for.
    void alone(const std::function<void()> &action);
    /// Calls `write` with what to write, or with null for the bytes as they are. A fault in there opens the gate.
    void pass(const QByteArray &bytes, bool mayWait, const std::function<void(const QByteArray *)> &write);

private:
    struct Turn;
    bool isMine();
    bool lock(bool mayWait);
    bool waitFor(const std::shared_ptr<Turn> &turn);
    void unlock();

    std::atomic<bool> m_isUsed{false};
    Composer m_composer; ///< guarded by the gate itself
    std::mutex m_mutex; ///< guards what follows, never held while waiting
    Qt::HANDLE m_owner = nullptr;
    std::deque<std::shared_ptr<Turn>> m_turns;
};

#endif
