// SPDX-License-Identifier: MIT
#ifndef ZELSHELLCLIENT_H
#define ZELSHELLCLIENT_H

#include "zelshell_export.h"

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QString>
#include <QUuid>
#include <functional>
#include <memory>

class ZELShellClient;
class ZELShellClientPrivate;
class ZELShellProcessPrivate;

/**
 * One packet of a remote shell as the client sees it: the key of the statement it answers, its headers and its body.
 *
 * A plain value, copied freely and usable on any thread. Nothing in it is interpreted before it is asked for:
 * "Content-Length", "Host", "PATH" and "ReturnType" are only found in the header table.
 *
 *     if (packet.isComplete() && packet.getProcessStatus() == ZELShellProcessHeader::Result)
 *         use(packet.getReturn());
 */
class ZELSHELL_EXPORT ZELShellProcessHeader
{
public:
    /// The numbers of getAccept().
    enum Accept { StdOut, StdInfo, StdWarning, StdError, StdCritical, StdFatal, Stream, Object };
    /// The numbers of getProcessStatus(). Every status but Process ends a statement's exchange.
    enum Status {
        Process,
        ApplicationExit,
        Disconnect,
        ExecuteError,
        Complete,
        Result,
        NotFound,
        RunningLock,
        PermissionError,
        Unknown
    };

    /// Header names exactly as received; a repeated name keeps its last value.
    QHash<QString, QByteArray> headers;
    /// Everything behind the headers, as received.
    QByteArray body;
    /// The key of the start line: what the statement began with, "#" and its index included.
    QString requestMethod;

    QString getRequestMethod() const { return requestMethod; }
    /// True when there is a state and it is not "EXECUTE_PROCESS".
    bool isComplete() const;
    bool isComplete() { return const_cast<const ZELShellProcessHeader *>(this)->isComplete(); }
    /// True when there is a state and it is "EXECUTE_PROCESS".
    bool isInsideProcess() const;
    /// The channel the text was printed on; StdOut when the header is missing or not known.
    int getAccept() const;
    /// The state; Unknown when the header is missing or not known.
    int getProcessStatus() const;
    /// The body, base64-decoded when the header "Encode" is exactly "true".
    QByteArray getRequestBodyBuffer() const;
    /// The same as text, up to the first NUL byte.
    QString getRequestBody() const;
    /// The decoded value of the header "Return" up to its first NUL byte; empty without one, "NULL" for an invalid
    /// value.
    QString getReturn() const;
};

/**
 * One command line that a client sends to a remote shell, and everything that comes back for it.
 *
 * Made by ZELShellClient::createProcess() and held by the client until the last packet has come or the record is
 * removed; the caller's pointer keeps it as long as it is needed. One made without a client collects packets that are
 * given to it and sends nothing.
 *
 * Threads: any. A record may be destroyed while threads wait on it or its hook runs: waiters wake, the hook runs to its
 * end. A hook that waits for another packet of the same connection must be an asynchronous one. Hooks are called one
 * after another, in the order of the packets.
 *
 *     auto process = client.createProcess(QStringLiteral("jobs/count 3"));
 *     process->send();
 *     if (process->wait(5000))
 *         print(process->getTextOutput(0), process->getReturnValue(0));
 */
class ZELSHELL_EXPORT ZELShellProcess
{
public:
    ZELShellProcess();
    /// Wakes those who wait; their calls return as if the command had ended.
    ~ZELShellProcess();
    ZELShellProcess(const ZELShellProcess &) = delete;
    ZELShellProcess &operator=(const ZELShellProcess &) = delete;

    /// Sends the command line once; false on every later call until clear(). Without a connection the record is
    /// released at once.
    bool send();
    /// Has hook called for every packet: asynchronous on a thread of the pool without waiting, else while the receiving
    /// thread waits. False, and nothing changes, once sent.
    bool setProcess(std::function<void(ZELShellProcessHeader)> hook, bool asynchronous);

    /// Waits until the command has ended (an asynchronous hook has seen its end) for at most ms milliseconds; false on
    /// time-out.
    bool wait(unsigned long ms);
    /// Waits likewise, then what was printed so far, complete or not.
    QString getTextOutput(unsigned long ms);
    /// Waits likewise, then the value of the last packet; empty when there is none.
    QString getReturnValue(unsigned long ms);
    /// The packet that ended the command; without headers before that.
    ZELShellProcessHeader lastPacket() const;

    /// The line that send() transmits, the number of its command word included.
    QString getCommand() const;
    /// What the packets of this record begin with; empty without a client.
    QString key() const;
    bool isSendOut() const;
    bool isBackground() const;

