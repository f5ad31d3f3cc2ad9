// SPDX-License-Identifier: MIT
#include "zelprompteditor_p.h"

#include "zelgrapheme_p.h"
#include "zellineeditor_p.h"

#include <algorithm>
#include <utility>

namespace {

constexpr char moreText[] = "--More--";
constexpr char pasteModeOn[] = "\033[?2004h";
constexpr char pasteModeOff[] = "\033[?2004l";

bool isPlain(char byte)
{
    return byte >= ' ' && byte <= '~';
}

bool isKill(ZELKey key)
{
    return key == ZELKey::KillBlankWordBack || key == ZELKey::KillWordBack || key == ZELKey::KillWord
        || key == ZELKey::KillToStart || key == ZELKey::KillToEnd;
}

/// The last word of a line; what stands in quotes is part of one.
QByteArray lastWord(const QString &line)
{
    const QByteArray bytes = line.toLatin1().trimmed();
    int begin = 0;
    char quote = 0;
    for (int i = 0; i < bytes.size(); ++i) {
        const char byte = bytes.at(i);
        if (quote != 0)
            quote = byte == quote ? 0 : quote;
        else if (byte == '"' || byte == '\'')
            quote = byte;
        else if (byte == ' ')
            begin = i + 1;
    }
    return bytes.mid(begin);
}

} // namespace

ZELPromptEditor::ZELPromptEditor(ZELHistory *history)
    : m_history(history)
{
}

void ZELPromptEditor::setSize(int columns, int rows)
{
    m_isStale = m_isStale || columns != m_screen.columns();
    m_screen.setSize(columns, rows);
}

void ZELPromptEditor::setPrompt(const QByteArray &prompt)
{
    m_isStale = m_isStale || prompt != m_prompt;
    m_prompt = prompt;
}

int ZELPromptEditor::feedPlain(const char *bytes, int length)
{
    if (m_decoder.isHolding() || m_search.isActive() || !m_pages.isEmpty())
        return 0;
    const int taken = int(std::find_if_not(bytes, bytes + length, isPlain) - bytes);
    if (taken == 0)
        return 0;
    m_run.append(bytes, taken);
    m_decoder.reset(); // a carriage return before it has nothing to do with what follows
    m_candidates.clear();
    m_last = ZELKey::Text;
    return taken;
}

ZELPromptEditor::Event ZELPromptEditor::feed(char byte)
{
    const ZELKey key = m_decoder.feed(byte);
    const int again = m_decoder.takeAgain();
    return again < 0 ? handle(key) : feed(char(again));
}

ZELPromptEditor::Event ZELPromptEditor::handle(ZELKey key)
{
    if (key == ZELKey::None)
        return None;
    m_isStale = true;
    if (key == ZELKey::Resize) {
        setSize(m_decoder.columns(), m_decoder.rows());
        return None;
    }
    if (page(key) || paste(key))
        return None;
    if (m_search.isActive())
        return search(key);
    if (key == ZELKey::Text)
        m_run += m_decoder.text();
    else
        flushRun();
    if (cycle(key))
        return None;
    m_candidates.clear();
    const Event event = key == ZELKey::Text ? None : edit(key);
    m_last = key;
    return event;
}

/// Typed characters enter the line in one piece: however many come, what stands behind them moves once.
void ZELPromptEditor::flushRun()
{
    if (m_run.isEmpty())
        return;
    m_isStale = true;
    const QByteArray run = std::exchange(m_run, QByteArray());
    int from = 0;
    if (!m_buffer.isAtEnd()) // the first one may join what follows; the others do not
        m_buffer.insert(run.left(from = zelGraphemeAt(run, 0).length), !m_pasting);
    // Each word is a step of its own for undo.
    for (int at = from + 1; !m_pasting && at < run.size() && run.size() < 4096; ++at)
        if (run.at(at - 1) == ' ' && run.at(at) != ' ') {
            m_buffer.insert(run.mid(from, at - from), true);
            from = at;
        }
    if (from < run.size())
        m_buffer.insert(run.mid(from), !m_pasting);
}

ZELPromptEditor::Event ZELPromptEditor::edit(ZELKey key)
{
    switch (key) {
    case ZELKey::Enter:
        return accept();
    case ZELKey::Interrupt:
        return abandon();
    case ZELKey::Tab:
        return Complete;
    case ZELKey::DeleteOrEnd:
        if (m_buffer.isEmpty())
            return End;
        m_buffer.eraseForward();
        return None;
    case ZELKey::ClearScreen:
        m_output += "\033[H\033[2J";
        m_screen.forget();
        return None;
    case ZELKey::SearchBack:
    case ZELKey::SearchForward:
        beginSearch(key == ZELKey::SearchBack);
        return None;
    default:
        move(key) || change(key) || kill(key) || browse(key);
        return None;
    }
}

