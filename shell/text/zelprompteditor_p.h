// SPDX-License-Identifier: MIT
#ifndef ZELPROMPTEDITOR_P_H
#define ZELPROMPTEDITOR_P_H

#include "zelcandidates_p.h"
#include "zelhistorysearch_p.h"
#include "zelkeydecoder_p.h"
#include "zellinebuffer_p.h"
#include "zelscreenline_p.h"

#include <QString>

class ZELHistory;

/**
 * A prompt with a line behind it that is edited as the shells people use all day edit theirs: readline's keys, UTF-8,
 * search, hints, completion that lists and goes around, pasted blocks.
 *
 * Bytes of the keyboard in, bytes for the screen out; knows no stream. What is to be shown gathers until takeOutput(),
 * so that everything that arrived together is painted once. No control byte enters the line, but for the line feeds of
 * a pasted block. Not thread-safe: it belongs to the thread that reads the session's bytes. The history may be shared.
 */
class ZELPromptEditor
{
public:
    enum Event {
        None, ///< nothing to do beyond showing the output
        Line, ///< Enter: takeLine()
        Complete, ///< Tab: candidates are wanted, see offer()
        End, ///< Ctrl-D on an empty line
        Interrupt, ///< Ctrl-C: the line has been dropped
    };

    /// \a history is not owned and may be null.
    explicit ZELPromptEditor(ZELHistory *history = nullptr);

    /// The terminal's size; 0 for what is not known.
    void setSize(int columns, int rows);
    /// The prompt's last line; may hold colours.
    void setPrompt(const QByteArray &prompt);
    /// Whether the rest of the newest line that begins like this one is shown in grey. Off at first.
    void setHints(bool on) { m_hints = on; }

    Event feed(char byte);
    /// Takes the printable ASCII at the beginning of \a bytes, as feed() would byte by byte; how many that were.
    int feedPlain(const char *bytes, int length);

    /// Brings the screen up to date: prompt, line, cursor. Empty when nothing has changed.
    QByteArray takeOutput();
    /// Takes prompt and line off the screen, so that something else can be written there; takeOutput() shows them
    /// again.
    QByteArray hide();
    /// Says that the screen has nothing of the line any more, with the cursor at the beginning of a row.
    void forgetScreen();

    /// The line, one Latin-1 character for each byte; several lines of a pasted block with line feeds between them.
    QString takeLine();
    /// The line before the cursor, for the completer.
    QString textBeforeCursor() const;
    bool isEmpty() const { return m_buffer.isEmpty() && m_run.isEmpty(); }
    int size() const { return m_buffer.text().size() + m_run.size(); }

    /// Answers Complete: \a candidates for the word that begins at byte \a from.
    void offer(int from, const QVector<ZELCandidate> &candidates);

private:
    Event handle(ZELKey key);
    Event edit(ZELKey key);
    bool move(ZELKey key);
    bool change(ZELKey key);
    bool kill(ZELKey key);
    bool browse(ZELKey key);
    Event search(ZELKey key);
    Event accept();
    Event abandon();
    void leaveScreen();
    bool paste(ZELKey key);
    bool page(ZELKey key);
    void showPage(int rows);
    bool cycle(ZELKey key);
    void listCandidates();
    void lastArgument();
    void takeHint();
    QByteArray hint() const;
    void flushRun();
    void showHistory(bool back);
    void beginSearch(bool back);
    void endSearch(bool keep);

    ZELHistory *m_history;
    ZELKeyDecoder m_decoder;
    ZELLineBuffer m_buffer;
    ZELScreenLine m_screen;
    ZELHistorySearch m_search;
    ZELCandidates m_candidates;
    QByteArray m_prompt;
    QByteArray m_run; ///< typed characters that are not in the line yet
    QByteArray m_output;
    QVector<QByteArray> m_pages; ///< rows of a list that wait for a key
    ZELKey m_last = ZELKey::None;
    int m_argument = 0; ///< how many lines back the last Alt-. looked
    int m_argumentAt = 0;
    bool m_hints = false;
    bool m_pasting = false;
    bool m_isStale = true; ///< something is to be painted
    bool m_hasPasteMode = false;
};

#endif
