// SPDX-License-Identifier: MIT
#include "keys.h"
#include "screen.h"
#include "table.h"
#include "threads.h"
#include "zellineeditor_p.h"

#include <QRandomGenerator>
#include <QtTest>

namespace {

/// Types the bytes and returns what was written; lines and tabs are dropped. The output is taken after every byte, as
/// if each had arrived alone.
QByteArray type(ZELLineEditor &editor, const QByteArray &bytes)
{
    QByteArray output;
    for (const char byte : bytes) {
        if (editor.feed(byte) == ZELLineEditor::Line)
            editor.takeLine();
        output += editor.takeOutput();
    }
    return output;
}

} // namespace

class tst_ZELLineEditor : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void edits_data()
    {
        Table<QByteArray, QByteArray, QString, int> row("typed", "written", "line", "cursor");
        row("ab", "ab", "ab", 2);
        row("ab<left>X", "ab<left>Xb<left>", "aXb", 2);
        row("ab<left><right>", "ab<left><right>", "ab", 2);
        row("a<left><left><left>", "a<left>", "a", 0);
        row("a<left><bs>", "a<left>", "a", 0);
        row("ab<bs>", "ab<back> <left>", "a", 1);
        row("ab<ctrl-h><bs><bs>", "ab<back> <left><back> <left>", "", 0);
        row("abc<left><bs>", "abc<left><back>c <left><left>", "ac", 1);
        row("abcd<left><left><del>", "abcd<left><left><back>cd <left><left><left>", "acd", 1);
        row("<del>", "", "", 0);
        row("a<left><del>", "a<left>", "a", 0);
        row("ab<nl>c", "ab<nl>c", "c", 1);
        row("ab<left><nl>c", "ab<left><nl>c", "c", 1);
    }

    void edits()
    {
        QFETCH(QByteArray, typed);
        QFETCH(QByteArray, written);
        ZELLineEditor editor;
        QCOMPARE(type(editor, keys(typed)), keys(written));
        QTEST(editor.line(), "line");
        QTEST(editor.cursor(), "cursor");
    }

    void utf8_data()
    {
        Table<QByteArray, QByteArray, QByteArray> row("typed", "written", "line");
        row("two bytes, one step", "\u00e4b<left><left>X", "\u00e4b<left><left>X\u00e4b<left><left>", "X\u00e4b");
        row("backspace takes all bytes", "a\u20ac<bs>", "a\u20ac<back> <left>", "a");
        row("wide character", "\u4e2d<left><right><bs>", "\u4e2d<left><left><right><right><back><back>  <left><left>",
            "");
        row("combining mark", "e\u0301<left>", "e\u0301", "e\u0301");
        row("four bytes", "\U0001f600<bs>x", "\U0001f600<back><back>  <left><left>x", "x");
        row("incomplete stays out", "a\xe2\x82", "a", "a");
        row("incomplete, then another", "\xe2\xc3\xa4<bs>", "\xe2\xc3\xa4<back> <left>", "\xe2");
        row("incomplete, then a key", "\xe2\x82<bs>", "\xe2\x82<back> <left>", "\xe2");
        row("overlong", "\xc0\x80<bs>", "\xc0\x80<back> <left>", "\xc0");
        row("surrogate", "\xed\xa0\x80<bs><bs>", "\xed\xa0\x80<back> <left><back> <left>", "\xed");
        row("beyond Unicode", "\xf4\x90\x80\x80<left>", "\xf4\x90\x80\x80<left>", "\xf4\x90\x80\x80");
    }

    void utf8()
    {
        QFETCH(QByteArray, typed);
        QFETCH(QByteArray, written);
        ZELLineEditor editor;
        editor.setUtf8(true);
        QCOMPARE(type(editor, keys(typed)), keys(written));
        QTEST(editor.line().toLatin1(), "line");
    }

    void swallowed_data()
    {
        Table<QByteArray, QString> row("typed", "line");
        row("a<esc>xb", "ab");
        row("a<esc><nl>b", "ab");
        row("a<esc><esc>[Db", "a[Db");
        row("a<esc>[Hb", "ab");
        row("a<esc>[3;5~b", "ab");
        row("a<esc>[200~b<esc>[201~", "ab");
        row("a<esc>[?25hb", "ab");
        row("a<esc>[1<nl>b", "b");
        row("a<esc>[1<esc>[Db", "ba");
        row("a<esc>OPb", "ab");
        row("a<esc>O<nl>b", "b");
    }

    void swallowed()
    {
        QFETCH(QByteArray, typed);
        ZELLineEditor editor;
        type(editor, keys(typed));
        QTEST(editor.line(), "line");
    }

    void history_data()
    {
        Table<QByteArray, QByteArray, QString> row("typed", "written", "line");
        // The history holds "one" and "two".
        row("<up>", "two", "two");
        row("<up><up><up>", "two<back><back><back>one", "one");
        row("<down>", "", "");
        row("ab<up><down>", "ab<back><back>two<back><back><back>ab", "ab");
        row("ab<left><up>", "ab<left><right><back><back>two", "two");
        row("<up><down>", "two<back><back><back>", "");
        row("<up>x<up><down>", "twox<back><back><back><back>one<back><back><back>two", "two");
        row("<up><down><down>", "two<back><back><back>", "");
    }

    void history()
    {
        QFETCH(QByteArray, typed);
        QFETCH(QByteArray, written);
        ZELHistory history;
        history.add("one");
        history.add("two");
        ZELLineEditor editor(&history);
        QCOMPARE(type(editor, keys(typed)), keys(written));
        QTEST(editor.line(), "line");
        QCOMPARE(editor.cursor(), editor.line().size());
    }

    void historyKeepsOneOfEach()
    {
        ZELHistory history;
        ZELLineEditor editor(&history);
        QCOMPARE(type(editor, keys("<up><down>")), QByteArray());
        for (const char *line : {"a", "b", "a", "a", "c"})
            history.add(line);
        QCOMPARE(history.entries(), QStringList({"b", "a", "c"}));
        history.setLimit(2);
        history.add("d");
        QCOMPARE(history.entries(), QStringList({"c", "d"}));
        history.setLimit(0);
        history.add("e");
        QCOMPARE(history.entries(), QStringList());
        QCOMPARE(type(editor, keys("<up>")), QByteArray());
    }

    void historyChangesWhileBrowsing()
    {
        ZELHistory history;
        for (const char *line : {"a", "b", "c"})
            history.add(line);
        ZELLineEditor editor(&history);
        type(editor, keys("draft<up><up>"));
        QCOMPARE(editor.line(), QString("b"));
        history.add("b");
        type(editor, keys("<down>"));
        QCOMPARE(editor.line(), QString("b"));
        type(editor, keys("x<up><up><down><down>"));
        QCOMPARE(editor.line(), QString("bx"));
    }

    void historyFromManyThreads()
    {
        ZELHistory history;
        history.setLimit(50);
        Threads jobs(3, [&history](int job) {
            for (int i = 0; i < 2000; ++i)
                history.add(QString::number((i * 7 + job) % 80));
        });
        ZELLineEditor editor(&history);
        for (int i = 0; i < 2000; ++i)
            type(editor, keys("<up><up><down>"));
        jobs.join();
        QStringList entries = history.entries();
        QCOMPARE(entries.size(), 50);
        QCOMPARE(entries.removeDuplicates(), 0);
    }

    void everyByte()
    {
        const QByteArray special = keys("<nl><tab><esc><bs><ctrl-h>");
        for (int value = 0; value < 256; ++value) {
            const char byte = static_cast<char>(value);
            ZELLineEditor editor;
            editor.feed('a');
            editor.feed(byte);
            if (special.contains(byte))
                continue;
            QCOMPARE(editor.line(), QString("a") + QChar(value));
            QCOMPARE(editor.takeOutput(), QByteArray("a") + byte);
        }
    }

    void withoutTerminal()
    {
        ZELHistory history;
        history.add("earlier");
        ZELLineEditor editor(&history);
        editor.setTerminal(false);
        editor.setUtf8(true);
        QCOMPARE(ZELLineEditor().feed('\t'), ZELLineEditor::None); // nothing to complete
        for (const char byte : keys("a<tab><bs><ctrl-h><up>\xe2"))
            QCOMPARE(editor.feed(byte), ZELLineEditor::None);
        QCOMPARE(editor.line(), QString("a[A") + QChar(0xe2));
        editor.append("x");
        editor.redraw();
        QCOMPARE(editor.feed('\n'), ZELLineEditor::Line);
        QCOMPARE(editor.takeOutput(), QByteArray());
    }

    void appendAndRedraw()
    {
        ZELLineEditor editor;
        type(editor, keys("demo/h<left>"));
        editor.append("ello");
        QCOMPARE(editor.takeOutput(), keys("<right>ello"));
        QCOMPARE(editor.line(), QString("demo/hello"));
        type(editor, keys("<left><left>"));
        editor.redraw();
        QCOMPARE(editor.takeOutput(), keys("demo/hello<left><left>"));
        editor.setUtf8(true);
        editor.append(QString::fromUtf8("\u00e4"));
        QCOMPARE(editor.text(), QString::fromUtf8("demo/hello\u00e4"));
        QCOMPARE(editor.line().size(), 12);
    }

    /// After any keys the screen holds the line, and the cursor stands where the next character goes.
    void screenShowsTheLine()
    {
        QRandomGenerator random(20);
        for (int round = 0; round < 120; ++round) {
            const bool utf8 = round % 2;
            const int together = round % 3 ? 1 : 30; // keys before the output is taken
            const QList<QByteArray> pressed = {"a", "b", "/", " ", "<left>", "<left>", "<right>", "<bs>", "<del>",
                "<up>", "<down>", "<esc>[H", utf8 ? "\u00e4" : "c", utf8 ? "\u4e2d" : "d"};
            ZELHistory history;
            history.add(round % 2 ? QString("short") : QString(700, 's'));
            history.add("a longer line");
            ZELLineEditor editor(&history);
            editor.setUtf8(utf8);
            Screen screen(1000, 1, utf8);
            for (int i = 0; i < 60; ++i) {
                for (int n = random.bounded(together); n >= 0; --n)
                    for (const char byte : keys(pressed.at(random.bounded(pressed.size()))))
                        editor.feed(byte);
                screen.feed(editor.takeOutput());
                const QString left = QString::fromUtf8(editor.line().left(editor.cursor()).toLatin1());
                QString shown = editor.text();
                while (shown.endsWith(' '))
                    shown.chop(1);
                QCOMPARE(screen.row(0), shown);
                QCOMPARE(screen.cursor().x(), left.size() + left.count(QString::fromUtf8("\u4e2d")));
            }
        }
    }

    /// What arrives together is echoed in proportion to the line, and shows the same.
    void runsAreEchoedOnce_data()
    {
        const QByteArray line(300, 'x'), wide = QByteArray("\u4e2d\u00e4").repeated(60);
        const auto times = [](const char *typed, int n) { return QByteArray(typed).repeated(n); };
        Table<QByteArray, int> row("typed", "largest");
        row("insert", times("x", 100) + times("<left>", 100) + times("y", 200), 1000);
        row("erase", line + times("<left>", 100) + times("<bs>", 150), 300 + 300 + 450 + 1000);
        row("insert and erase", line + times("<left>", 100) + times("ab<bs><bs><bs>c", 90), 9000);
        row("erase and insert", line + times("<left>", 2) + times("<bs><bs><bs>abcdefg<bs>", 9), 3000);
        row("move", line + times("<left>y", 250), 12000);
        row("there and back", wide + times("<left><left>\u00fc<right><bs>", 200), 12000);
        row("history", wide + times("<left><up><up>z<bs><down><down>", 200), 12000);
        row("lines", times("<up><left>y<up><nl>", 20), 60000);
    }

    void runsAreEchoedOnce()
    {
        QFETCH(QByteArray, typed);
        const QByteArray bytes = keys(typed);
        ZELHistory history;
        history.add(QString(400, 'h'));
        history.add(QString::fromLatin1(QByteArray("\u4e2d.").repeated(99)));
        ZELLineEditor editor(&history);
        editor.setUtf8(true);
        Screen screen(3000, 25, true);
        for (int i = 0; i < bytes.size(); ++i) {
            if (int taken = editor.feedPlain(bytes.constData() + i, bytes.size() - i))
                i += taken - 1;
            else if (editor.feed(bytes[i]) == ZELLineEditor::Line)
                editor.takeLine();
        }
        const QByteArray output = editor.takeOutput();
        QFETCH(int, largest);
        QVERIFY2(output.size() <= largest, QByteArray::number(output.size()));
        screen.feed(QByteArray(output).replace('\n', "\r\n"));
        const int row = bytes.count('\n');
        QCOMPARE(screen.row(row), editor.text().trimmed());
        const QString left = QString::fromUtf8(editor.line().left(editor.cursor()).toLatin1());
        QCOMPARE(screen.cursor().x(), left.size() + left.count(QString::fromUtf8("\u4e2d")));
    }

    void longLine()
    {
        ZELLineEditor editor;
        for (int i = 0; i < 1 << 20; ++i)
            editor.feed(static_cast<char>('a' + i % 26));
        QCOMPARE(editor.takeOutput().size(), 1 << 20);
        for (int i = 0; i < 1000; ++i)
            editor.feed('\177');
        QCOMPARE(editor.line().size(), (1 << 20) - 1000);
        QCOMPARE(editor.takeOutput().size(), 1000 * 7);
    }
};

QTEST_APPLESS_MAIN(tst_ZELLineEditor)
#include "tst_zellineeditor.moc"