bool ZELPromptEditor::move(ZELKey key)
{
    const bool takesHint = m_buffer.isAtEnd() && (key == ZELKey::Right || key == ZELKey::End);
    if (takesHint)
        takeHint();
    else if (key == ZELKey::Left)
        m_buffer.left();
    else if (key == ZELKey::Right)
        m_buffer.right();
    else if (key == ZELKey::Home)
        m_buffer.home();
    else if (key == ZELKey::End)
        m_buffer.end();
    else if (key == ZELKey::WordLeft)
        m_buffer.moveTo(m_buffer.wordLeft());
    else if (key == ZELKey::WordRight)
        m_buffer.moveTo(m_buffer.wordRight());
    else
        return false;
    return true;
}

bool ZELPromptEditor::change(ZELKey key)
{
    if (key == ZELKey::Backspace)
        m_buffer.eraseBack();
    else if (key == ZELKey::Delete)
        m_buffer.eraseForward();
    else if (key == ZELKey::Transpose)
        m_buffer.transpose();
    else if (key == ZELKey::Yank)
        m_buffer.yank();
    else if (key == ZELKey::YankEarlier)
        (m_last == ZELKey::Yank || m_last == ZELKey::YankEarlier) && m_buffer.yankEarlier();
    else if (key == ZELKey::Undo)
        m_buffer.undo();
    else
        return false;
    return true;
}

bool ZELPromptEditor::kill(ZELKey key)
{
    if (!isKill(key))
        return false;
    const int place = key == ZELKey::KillToStart ? 0
        : key == ZELKey::KillToEnd               ? m_buffer.text().size()
        : key == ZELKey::KillWord                ? m_buffer.wordRight()
        : key == ZELKey::KillWordBack            ? m_buffer.wordLeft()
                                                 : m_buffer.blankWordLeft();
    m_buffer.killTo(place, isKill(m_last));
    return true;
}

bool ZELPromptEditor::browse(ZELKey key)
{
    if (key == ZELKey::Up || key == ZELKey::Down)
        showHistory(key == ZELKey::Up);
    else if (key == ZELKey::LastArgument)
        lastArgument();
    else
        return false;
    return true;
}

void ZELPromptEditor::showHistory(bool back)
{
    QString entry;
    const QString current = QString::fromLatin1(m_buffer.text());
    if (m_history && (back ? m_history->stepBack(current, &entry) : m_history->stepForward(&entry)))
        m_buffer.replace(entry.toLatin1());
}

void ZELPromptEditor::lastArgument()
{
    const QStringList entries = m_history ? m_history->entries() : QStringList();
    const bool repeated = m_last == ZELKey::LastArgument && m_argument > 0;
    const int back = repeated ? m_argument + 1 : 1;
    if (back > entries.size())
        return;
    if (!repeated)
        m_argumentAt = m_buffer.cursor();
    m_argument = back;
    m_buffer.replace(m_argumentAt, m_buffer.cursor() - m_argumentAt, lastWord(entries.at(entries.size() - back)));
}

QByteArray ZELPromptEditor::hint() const
{
    if (!m_hints || !m_history || m_buffer.isEmpty() || !m_buffer.isAtEnd() || m_search.isActive())
        return QByteArray();
    const QStringList entries = m_history->entries();
    const QLatin1String begun(m_buffer.text().constData(), m_buffer.text().size());
    const auto found = std::find_if(entries.crbegin(), entries.crend(),
        [&](const QString &entry) { return entry.size() > begun.size() && entry.startsWith(begun); });
    return found == entries.crend() ? QByteArray() : found->mid(begun.size()).toLatin1();
}

void ZELPromptEditor::takeHint()
{
    const QByteArray rest = hint();
    if (!rest.isEmpty())
        m_buffer.insert(rest);
}

ZELPromptEditor::Event ZELPromptEditor::accept()
{
    leaveScreen();
    return Line;
}

ZELPromptEditor::Event ZELPromptEditor::abandon()
{
    leaveScreen();
    m_buffer.take();
    return Interrupt;
}

/// Shows the whole line once more, and takes the cursor to a row behind it.
void ZELPromptEditor::leaveScreen()
{
    const QByteArray text = m_buffer.text();
    m_screen.setPrompt(m_prompt);
    m_output += m_screen.paint(text, text.size(), m_buffer.takeChange());
    m_output += m_screen.leave(text);
    if (std::exchange(m_hasPasteMode, false))
        m_output += pasteModeOff;
}

