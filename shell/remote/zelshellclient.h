// SPDX-License-Identifier: MIT
#ifndef ZELSHELLCLIENT_H
#define ZELSHELLCLIENT_H

#include "zelshell_export.h"
#include "zelshellprocess.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QUuid>
#include <functional>
#include <memory>

class ZELShellClientPrivate;

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
    /// Closes the connection. From its beginning on no hook of this client is called any more, and it returns when none
    /// runs, but for those that wait for it.
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
    /// Ends the connection and the listening. Returns when the receiving thread is done, unless that waits for it;
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

    /// Sends a line as it stands, tagged so that the host answers in packets. False without a connection. A kill or
    /// time limit that finds a line sent in part ends the connection.
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
