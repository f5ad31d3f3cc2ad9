// SPDX-License-Identifier: MIT
#ifndef ZELSHELLPROCESSHEADER_H
#define ZELSHELLPROCESSHEADER_H

#include "zelshell_export.h"

#include <QByteArray>
#include <QHash>
#include <QString>

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

#endif
