// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_SCREEN_H
#define TESTS_SUPPORT_SCREEN_H

#include <QByteArray>
#include <QPoint>
#include <QStringList>
#include <algorithm>
#include <memory>
#include <vterm.h>

/// A terminal emulator that is fed with what a program writes and read as a person would read it.
class Screen
{
public:
    explicit Screen(int columns, int rows = 24, bool utf8 = false)
        : m_columns(columns)
        , m_rows(rows)
        , m_terminal(vterm_new(rows, columns), vterm_free)
    {
        vterm_set_utf8(m_terminal.get(), utf8);
        m_screen = vterm_obtain_screen(m_terminal.get());
        vterm_screen_reset(m_screen, 1);
    }

    void feed(const QByteArray &bytes)
    {
        vterm_input_write(m_terminal.get(), bytes.constData(), static_cast<size_t>(bytes.size()));
    }

    /// The text of a row without the blanks at its end.
    QString row(int number) const
    {
        QString text;
        for (int column = 0; column < m_columns;) {
            VTermScreenCell cell;
            vterm_screen_get_cell(m_screen, {number, column}, &cell);
            const auto count = std::find(cell.chars, cell.chars + VTERM_MAX_CHARS_PER_CELL, 0U) - cell.chars;
            text += count > 0 ? QString::fromUcs4(cell.chars, int(count)) : QStringLiteral(" ");
            column += std::max(1, static_cast<int>(cell.width));
        }
        while (text.endsWith(QLatin1Char(' ')))
            text.chop(1);
        return text;
    }

    /// All rows down to the last one that holds text.
    QStringList rows() const
    {
        QStringList all;
        for (int i = 0; i < m_rows; ++i)
            all += row(i);
        while (!all.isEmpty() && all.last().isEmpty())
            all.removeLast();
        return all;
    }

    /// The cursor's column and row, from 0.
    QPoint cursor() const
    {
        VTermPos position;
        vterm_state_get_cursorpos(vterm_obtain_state(m_terminal.get()), &position);
        return {position.col, position.row};
    }

private:
    int m_columns;
    int m_rows;
    std::unique_ptr<VTerm, void (*)(VTerm *)> m_terminal;
    VTermScreen *m_screen;
};

#endif
