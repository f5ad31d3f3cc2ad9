// SPDX-License-Identifier: MIT
#ifndef ZELHISTORYEVENTS_P_H
#define ZELHISTORYEVENTS_P_H

#include <QString>
#include <QStringList>
#include <optional>

/**
 * The line that "!!", "!n", "!-n" or "!text" at the beginning of \a line stands for, with what follows that word: the
 * line before, the one that \c history lists under n, the n-th before, the newest that begins with the text.
 *
 * The line itself when it does not begin so; nothing when there is no such entry. \a entries has the oldest one first.
 */
std::optional<QString> zelHistoryEvent(const QString &line, const QStringList &entries);

/// The entries by number, as \c history shows them.
QString zelHistoryListing(const QStringList &entries);

#endif
