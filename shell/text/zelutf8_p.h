// SPDX-License-Identifier: MIT
#ifndef ZELUTF8_P_H
#define ZELUTF8_P_H

#include <QByteArray>

// Bytes that are UTF-8 where they are, as a terminal takes them.

/// The length of the character that begins at \a at: a byte that is no part of a sequence stands for itself.
int zelNextLength(const QByteArray &line, int at);
/// The length of the character that ends at \a at.
int zelPreviousLength(const QByteArray &line, int at);
/// How many columns a terminal gives the characters between two of them.
int zelColumns(const QByteArray &line, int from, int to);

#endif
