// SPDX-License-Identifier: MIT
#include "zelcandidates_p.h"

#include "zelgrapheme_p.h"

#include <algorithm>

namespace {

QByteArray padded(const QByteArray &text, int columns)
{
    return text + QByteArray(std::max(0, columns - zelColumns(text)), ' ');
}

/// As much of a text as fits.
QByteArray cut(const QByteArray &text, int columns)
{
    int at = 0;
    while (at < text.size()) {
        const ZELGrapheme grapheme = zelGraphemeAt(text, at);
        if ((columns -= grapheme.width) < 0)
            break;
        at += grapheme.length;
    }
    return text.left(at);
}

} // namespace

void ZELCandidates::set(int from, const QVector<ZELCandidate> &candidates)
{
    clear();
    m_from = from;
    m_candidates = candidates;
}

QByteArray ZELCandidates::common() const
{
    QByteArray common = m_candidates.isEmpty() ? QByteArray() : m_candidates.first().word;
    for (const ZELCandidate &candidate : m_candidates) {
        const auto [end, other]
            = std::mismatch(common.cbegin(), common.cend(), candidate.word.cbegin(), candidate.word.cend());
        Q_UNUSED(other)
        common.truncate(int(end - common.cbegin()));
    }
    // Not in the middle of a character.
    const int last = zelGraphemeBefore(common, common.size());
    const bool isTorn = !common.isEmpty() && zelSequenceLength(common.constData() + last, common.size() - last) < 1;
    return isTorn ? common.left(last) : common;
}

QVector<QByteArray> ZELCandidates::list(int columns)
{
    m_isListed = true;
    int width = 0;
    bool hasNotes = false;
    for (const ZELCandidate &candidate : m_candidates) {
        width = std::max(width, zelColumns(candidate.word.trimmed()));
        hasNotes = hasNotes || !candidate.note.isEmpty();
    }
    return hasNotes ? listWithNotes(width, columns) : listInColumns(width, columns);
}

QVector<QByteArray> ZELCandidates::listWithNotes(int width, int columns) const
{
    QVector<QByteArray> rows;
    for (const ZELCandidate &candidate : m_candidates)
        rows += cut(candidate.note.isEmpty() ? candidate.word.trimmed()
                                             : padded(candidate.word.trimmed(), width) + "  " + candidate.note,
            columns - 1);
    return rows;
}

/// Down the columns first, as ls(1) does.
QVector<QByteArray> ZELCandidates::listInColumns(int width, int columns) const
{
    const int across = std::max(1, (columns + 1) / (width + 2));
    const int rowCount = (m_candidates.size() + across - 1) / across;
    QVector<QByteArray> rows(rowCount);
    for (int i = 0; i < m_candidates.size(); ++i) {
        QByteArray &row = rows[i % rowCount];
        const bool isLast = i + rowCount >= m_candidates.size();
        row += isLast ? m_candidates.at(i).word.trimmed() : padded(m_candidates.at(i).word.trimmed(), width + 2);
    }
    return rows;
}

QByteArray ZELCandidates::next(bool back)
{
    const int count = m_candidates.size();
    m_index = m_index < 0 ? (back ? count - 1 : 0) : (m_index + (back ? count - 1 : 1)) % count;
    return m_candidates.at(m_index).word;
}
