// SPDX-License-Identifier: MIT
#ifndef ZELSOCKETCALLS_P_H
#define ZELSOCKETCALLS_P_H

#include <QtGlobal>

class QByteArray;

// System calls on a connected socket, tcp(7), that do not block but for the times given.

/// True when one of the events of poll(2) came in time.
bool zelPollOne(qintptr descriptor, short events, int timeoutMs);

/// The number of bytes that the kernel took; an error is left for the next try to find.
qint64 zelSendNow(qintptr descriptor, const QByteArray &data);

/// Appends what is there, up to the limit; what recv(2) answers. Most of what people and programs send fits a line, for
/// which asking first how much there is would be a system call too many.
qint64 zelReceiveInto(qintptr descriptor, QByteArray &to, int limit);

/// After the end was sent: throws away what the peer has sent before it saw that, until it closes or has acknowledged
/// everything. Closing with input unread would reset the connection, and the peer could lose the last answer.
void zelDrain(qintptr descriptor, int timeMs);

#endif
