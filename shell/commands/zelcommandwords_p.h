// SPDX-License-Identifier: MIT
#ifndef ZELCOMMANDWORDS_P_H
#define ZELCOMMANDWORDS_P_H

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <optional>

// Words as values, as functions of their text alone: ASCII, the C locale, no blanks around. Nothing for a word that is
// none; any thread.

/// A whole number's sign and magnitude: decimal, or "0x" and hexadecimal digits. The magnitude is the largest one when
/// it is beyond that.
struct ZELWholeNumber
{
    bool negative = false;
    quint64 magnitude = 0;
    bool overflown = false;
};
std::optional<ZELWholeNumber> zelWholeNumber(const QString &word);

/// A decimal number; infinite when it is beyond double's range. There is no word for infinity, and none for NaN.
std::optional<double> zelRealNumber(const QString &word);

/// yes, no, true, false, on, off, 1, 0.
std::optional<bool> zelTruth(const QString &word);

/// Nanoseconds of numbers with units, "1.5s", "250ms", "1h30m"; units are ns, us, ms, s, m or min, h, d. "0" needs
/// none.
std::optional<qint64> zelNanoseconds(const QString &word);

/// Bytes of a number that may have a unit, "512", "4k", "1.5MiB", "2kB".
std::optional<qint64> zelBytesOfSize(const QString &word);

/// "hex:00ff", "base64:aGk=", "text:hex:" or the word itself as UTF-8.
std::optional<QByteArray> zelByteArray(const QString &word);

/// ISO 8601, a date with or without a time, behind "T" or a blank, local unless it says otherwise; "@" and the seconds
/// since 1970; "now".
std::optional<QDateTime> zelMoment(const QString &word);

/// How many letters have to be changed, added, left out or swapped with their neighbour to make one of the other.
int zelEditDistance(const QString &one, const QString &other);

#endif
