// SPDX-License-Identifier: MIT
#ifndef ZELKEYDECODER_P_H
#define ZELKEYDECODER_P_H

#include <QByteArray>

/// What a key asks of the line being edited.
enum class ZELKey {
    None, ///< nothing yet, or a sequence without a meaning
    Text, ///< text(): one character or a byte that belongs to none
    Enter,
    Tab,
    BackTab,
    Left,
    Right,
    WordLeft,
    WordRight,
    Home,
    End,
    Up,
    Down,
    Backspace,
    Delete,
    DeleteOrEnd, ///< Ctrl-D
    KillBlankWordBack, ///< Ctrl-W: to the blank before
    KillWordBack, ///< Alt-Backspace
    KillWord, ///< Alt-D
    KillToStart,
    KillToEnd,
    Yank,
    YankEarlier, ///< Alt-Y
    Transpose,
    Undo,
    ClearScreen,
    Interrupt, ///< Ctrl-C
    SearchBack,
    SearchForward,
    Cancel, ///< Ctrl-G
    LastArgument,
    PasteBegin,
    PasteEnd,
    Resize, ///< the terminal told its size: columns(), rows()
};

/**
 * Turns the bytes of a keyboard into keys: the control keys and escape sequences of xterm, rxvt, linux and screen.
 *
 * Sequences may be torn anywhere; those without a meaning are swallowed whole, strings (OSC, DCS, APC, PM, SOS) up to
 * their end. A control byte inside of a sequence ends it and counts for itself, so that Enter is never lost to noise.
 * See console_codes(4) and xterm's ctlseqs.
 */
class ZELKeyDecoder
{
public:
    /// Takes one byte. Bytes of a UTF-8 sequence are held until it is whole.
    ZELKey feed(char byte);
    /// The character of the last Text.
    const QByteArray &text() const { return m_text; }
    /// The size of the last Resize, xterm's report \c "CSI 8 ; rows ; columns t".
    int columns() const { return m_columns; }
    int rows() const { return m_rows; }
    /// Whether bytes that came are still waiting for more.
    bool isHolding() const { return m_state != State::Ground || !m_held.isEmpty(); }
    /// A byte that ended a sequence and is to be fed again; -1 when there is none.
    int takeAgain();
    void reset();

private:
    enum class State { Ground, Escape, Csi, Linux, Ss3, String, StringEscape, Mouse };

    ZELKey ground(char byte);
    ZELKey character(char byte);
    ZELKey escape(char byte);
    ZELKey csi(char byte);
    ZELKey csiKey(char final) const;
    ZELKey csiSize();
    ZELKey ss3(char byte);
    ZELKey string(char byte);
    ZELKey abort(char byte);

    State m_state = State::Ground;
    QByteArray m_text;
    QByteArray m_held; ///< the begun UTF-8 sequence
    QByteArray m_parameters;
    int m_columns = 0;
    int m_rows = 0;
    int m_again = -1;
    int m_skip = 0; ///< bytes of a mouse report still to come
    bool m_afterReturn = false;
    bool m_meta = false; ///< a second Escape stood before the sequence
};

#endif
