// SPDX-License-Identifier: MIT
#ifndef ZELCANDIDATES_P_H
#define ZELCANDIDATES_P_H

#include <QByteArray>
#include <QVector>

/// One way to go on with the word before the cursor.
struct ZELCandidate
{
    QByteArray word; ///< UTF-8; stands in the place of the whole word, with the blank or "/" that follows it
    QByteArray note; ///< one line about it; may be empty
};

/**
 * What repeated Tab keys make of the candidates for a word: the common beginning, then a list, then one after the
 * other.
 *
 * Pure: bytes in and out.
 */
class ZELCandidates
{
public:
    void set(int from, const QVector<ZELCandidate> &candidates);
    void clear() { *this = ZELCandidates(); }
    bool isEmpty() const { return m_candidates.isEmpty(); }
    /// Where the word begins in the line.
    int from() const { return m_from; }
    /// What all of them begin with; the whole word when there is only one.
    QByteArray common() const;
    /// True once list() was called: Tab goes through them from now on.
    bool isListed() const { return m_isListed; }
    /// Rows of \a columns columns: several to a row, or one with its note behind it.
    QVector<QByteArray> list(int columns);
    QByteArray next(bool back);

private:
    QVector<QByteArray> listWithNotes(int width, int columns) const;
    QVector<QByteArray> listInColumns(int width, int columns) const;

    QVector<ZELCandidate> m_candidates;
    int m_from = 0;
    int m_index = -1;
    bool m_isListed = false;
};

#endif
