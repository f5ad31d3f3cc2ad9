// SPDX-License-Identifier: MIT
#ifndef ZELSHELLCLIENT_P_H
#define ZELSHELLCLIENT_P_H

#include "zelclientsocket_p.h"
#include "zelguard_p.h"
#include "zelhookgate_p.h"
#include "zellife_p.h"
#include "zelshellclient.h"
#include "zelthread_p.h"

#include <QDeadlineTimer>
#include <QList>
#include <atomic>
#include <mutex>
#include <thread>

/// One connection and the thread that receives on it; the thread holds it too.
class ZELClientConnection
{
public:
    explicit ZELClientConnection(std::shared_ptr<ZELClientSocket> s)
        : socket(std::move(s))
    {
    }
    ~ZELClientConnection();
    /// Waits for the receiving thread; at once where that waits for the caller.
    void join();
    /// On the receiving thread, and on one whose hook it waits for.
    bool isReceiver() const { return receiver == zelServedThread(); }
    /// Waits for its turn to send; false when the caller is to be stopped.
    bool lockWriting();

    const std::shared_ptr<ZELClientSocket> socket;
    bool alive = true; ///< guarded by the client's mutex
    std::atomic<bool> closed{false}; ///< from this side
    std::mutex writing; ///< lines are written whole
    std::mutex joining; ///< guards thread
    std::thread thread;
    std::atomic<std::thread::id> receiver{};
    ZELCall received; ///< finished when the receiving thread ends
};

/**
 * What a client shares with its records and its receiving thread. The mutex guards the table and the state of the
 * connection; nothing of the outside (hooks, records, signals, the socket) is called under it.
 */
class ZELShellClientPrivate : public std::enable_shared_from_this<ZELShellClientPrivate>
{
public:
    explicit ZELShellClientPrivate(ZELShellClient *q)
        : life(q)
    {
    }

    using Opener = std::function<std::shared_ptr<ZELClientSocket>(QString &error)>;
    /// Nothing on the caller's stack may own anything: a kill is taken when all is settled.
    bool open(const Opener &opener, QDeadlineTimer deadline);
    bool listen(const QString &address, quint16 port);
    void close();
    bool sendLine(const QString &line, bool background);
    bool sendBytes(const QByteArray &bytes);
    std::shared_ptr<ZELClientConnection> liveConnection() const;
    template <class T>
    T get(T ZELShellClientPrivate::*field) const
    {
        ZELCriticalSection section;
        std::lock_guard<std::mutex> lock(mutex);
        return this->*field;
    }

    std::shared_ptr<ZELShellProcess> create(const QString &line, bool background);
    /// Puts the record among those that wait for an answer, and transmits its line.
    bool send(const std::shared_ptr<ZELShellProcessPrivate> &process);
    std::shared_ptr<ZELShellProcess> find(const QString &key) const;
    void remove(const ZELShellProcess &record);
    int pending() const;
    /// Whether it was in the table.
    bool forget(const ZELShellProcessPrivate *process);

    ZELLife<ZELShellClient> life;
    const std::shared_ptr<ZELHookGate> hooks = std::make_shared<ZELHookGate>();

    mutable std::mutex mutex;
    QString user;
    QString password;
    QUuid key;
    QString banner;
    QUuid connectId;
    QString error;
    bool login = false;
    std::function<void(ZELShellProcessHeader)> requestHook;
    std::function<void(QByteArray)> terminalHook;
    int terminalColumns = 0;
    std::shared_ptr<ZELClientConnection> connection; ///< the latest one, ended or not
    std::shared_ptr<ZELClientSocket> listener;
    struct Entry
    {
        std::shared_ptr<ZELShellProcessPrivate> process;
        std::shared_ptr<ZELShellProcess> pending; ///< keeps the record from its sending to its end
    };
    QHash<QString, Entry> numbered; ///< by their keys
    QList<Entry> loose; ///< those without a key of their own, in the order of sending

private:
    struct Greeting
    {
        QByteArray bytes;
        int end = -1; ///< of the line with the connection id, its line feed not included
    };
    bool establish(const Opener &opener, QDeadlineTimer deadline);
    bool begin();
    void awaitLogout();
    void closeNow();
    bool attend(const std::shared_ptr<ZELClientSocket> &socket, QString &error);
    bool fail(const QString &reason);
    void emitError();
    bool shakeHands(ZELClientSocket &socket, QDeadlineTimer deadline, QByteArray &rest, QString &error);
    bool readGreeting(ZELClientSocket &socket, QDeadlineTimer deadline, Greeting &greeting, QString &error);
    bool acceptGreeting(const Greeting &greeting, const QUuid &usedKey, QString &error);
    bool start(const std::shared_ptr<ZELClientSocket> &socket, const QByteArray &rest, QString &error);
    void receive(ZELClientConnection &from, QByteArray bytes);
    void receiveText(ZELClientConnection &from, QByteArray bytes, const std::function<void(QByteArray)> &hook);
    void receivePackets(ZELClientConnection &from, QByteArray bytes);
    void deliver(const ZELShellProcessHeader &packet);
    void ended(ZELClientConnection &connection);
    Entry entryFor(const ZELShellProcessHeader &packet);
    int looseIndex(const QString &key) const;
    bool isOldNumber(const QString &key) const;
    QList<Entry> takePending();
    template <class Signal>
    void emitSignal(Signal &&signal);

    bool m_opening = false;
    bool m_cancelled = false;
    std::shared_ptr<ZELClientSocket> m_attempt; ///< what open() is waiting on
    quint64 m_number = 0;
};

#endif
