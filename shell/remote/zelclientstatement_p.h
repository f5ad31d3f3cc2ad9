// SPDX-License-Identifier: MIT
#ifndef ZELCLIENTSTATEMENT_P_H
#define ZELCLIENTSTATEMENT_P_H

#include <QString>

/**
 * One statement as a client sends it, and the key by which its packets will be known. Pure; any thread.
 *
 * The host answers under the command word and what stands behind its "#". So a number is put there, also behind
 * "$x =". Literals, "$x" (answered under the variable's name) and "$command" (answered under its value, which only the
 * host knows) cannot carry one.
 */
struct ZELClientStatement
{
    QString line; ///< to be sent; empty when the statement is refused
    QString key; ///< empty when it cannot be known
    bool numbered = false; ///< the key belongs to this statement alone
    bool background = false; ///< it ended in "&", which the line no longer does
    QString refusal;
};
ZELClientStatement zelNumberStatement(const QString &text, quint64 number);

/// The line with the mark that has the host answer in packets, as bytes to be sent.
QByteArray zelTaggedLine(const QString &line, bool background);

/// The first line of a connection: who logs in, and how wide the terminal is, 0 when not known and -1 without one.
/// Empty when a value holds all kinds of quotes and brackets, or a line feed, and so cannot be written.
QByteArray zelHandshakeLine(const QString &user, const QString &password, const QString &key, int columns);

#endif
