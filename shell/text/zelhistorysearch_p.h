// SPDX-License-Identifier: MIT
#ifndef ZELHISTORYSEARCH_P_H
#define ZELHISTORYSEARCH_P_H

#include <QByteArray>
#include <QStringList>

/**
 * An incremental search through lines entered before, from the newest one backwards or forwards again.
 *
 * Lines are bytes, one Latin-1 character each. Pure: works on the list it was begun with.
 */
class ZELHistorySearch
{
public:
    bool isActive() const { return m_isActive; }
    /// Begins behind the newest of \a entries; \a line is what stands there if nothing is found.
    void begin(const QStringList &entries, const QByteArray &line, bool back);
    void end() { *this = ZELHistorySearch(); }

    /// Looks for more, beginning with the line that matches now.
    void extend(const QByteArray &text);
    /// Takes the last character of the query away and starts over.
    void shorten();
    /// The next match in that direction.
    void again(bool back);

    /// The line found, or the one the search began with.
    QByteArray line() const;
    /// Where in it the query stands.
    int place() const { return m_place; }
    const QByteArray &original() const { return m_original; }
    /// What stands in the prompt's place.
    QByteArray prompt() const;

private:
    void find(int from);

    QStringList m_entries;
    QByteArray m_original;
    QByteArray m_query;
    int m_index = 0;
    int m_place = 0;
    bool m_isActive = false;
    bool m_isBack = true;
    bool m_hasFailed = false;
};

#endif
