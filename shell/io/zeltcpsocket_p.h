// SPDX-License-Identifier: MIT
#ifndef ZELTCPSOCKET_P_H
#define ZELTCPSOCKET_P_H

#include "zelguard_p.h"
#include "zelsemaphore_p.h"
#include "zeltcpsocket.h"

#include <QPointer>
#include <QSocketNotifier>

#include <atomic>
#include <mutex>

class ZELThread;

/**
 * The descriptor of a connection while threads other than the worker may send on it by themselves: as long as nothing
 * waits to be sent before. A send and the taking back exclude each other, so nobody sends on a number that the kernel
 * has given to the next connection.
 */
class ZELLentDescriptor
{
public:
    void lend(qintptr descriptor)
    {
        const Lock lock(m_mutex);
        m_descriptor = descriptor;
    }
    /// From here on only the worker sends; waits for a send that is under way, which does not wait itself.
    void takeBack() { lend(-1); }
    /// How many bytes the kernel took; 0 when it is not lent.
    qint64 send(const QByteArray &data);

private:
    struct Lock
    {
        explicit Lock(std::mutex &mutex)
            : lock(mutex)
        {
        }
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock;
    };
    std::mutex m_mutex;
    qintptr m_descriptor = -1;
};

/**
 * Who owns the descriptor when. Nothing else decides it; the state moves downwards only, by advance().
 *
 * | State      | Socket lives in | Received by | Sent by                                            | Left by        |
 * |------------|-----------------|-------------|----------------------------------------------------|----------------|
 * | Connecting | maker's thread  | nobody      | nobody: what is written early is kept              | onConnected(), |
 * |            |                 |             |                                                    | beginClose()   |
 * | Open       | worker          | worker      | whoever writes, while it is lent; else the worker, | beginClose()   |
 * |            |                 |             | above all while bytes wait in Qt's buffer          |                |
 * | Closing    | worker          | nobody      | worker, the rest                                   | closeDown()    |
 * | Down       | worker          | nobody      | nobody, the descriptor is closed                   |                |
 *
 * A socket that never connected is closed down by its maker's thread. One whose worker could not be started stays
 * there.
 */
class ZELTcpSocketPrivate
{
public:
    enum class State { Connecting, Open, Closing, Down };
    enum class Worker { None, Runs, Over }; ///< Over: it takes no more events

    /// True for the one call that makes this move.
    bool advance(State to);
    bool isOpen() const { return state == State::Open; }
    bool isClosed() const { return state >= State::Closing; }

    std::atomic<qintptr> descriptor{-1};
    ZELThread *thread = nullptr;
    ZELStream *stream = nullptr;
    QMetaObject::Connection onDisconnected;
    QPointer<QSocketNotifier> arrival; ///< Qt's own, whose events takeArrived() sees first
    ZELLentDescriptor lent;
    std::atomic<bool> told{false}; ///< sockDisConnect() was emitted

    ZELSemaphore arrived; ///< posted when the mutex was let go, so that the reader need not wait for it
    mutable std::mutex mutex; ///< guards the rest, and the changes of the state
    std::atomic<State> state{State::Connecting};
    std::atomic<Worker> worker{Worker::None};
    QByteArray received;
    QByteArray early; ///< written before it was connected
    bool paused = false; ///< receive() left bytes behind for want of room
    bool released = false;
    QHostAddress peerAddress;
    QString peerName;
    quint16 peerPort = 0;
};

#endif
