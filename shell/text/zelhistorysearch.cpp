// SPDX-License-Identifier: MIT
#include "zelhistorysearch_p.h"

#include "zelgrapheme_p.h"

void ZELHistorySearch::begin(const QStringList &entries, const QByteArray &line, bool back)
{
    m_entries = entries;
    m_original = line;
    m_query.clear();
    m_index = entries.size();
    m_place = line.size();
    m_isActive = true;
    m_isBack = back;
    m_hasFailed = false;
}

void ZELHistorySearch::extend(const QByteArray &text)
{
    m_query += text;
    find(m_index);
}

void ZELHistorySearch::shorten()
{
    m_query.truncate(zelGraphemeBefore(m_query, m_query.size()));
    m_index = m_entries.size();
    m_hasFailed = false;
    m_place = m_original.size();
    if (!m_query.isEmpty())
        find(m_index);
}

void ZELHistorySearch::again(bool back)
{
    m_isBack = back;
    if (!m_query.isEmpty())
        find(m_index + (back ? -1 : 1));
}

void ZELHistorySearch::find(int from)
{
    const QString query = QString::fromLatin1(m_query);
    for (int i = from; i >= 0 && i <= m_entries.size(); i += m_isBack ? -1 : 1) {
        const int place = i < m_entries.size() ? m_entries.at(i).lastIndexOf(query) : -1;
        if (place < 0)
            continue;
        m_index = i;
        m_place = place;
        m_hasFailed = false;
        return;
    }
    m_hasFailed = true;
}

QByteArray ZELHistorySearch::line() const
{
    return m_index < m_entries.size() ? m_entries.at(m_index).toLatin1() : m_original;
}

QByteArray ZELHistorySearch::prompt() const
{
    return QByteArray(m_hasFailed ? "(failed " : "(") + (m_isBack ? "reverse-i-search)`" : "i-search)`") + m_query
        + "': ";
}