    /// Adds a packet, to be worked off by doWork().
    void append(const ZELShellProcessHeader &packet);
    /// Works off the newest packet and drops those before it; whether it completes the command.
    bool doWork();
    /// Ends the record from this side: the hook sees one packet of unknown status, waiters wake.
    void release();
    /// Makes the record reusable: not sent, no hook. Waiters wake; line, background flag and text are kept.
    void clear();

private:
    friend class ZELShellClientPrivate;
    std::shared_ptr<ZELShellProcessPrivate> d;
};

/**
 * The connection of a program to a remote shell: logs in, sends statements, and hands the packets that come back to the
 * record of the statement they answer.
 *
 * Every statement gets a key that is unique on the connection: its command word with "#" and a number, after "$x ="
 * the first word behind it. What cannot be numbered (literals, variable queries, "$command") is matched by its plain
 * word in the order of sending; have at most one of these in flight in the background.
 *
 * Packets are received on a thread of the client's own, which ends with the connection. When that ends, every record
 * that was sent is released. No event loop is needed anywhere.
 *
 * Threads: every function may be called from any thread, hooks included. Signals are emitted on the thread that finds
 * out: connected() and error() of a failed attempt on the caller's, those of a lost connection on the receiving one.
 *
 *     ZELShellClient client;
 *     client.setUser(QStringLiteral("bob"), password);
 *     if (!client.connectToHost(QStringLiteral("board"), 5000))
 *         return client.errorString();
 *     QString load = client.execute(QStringLiteral("system/load"))->getReturnValue(1000);
 */
class ZELSHELL_EXPORT ZELShellClient : public QObject
{
    Q_OBJECT
public:
    explicit ZELShellClient(QObject *parent = nullptr);
    /// Closes the connection; no hook of this client is called any more.
    ~ZELShellClient() override;

    /// Who to log in as from the next connection on; an empty name for nobody.
    void setUser(const QString &name, const QString &password);
    /// The id to be known by: that of an earlier login, or with a user a new one. Null for none.
    void setKey(const QUuid &key);

    /// Connects, logs in and reads the banner, all within ms milliseconds. False when that fails, see errorString(),
    /// or when there is a connection already. A host that does not require the login connects also when it refuses
    /// it: see isLogin().
    bool connectToHost(const QString &host, quint16 port, int ms = 30000);
    /// For hosts that dial out: waits for them at that address; port 0 lets the system choose. False on failure.
    bool listen(const QString &address, quint16 port);
    /// The port listened on, 0 for none.
    quint16 listenPort() const;
    /// Takes the next host that dials in, as connectToHost() does. Closing ends the wait.
    bool waitForHost(int ms = 30000);
    /// Ends the connection and the listening. Returns when the receiving thread is done, unless called on that thread;
    /// with a login and nothing pending it waits up to a second for the host to log the user out.
    void close();

    bool isConnected() const;
    /// Whether the host accepted the user, for connections with one.
    bool isLogin() const;
    /// The text with which the host greeted.
    QString banner() const;
    /// The session's id at the host.
    QUuid connectId() const;
    /// Why the last attempt failed, the connection ended or a record was refused; one line.
    QString errorString() const;

    /// A record for one statement, not sent yet. A trailing "&" sends it to the background. Null, with a warning, when
    /// the line is empty or holds a line feed or ";": those separate statements. One statement, one record.
    std::shared_ptr<ZELShellProcess> createProcess(const QString &line, bool background = false);
    /// Creates and sends.
    std::shared_ptr<ZELShellProcess> execute(const QString &line, bool background = false);
    /// The record of that key which is not complete yet; null when there is none.
    std::shared_ptr<ZELShellProcess> findProcess(const QString &key) const;
    /// Forgets a record: packets that still come for it are dropped. Nothing for one that is not in the table.
    void removeProcess(const std::shared_ptr<ZELShellProcess> &process);
    int pendingProcesses() const;

    /// Sends a line as it stands, tagged so that the host answers in packets. False without a connection.
    bool sendLine(const QString &line, bool background);
    /// Has hook called on the receiving thread for every packet, before the packet's record gets it.
    void setRequestHook(std::function<void(ZELShellProcessHeader)> hook);

    /// Makes the next connections terminal sessions, with the host's own editing and prompt: no packets and no records,
    /// but hook called on the receiving thread with all that the host writes behind its banner. An empty hook for
    /// connections of the other kind. The host paints its listings for that many columns; 0 when not known.
    void setTerminalHook(std::function<void(QByteArray)> hook, int columns = 0);
    /// Sends keys to a terminal session, as they stand. False without a connection.
    bool sendKeys(const QByteArray &bytes);

Q_SIGNALS:
    void connected();
    void disconnected();
    void error(QString errorString);

private:
    std::shared_ptr<ZELShellClientPrivate> d;
};

#endif
