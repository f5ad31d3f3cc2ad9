// SPDX-License-Identifier: MIT
#ifndef ZELSHELLPROCESS_H
#define ZELSHELLPROCESS_H

#include "zelshell_export.h"
#include "zelshellprocessheader.h"

#include <QString>
#include <functional>
#include <memory>

class ZELShellClientPrivate;
class ZELShellProcessPrivate;

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

#endif
