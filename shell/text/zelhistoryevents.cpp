// SPDX-License-Identifier: MIT
#include "zelhistoryevents_p.h"

#include <algorithm>

namespace {

/// The index of the entry that the word behind the "!" means; -1 for none.
int eventIndex(const QString &word, const QStringList &entries)
{
    const int count = entries.size();
    if (word == QLatin1String("!"))
        return count - 1;
    bool isNumber = false;
    const int number = word.toInt(&isNumber);
    if (isNumber) {
        const int index = number < 0 ? count + number : number - 1;
        return index >= 0 && index < count && number != 0 ? index : -1;
    }
    int index = count - 1;
    while (index >= 0 && !entries.at(index).startsWith(word))
        --index;
    return index;
}

} // namespace

std::optional<QString> zelHistoryEvent(const QString &line, const QStringList &entries)
{
    const QLatin1Char blank(' ');
    if (line.size() < 2 || line.at(0) != QLatin1Char('!') || line.at(1) == blank || line.at(1) == QLatin1Char('='))
        return line;
    const int end = line.indexOf(blank);
    const int index = eventIndex(line.mid(1, end < 0 ? -1 : end - 1), entries);
    if (index < 0)
        return std::nullopt;
    return entries.at(index) + (end < 0 ? QString() : line.mid(end));
}

QString zelHistoryListing(const QStringList &entries)
{
    QString listing;
    const int width = QString::number(entries.size()).size();
    for (int i = 0; i < entries.size(); ++i)
        listing += QStringLiteral("%1  ").arg(i + 1, width + 1) + entries.at(i) + QLatin1Char('\n');
    return listing;
}