bool ZELPromptEditor::paste(ZELKey key)
{
    if (key == ZELKey::PasteBegin || key == ZELKey::PasteEnd) {
        flushRun();
        m_pasting = key == ZELKey::PasteBegin;
        return true;
    }
    if (!m_pasting)
        return false;
    if (key == ZELKey::Text)
        m_run += m_decoder.text();
    else if (key == ZELKey::Enter)
        m_run += '\n';
    else if (key == ZELKey::Tab)
        m_run += ' ';
    return true;
}

void ZELPromptEditor::beginSearch(bool back)
{
    m_search.begin(m_history ? m_history->entries() : QStringList(), m_buffer.text(), back);
}

void ZELPromptEditor::endSearch(bool keep)
{
    if (keep && m_search.line() != m_buffer.text()) {
        const int place = m_search.place();
        m_buffer.replace(m_search.line());
        m_buffer.moveTo(place);
    }
    m_search.end();
}

ZELPromptEditor::Event ZELPromptEditor::search(ZELKey key)
{
    if (key == ZELKey::Text)
        m_search.extend(m_decoder.text());
    else if (key == ZELKey::Backspace)
        m_search.shorten();
    else if (key == ZELKey::SearchBack || key == ZELKey::SearchForward)
        m_search.again(key == ZELKey::SearchBack);
    else {
        endSearch(key != ZELKey::Cancel && key != ZELKey::Interrupt);
        return key == ZELKey::Cancel || key == ZELKey::Interrupt ? None : handle(key);
    }
    return None;
}

void ZELPromptEditor::offer(int from, const QVector<ZELCandidate> &candidates)
{
    m_candidates.set(from, candidates);
    const QByteArray begun = m_buffer.text().mid(from, m_buffer.cursor() - from);
    const QByteArray common = m_candidates.common();
    m_isStale = true;
    if (candidates.size() == 1 || (common.size() > begun.size() && common.startsWith(begun)))
        m_buffer.replace(from, begun.size(), common);
    else if (!candidates.isEmpty())
        listCandidates();
    if (!m_candidates.isListed())
        m_candidates.clear();
}

void ZELPromptEditor::listCandidates()
{
    const int columns = m_screen.columns() == 0 ? 80 : m_screen.columns();
    m_pages = m_candidates.list(columns);
    leaveScreen();
    showPage(m_screen.rows() == 0 ? m_pages.size() : m_screen.rows() - 1);
}

void ZELPromptEditor::showPage(int rows)
{
    for (; rows > 0 && !m_pages.isEmpty(); --rows)
        m_output += m_pages.takeFirst() + "\r\n";
    if (!m_pages.isEmpty())
        m_output += moreText;
}

/// A key while a list waits: a blank or Tab for a page, Enter for a row; any other ends it.
bool ZELPromptEditor::page(ZELKey key)
{
    if (m_pages.isEmpty())
        return false;
    const bool isBlank = key == ZELKey::Tab || (key == ZELKey::Text && m_decoder.text() == " ");
    m_output += "\r\033[K";
    if (!isBlank && key != ZELKey::Enter)
        m_pages.clear();
    showPage(isBlank ? m_screen.rows() - 1 : 1);
    return true;
}

bool ZELPromptEditor::cycle(ZELKey key)
{
    if (!m_candidates.isListed() || (key != ZELKey::Tab && key != ZELKey::BackTab))
        return false;
    const int from = m_candidates.from();
    m_buffer.replace(from, m_buffer.cursor() - from, m_candidates.next(key == ZELKey::BackTab));
    return true;
}

QByteArray ZELPromptEditor::takeOutput()
{
    flushRun();
    if (m_isStale && m_pages.isEmpty()) {
        m_isStale = false;
        if (!std::exchange(m_hasPasteMode, true))
            m_output += pasteModeOn;
        m_screen.setPrompt(m_search.isActive() ? m_search.prompt() : m_prompt);
        if (m_search.isActive())
            m_output += m_screen.paint(m_search.line(), m_search.place(), 0);
        else
            m_output += m_screen.paint(m_buffer.text(), m_buffer.cursor(), m_buffer.takeChange(), hint());
    }
    return std::exchange(m_output, QByteArray());
}

QByteArray ZELPromptEditor::hide()
{
    m_isStale = true;
    return std::exchange(m_output, QByteArray()) + m_screen.erase();
}

void ZELPromptEditor::forgetScreen()
{
    m_isStale = true;
    m_screen.forget();
}

QString ZELPromptEditor::takeLine()
{
    flushRun();
    m_isStale = true;
    m_candidates.clear();
    const QByteArray taken = m_buffer.take();
    return QString::fromLatin1(taken.constData(), taken.size());
}

QString ZELPromptEditor::textBeforeCursor() const
{
    const QByteArray before = m_buffer.text().left(m_buffer.cursor());
    return QString::fromUtf8(before.constData(), before.size());
}
