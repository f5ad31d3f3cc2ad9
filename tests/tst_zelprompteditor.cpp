// SPDX-License-Identifier: MIT
#include "screen.h"
#include "table.h"
#include "zelgrapheme_p.h"
#include "zellineeditor_p.h"
#include "zelprompteditor_p.h"

#include <QRandomGenerator>
#include <QtTest>

namespace {

const QByteArray prompt = "$ ";

/// Keys by the names that people give them: "C-a", "M-b", "Left"; a text otherwise.
QByteArray bytesOf(const QByteArray &name)
{
    static const QHash<QByteArray, QByteArray> names{{"Left", "\033[D"}, {"Right", "\033[C"}, {"Up", "\033[A"},
        {"Down", "\033[B"}, {"Home", "\033[H"}, {"End", "\033[F"}, {"Del", "\033[3~"}, {"BS", "\177"}, {"Enter", "\r"},
        {"Tab", "\t"}, {"S-Tab", "\033[Z"}, {"C-Left", "\033[1;5D"}, {"C-Right", "\033[1;5C"}, {"Space", " "},
        {"M-BS", "\033\177"}, {"C-_", "\037"}, {"Esc", "\033"}, {"Paste", "\033[200~"}, {"EndPaste", "\033[201~"}};
    if (names.contains(name))
        return names.value(name);
    if (name.size() == 3 && name.startsWith("C-"))
        return QByteArray(1, char(name.at(2) & 0x1f));
    return name.size() == 3 && name.startsWith("M-") ? "\033" + name.mid(2) : name;
}

struct Player
{
    explicit Player(int columns = 80, int rows = 24)
        : screen(columns, rows, true)
        , rowCount(rows)
    {
        editor.setSize(columns, rows);
        editor.setPrompt(prompt);
        screen.feed(editor.takeOutput());
    }

    void bytes(const QByteArray &all)
    {
        for (const char byte : all) {
            event = editor.feed(byte);
            if (event != ZELPromptEditor::None)
                seen(event);
        }
    }

    /// Plays keys separated by blanks, each painted by itself.
    void play(const QByteArray &keys)
    {
        for (const QByteArray &key : keys.split(' ')) {
            bytes(bytesOf(key));
            screen.feed(editor.takeOutput());
        }
    }

    void seen(ZELPromptEditor::Event what)
    {
        if (what == ZELPromptEditor::Line)
            lines += editor.takeLine();
        else if (what == ZELPromptEditor::Complete)
            editor.offer(0, candidates);
    }

    /// The line with a bar where the cursor stands.
    QString state() const
    {
        const QString before = editor.textBeforeCursor();
        ZELPromptEditor copy = editor;
        const QByteArray line = copy.takeLine().toLatin1();
        return before + QLatin1Char('|') + QString::fromUtf8(line.mid(before.toUtf8().size()));
    }

    ZELHistory history;
    ZELPromptEditor editor{&history};
    Screen screen;
    int rowCount;
    QVector<ZELCandidate> candidates;
    QStringList lines;
    ZELPromptEditor::Event event = ZELPromptEditor::None;
};

/// Where the cursor is before \a rest on a terminal that got prompt and \a before in one piece.
QPoint plainCursor(int columns, const QByteArray &before, const QByteArray &rest)
{
    QPoint at;
    const QByteArray text = prompt + before + (rest.isEmpty() ? QByteArray("x") : rest);
    for (int i = 0; i <= prompt.size() + before.size();) {
        const ZELGrapheme next = zelGraphemeAt(text, i);
        if (at.x() + next.width > columns)
            at = {0, at.y() + 1};
        if (i == prompt.size() + before.size())
            return at;
        at.rx() += next.width;
        i += next.length;
    }
    return at;
}

/// Holds the screen against one that got the line as it is.
void compareWithPlain(const Player &player, int columns, const QString &state)
{
    const QStringList parts = state.split(QLatin1Char('|'));
    Screen plain(columns, player.rowCount, true);
    plain.feed(prompt + parts.join(QString()).toUtf8());
    QCOMPARE(player.screen.rows(), plain.rows());
    QCOMPARE(player.screen.cursor(), plainCursor(columns, parts.at(0).toUtf8(), parts.at(1).toUtf8()));
}

} // namespace

class tst_ZELPromptEditor : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void keys_data();
    void keys();
    void screens_data();
    void screens();
    void randomKeys();
    void lines();
    void completes();
    void longLine();
};

// Each row: what readline (emacs mode) makes of the keys; the bar is the cursor.
void tst_ZELPromptEditor::keys_data()
{
    Table<QByteArray, QString> row("typed", "line");
    // typing and moving
    row("a b", QStringLiteral("ab|"));
    row("a b Left X", QStringLiteral("aX|b"));
    row("a b C-b X", QStringLiteral("aX|b"));
    row("a b Left Right X", QStringLiteral("abX|"));
    row("a b C-b C-f X", QStringLiteral("abX|"));
    row("a b Left Left Left X", QStringLiteral("X|ab"));
    row("a b Right X", QStringLiteral("abX|"));
    row("ab C-a X", QStringLiteral("X|ab"));
    row("ab Home X", QStringLiteral("X|ab"));
    row("ab C-a C-e X", QStringLiteral("abX|"));
    row("ab Home End X", QStringLiteral("abX|"));
    row("ab \033[1~ X", QStringLiteral("X|ab"));
    row("ab \033[7~ X", QStringLiteral("X|ab"));
    row("ab \033OH X", QStringLiteral("X|ab"));
    row("ab \033[1~ \033[4~ X", QStringLiteral("abX|"));
    row("ab \033[1~ \033[8~ X", QStringLiteral("abX|"));
    row("ab \033OH \033OF X", QStringLiteral("abX|"));
    row("ab \033OD X", QStringLiteral("aX|b"));
    row("ab \033OD \033OC X", QStringLiteral("abX|"));
    row("ab \033[1;2D X", QStringLiteral("aX|b"));
    // words
    row("ab Space cd M-b X", QStringLiteral("ab X|cd"));
    row("ab Space cd M-b M-b X", QStringLiteral("X|ab cd"));
    row("ab Space cd M-b M-b M-b X", QStringLiteral("X|ab cd"));
    row("ab Space cd C-Left X", QStringLiteral("ab X|cd"));
    row("ab Space cd \033[5D X", QStringLiteral("ab X|cd"));
    row("ab Space cd \033Od X", QStringLiteral("ab X|cd"));
    row("ab Space cd \033[1;3D X", QStringLiteral("ab X|cd"));
    row("ab Space cd \033\033[D X", QStringLiteral("ab X|cd"));
    row("ab Space cd C-a M-f X", QStringLiteral("abX| cd"));
    row("ab Space cd C-a M-f M-f X", QStringLiteral("ab cdX|"));
    row("ab Space cd C-a C-Right X", QStringLiteral("abX| cd"));
    row("ab Space cd C-a \033Oc X", QStringLiteral("abX| cd"));
    row("ab Space cd C-a \033[1;5C M-f M-f X", QStringLiteral("ab cdX|"));
    row("a/b.c M-b X", QStringLiteral("a/b.X|c"));
    row("a/b.c M-b M-b X", QStringLiteral("a/X|b.c"));
    row("a/b.c C-a M-f X", QStringLiteral("aX|/b.c"));
    row("ab Space Space Space M-b X", QStringLiteral("X|ab   "));
    row("--ab C-a M-f X", QStringLiteral("--abX|"));
    // erasing
    row("ab BS", QStringLiteral("a|"));
    row("ab C-h", QStringLiteral("a|"));
    row("ab BS BS BS", QStringLiteral("|"));
    row("ab Left BS", QStringLiteral("|b"));
    row("ab Left Del", QStringLiteral("a|"));
    row("ab Del", QStringLiteral("ab|"));
    row("ab C-a C-d", QStringLiteral("|b"));
    row("ab C-a Del Del Del", QStringLiteral("|"));
    row("ab C-a BS", QStringLiteral("|ab"));
    row("ab Left C-d", QStringLiteral("a|"));
    row("abc Left Left \033[3~", QStringLiteral("a|c"));
    row("ab Space cd Left \033[3;5~", QStringLiteral("ab c|"));
    // cutting and putting back
    row("ab Space cd C-w", QStringLiteral("ab |"));
    row("ab Space cd C-w C-w", QStringLiteral("|"));
    row("a/b.c C-w", QStringLiteral("|"));
    row("ab Space a/b.c C-w X", QStringLiteral("ab X|"));
    row("ab Space cd Space Space C-w", QStringLiteral("ab |"));
    row("a/b.c M-BS", QStringLiteral("a/b.|"));
    row("a/b.c M-BS M-BS", QStringLiteral("a/|"));
    row("a/b.c \033\x08", QStringLiteral("a/b.|"));
    row("ab Space cd C-a M-d", QStringLiteral("| cd"));
    row("ab Space cd C-a M-d M-d", QStringLiteral("|"));
    row("ab Space cd C-a M-d C-y", QStringLiteral("ab| cd"));
    row("ab Space cd C-a M-d M-d C-y", QStringLiteral("ab cd|"));
    row("ab Space cd C-w C-w C-y", QStringLiteral("ab cd|"));
    row("ab Space cd C-w BS C-w C-y", QStringLiteral("ab|"));
    row("ab Space cd C-u", QStringLiteral("|"));
    row("ab Space cd Left C-u", QStringLiteral("|d"));
    row("ab Space cd Left C-u C-y", QStringLiteral("ab c|d"));
    row("ab Space cd C-a C-k", QStringLiteral("|"));
    row("ab Space cd C-b C-k", QStringLiteral("ab c|"));
    row("ab Space cd C-b C-k C-y C-y", QStringLiteral("ab cdd|"));
    row("ab C-k", QStringLiteral("ab|"));
    row("C-y a", QStringLiteral("a|"));
    row("ab C-a C-k C-e C-y C-a C-y", QStringLiteral("ab|ab"));
    row("ab C-u cd C-u C-y", QStringLiteral("cd|"));
    row("ab C-u cd C-u C-y M-y", QStringLiteral("ab|"));
    row("ab C-u cd C-u C-y M-y M-y", QStringLiteral("cd|"));
    row("ab C-u cd C-u M-y x", QStringLiteral("x|"));
    row("ab C-u cd C-u C-y x M-y", QStringLiteral("cdx|"));
    row("ab Left C-u C-k C-y", QStringLiteral("ab|"));
    // swapping
    row("ab C-t", QStringLiteral("ba|"));
    row("abc Left C-t", QStringLiteral("acb|"));
    row("abc Left Left C-t", QStringLiteral("ba|c"));
    row("abc C-a C-t", QStringLiteral("|abc"));
    row("a C-t", QStringLiteral("a|"));
    row("C-t a", QStringLiteral("a|"));
    row("ab C-t C-t", QStringLiteral("ab|"));
    // undo
    row("ab C-_", QStringLiteral("|"));
    row("ab Space cd C-_", QStringLiteral("ab |"));
    row("ab Space cd C-_ C-_", QStringLiteral("|"));
    row("ab Space cd C-_ C-_ C-_ x", QStringLiteral("x|"));
    row("ab C-u C-_", QStringLiteral("ab|"));
    row("ab BS C-_", QStringLiteral("ab|"));
    row("ab Space cd C-w C-_", QStringLiteral("ab cd|"));
    row("ab Left C-k C-_", QStringLiteral("a|b"));
    row("ab C-t C-_", QStringLiteral("ab|"));
    row("ab C-a x C-_", QStringLiteral("|ab"));
    row("C-_ a", QStringLiteral("a|"));
    // what is not a key of the editor
    row("a \033[15~ b", QStringLiteral("ab|"));
    row("a \033[[A b", QStringLiteral("ab|"));
    row("a \033[1;2P b", QStringLiteral("ab|"));
    row("a \033OP b", QStringLiteral("ab|"));
    row("a \033[I b", QStringLiteral("ab|"));
    row("a \033[O b", QStringLiteral("ab|"));
    row("a \033[12;40R b", QStringLiteral("ab|"));
    row("a \033[?1;2c b", QStringLiteral("ab|"));
    row("a \033[<0;10;10M b", QStringLiteral("ab|"));
    row("a \033[M!!! b", QStringLiteral("ab|"));
    row("a \033[24;5~ b", QStringLiteral("ab|"));
    row("a \033]0;title\x07 b", QStringLiteral("ab|"));
    row("a \033]0;title\033\\ b", QStringLiteral("ab|"));
    row("a \033P1$r0m\033\\ b", QStringLiteral("ab|"));
    row("a \033[99999999999999999999~ b", QStringLiteral("ab|"));
    row("a \033[;;;;~ b", QStringLiteral("ab|"));
    row("a \033x b", QStringLiteral("ab|"));
    row("a \0331 b", QStringLiteral("ab|"));
    row("a C-o C-q b", QStringLiteral("ab|"));
    row("a C-v C-z b", QStringLiteral("ab|"));
    row("a C-@ b", QStringLiteral("ab|"));
    row("a \x1c \x1d \x1e b", QStringLiteral("ab|"));
    row("a C-g b", QStringLiteral("ab|"));
    row("a \xc2\x85 b", QStringLiteral("ab|"));
    row("a \x85 b", QStringLiteral("ab|"));
    row("a \xc2 b", QStringLiteral("ab|"));
    row("a \xe2\x82 b", QStringLiteral("ab|"));
    row("a \xff b", QStringLiteral("a\ufffdb|"));
    // a key ends a torn sequence and counts
    row("ab \033[\x01 X", QStringLiteral("X|ab"));
    row("ab \033[3\x01 X", QStringLiteral("X|ab"));
    row("ab \033O\x01 X", QStringLiteral("X|ab"));
    row("ab \033]0;t\x01 X", QStringLiteral("X|ab"));
    row("ab \xc3\x01 X", QStringLiteral("X|ab"));
    // characters as a person sees them
    row("\u00e4 b Left Left X", QStringLiteral("X|\u00e4b"));
    row("\u00e4 b BS BS", QStringLiteral("|"));
    row("\u4e2d\u6587 Left X", QStringLiteral("\u4e2dX|\u6587"));
    row("\u4e2d\u6587 BS", QStringLiteral("\u4e2d|"));
    row("\u4e2d\u6587 C-a Del", QStringLiteral("|\u6587"));
    row("a\u4e2db\u6587c C-a Right Right X", QStringLiteral("a\u4e2dX|b\u6587c"));
    row("e\u0301 x Left Left X", QStringLiteral("X|e\u0301x"));
    row("e\u0301 BS", QStringLiteral("|"));
    row("xe\u0301 BS", QStringLiteral("x|"));
    row("e\u0301 C-a Del", QStringLiteral("|"));
    row("a e\u0301 C-t", QStringLiteral("e\u0301a|"));
    row("\u4e2da C-t", QStringLiteral("a\u4e2d|"));
    row("e C-a x Right \u0301 BS", QStringLiteral("x|"));
    row("x \u200b y BS BS", QStringLiteral("x|"));
    row("\U0001f600 a Left Left X", QStringLiteral("X|\U0001f600a"));
    row("\U0001f600 BS", QStringLiteral("|"));
    row("\u0e01\u0e33 x Left BS", QStringLiteral("|x"));
    row("\u00e4\u00f6 Space \u00fc M-b X", QStringLiteral("\u00e4\u00f6 X|\u00fc"));
    row("\u4e2d\u6587 M-b X", QStringLiteral("X|\u4e2d\u6587"));
    row("\u00e4\u00f6 Space \u00fc C-w", QStringLiteral("\u00e4\u00f6 |"));
    row("\uac00\u11a8 BS", QStringLiteral("|"));
    // long lines, wrapped at 20 and at 2 columns
    row("abcdefghijklmnopqr", QStringLiteral("abcdefghijklmnopqr|"));
    row("abcdefghijklmnopqr Left", QStringLiteral("abcdefghijklmnopq|r"));
    row("abcdefghijklmnopqr X", QStringLiteral("abcdefghijklmnopqrX|"));
    row("abcdefghijklmnopqr X BS", QStringLiteral("abcdefghijklmnopqr|"));
    row("abcdefghijklmnopqr BS", QStringLiteral("abcdefghijklmnopq|"));
    row("abcdefghijklmnopqr C-a X", QStringLiteral("X|abcdefghijklmnopqr"));
    row("abcdefghijklmnopqrs C-a C-k", QStringLiteral("|"));
    row("abcdefghijklmnopqrstuvwxyz Left Left X", QStringLiteral("abcdefghijklmnopqrstuvwxX|yz"));
    row("abcdefghijklmnopqrstuvwxyz C-a C-e X", QStringLiteral("abcdefghijklmnopqrstuvwxyzX|"));
    row("abcdefghijklmnopqrstuvwxyz C-a Del", QStringLiteral("|bcdefghijklmnopqrstuvwxyz"));
    row("abcdefghijklmnopqrstuvwxyz C-w", QStringLiteral("|"));
    row("abcdefghijklmnopqrstuvwxyz C-u C-y", QStringLiteral("abcdefghijklmnopqrstuvwxyz|"));
    row("abcdefghijklmnopq \u4e2d", QStringLiteral("abcdefghijklmnopq\u4e2d|"));
    row("abcdefghijklmnopqr \u4e2d BS", QStringLiteral("abcdefghijklmnopqr|"));
    row("abcdefghijklmnopq \u4e2d\u6587 C-a X", QStringLiteral("X|abcdefghijklmnopq\u4e2d\u6587"));
    row("\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d x",
        QStringLiteral("\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2dx|"));
    row("a\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d Left X",
        QStringLiteral("a\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2dX|\u4e2d"));
    row("abcdefghijklmnopq e\u0301 x Left Left Left BS", QStringLiteral("abcdefghijklmno|qe\u0301x"));
    // history and arguments; the lines before were "one two", "three 'fo ur'", "one five"
    row("Up", QStringLiteral("one five|"));
    row("Up Up", QStringLiteral("three 'fo ur'|"));
    row("Up Up Up Up", QStringLiteral("one two|"));
    row("Up Down", QStringLiteral("|"));
    row("x Up Down", QStringLiteral("x|"));
    row("Up Up Down", QStringLiteral("one five|"));
    row("C-p C-p C-n", QStringLiteral("one five|"));
    row("Up C-a X", QStringLiteral("X|one five"));
    row("a Space M-.", QStringLiteral("a five|"));
    row("a Space M-. M-.", QStringLiteral("a 'fo ur'|"));
    row("a Space M-. M-. M-.", QStringLiteral("a two|"));
    row("a Space M-. M-. M-. M-.", QStringLiteral("a two|"));
    row("a Space M-. x M-.", QStringLiteral("a fivexfive|"));
    row("Up C-_", QStringLiteral("|"));
    // search
    row("C-r t h Home X", QStringLiteral("X|three 'fo ur'"));
    row("C-r o C-r Home", QStringLiteral("|three 'fo ur'"));
    row("C-r w Right X", QStringLiteral("one twX|o"));
    row("C-r f i C-g", QStringLiteral("|"));
    row("x C-r f i C-g", QStringLiteral("x|"));
    row("C-r z z z C-g x", QStringLiteral("x|"));
    row("C-r t w BS BS BS C-g x", QStringLiteral("x|"));
    row("C-r o n C-r C-e X", QStringLiteral("one twoX|"));
    row("C-r o n C-r C-s C-e X", QStringLiteral("one fiveX|"));
    row("C-r o n C-c x", QStringLiteral("x|"));
    // pasted blocks
    row("Paste ab EndPaste", QStringLiteral("ab|"));
    row("Paste a\tb EndPaste", QStringLiteral("a b|"));
    row("Paste a\001b EndPaste X", QStringLiteral("abX|"));
    row("Paste ab EndPaste C-_", QStringLiteral("|"));
}

void tst_ZELPromptEditor::keys()
{
    QFETCH(QByteArray, typed);
    QFETCH(QString, line);
    for (const int columns : {80, 20, 2}) {
        Player player(columns);
        for (const char *earlier : {"one two", "three 'fo ur'", "one five"})
            player.history.add(QLatin1String(earlier));
        player.play(typed);
        QCOMPARE(player.state(), line);
        compareWithPlain(player, columns, line);
    }
}

// What terminals do not agree about: the rows that an emulator shows, and the cursor's column.
void tst_ZELPromptEditor::screens_data()
{
    Table<QByteArray, QStringList, QPoint> row("typed", "rows", "cursor");
    row("\u0301", {QStringLiteral("$ \u25cc\u0301")}, {3, 0});
    row("\U0001f1e9\U0001f1ea x", {QStringLiteral("$ \U0001f1e9\U0001f1eax")}, {5, 0});
    row("\U0001f1e9\U0001f1ea x Left Left", {QStringLiteral("$ \U0001f1e9\U0001f1eax")}, {2, 0});
    row("\U0001f1e9\U0001f1ea BS", {QStringLiteral("$")}, {2, 0});
    row("\U0001f44d\U0001f3fd x", {QStringLiteral("$ \U0001f44dx")}, {5, 0});
    row("x \u200b y", {QStringLiteral("$ x\ufffdy")}, {5, 0});
    row("Paste a\nb EndPaste", {QStringLiteral("$ a"), QStringLiteral("b")}, {1, 1});
    row("Paste a\nb EndPaste Home X", {QStringLiteral("$ Xa"), QStringLiteral("b")}, {3, 0});
    row("Paste a\nbc EndPaste C-u x", {QStringLiteral("$ x")}, {3, 0});
    row("ab C-l c", {QStringLiteral("$ abc")}, {5, 0});
    row("ab Enter cd", {QStringLiteral("$ ab"), QStringLiteral("$ cd")}, {4, 1});
    row("ab C-c cd", {QStringLiteral("$ ab"), QStringLiteral("$ cd")}, {4, 1});
    row("abcdefghijklmnopqr Enter", {QStringLiteral("$ abcdefghijklmnopqr"), QStringLiteral("$")}, {2, 1});
    row("C-r n", {QStringLiteral("(reverse-i-search)`n"), QStringLiteral("': one five")}, {4, 1});
    row("C-r z", {QStringLiteral("(failed reverse-i-se"), QStringLiteral("arch)`z':")}, {10, 1});
    row("C-r n C-g", {QStringLiteral("$")}, {2, 0});
}

void tst_ZELPromptEditor::screens()
{
    QFETCH(QByteArray, typed);
    Player player(20);
    player.history.add(QStringLiteral("one five"));
    player.play(typed);
    QTEST(player.screen.rows(), "rows");
    QTEST(player.screen.cursor(), "cursor");
}

namespace {

/// The same editing on a list of characters.
struct Model
{
    QVector<QByteArray> before;
    QVector<QByteArray> after; ///< the next one last
    QByteArray killed;

    static QVector<QByteArray> cut(const QByteArray &text)
    {
        QVector<QByteArray> all;
        for (int at = 0; at < text.size(); at += all.last().size())
            all += text.mid(at, zelGraphemeAt(text, at).length);
        return all;
    }
    QByteArray text(bool wholly = true) const
    {
        QByteArray joined;
        for (const QByteArray &one : before)
            joined += one;
        for (int i = after.size(); wholly && i > 0; --i)
            joined += after.at(i - 1);
        return joined;
    }
    void set(const QByteArray &all, int cursor)
    {
        before.clear();
        after.clear();
        int at = 0;
        for (const QByteArray &one : cut(all)) {
            if (at < cursor)
                before += one;
            else
                after.prepend(one);
            at += one.size();
        }
    }
    void insert(const QByteArray &bytes)
    {
        const QByteArray head = text(false) + bytes;
        set(head + text().mid(head.size() - bytes.size()), head.size());
    }
    void back(int count)
    {
        for (; count > 0 && !before.isEmpty(); --count)
            after += before.takeLast();
    }
    void forth(int count)
    {
        for (; count > 0 && !after.isEmpty(); --count)
            before += after.takeLast();
    }
    void erase(bool head)
    {
        if (!(head ? before : after).isEmpty())
            (head ? before : after).removeLast();
        set(text(), text(false).size());
    }
    void killBack()
    {
        killed = text(false);
        before.clear();
        set(text(), 0);
    }
};

void playOnModel(Model *model, const QByteArray &key)
{
    if (key == "Left")
        model->back(1);
    else if (key == "Right")
        model->forth(1);
    else if (key == "Home")
        model->back(model->before.size());
    else if (key == "End")
        model->forth(model->after.size());
    else if (key == "BS" || key == "Del")
        model->erase(key == "BS");
    else if (key == "C-u" && !model->before.isEmpty())
        model->killBack();
    else if (key == "C-y")
        model->insert(model->killed);
    else if (key != "C-u")
        model->insert(key);
}

} // namespace

void tst_ZELPromptEditor::randomKeys()
{
    const QVector<QByteArray> keys{"Left", "Left", "Left", "Right", "Right", "Home", "End", "BS", "Del", "BS", "C-u",
        "C-y", "a", "b", "c", "/", "\u00e4", "\u4e2d", "\u6587", "\u0301", "\u20ac", "x", "y", "Left"};
    const int count = qEnvironmentVariableIsSet("ZEL_KEYS") ? qEnvironmentVariableIntValue("ZEL_KEYS") : 60000;
    QRandomGenerator random(7);
    std::unique_ptr<Player> player;
    Model model;
    int columns = 0;
    for (int i = 0; i < count; ++i) {
        if (i % 500 == 0) {
            columns = random.bounded(2, 30);
            player = std::make_unique<Player>(columns, 10);
            model = Model();
        }
        const QByteArray key = model.text().size() > 60 ? "C-u" : keys.at(random.bounded(keys.size()));
        playOnModel(&model, key);
        player->bytes(bytesOf(key));
        if (random.bounded(4) != 0)
            continue;
        player->screen.feed(player->editor.takeOutput());
        const QString state = QString::fromUtf8(model.text(false)) + QLatin1Char('|')
            + QString::fromUtf8(model.text().mid(model.text(false).size()));
        QCOMPARE(player->state(), state);
        const bool fits = plainCursor(columns, model.text(), QByteArray()).y() < 10;
        if (fits && !model.text().startsWith("\u0301"))
            compareWithPlain(*player, columns, state);
        if (QTest::currentTestFailed())
            QFAIL(qPrintable(QStringLiteral("key %1 at %2 columns: %3").arg(i).arg(columns).arg(state)));
    }
}

void tst_ZELPromptEditor::lines()
{
    Player player;
    player.play("Paste one\ntwo EndPaste Enter three Enter C-d");
    QCOMPARE(player.lines, QStringList({QStringLiteral("one\ntwo"), QStringLiteral("three")}));
    QCOMPARE(player.event, ZELPromptEditor::End);
    player.bytes("a\r\nb\r" + QByteArray(1, '\0') + "c\n");
    QCOMPARE(player.lines.mid(2), QStringList({QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")}));
    player.bytes("Grüße\r");
    QCOMPARE(player.lines.last().toLatin1(), QByteArray("Grüße"));
    // A block that comes in pieces waits for Enter as well, whatever stands in it.
    player.bytes("\033[200~x\n");
    player.screen.feed(player.editor.takeOutput());
    player.bytes("y\033[201");
    player.bytes("~");
    QCOMPARE(player.lines.size(), 6);
    player.bytes("\r");
    QCOMPARE(player.lines.last(), QStringLiteral("x\ny"));
}

void tst_ZELPromptEditor::completes()
{
    Player player(30, 6);
    player.candidates = {{"state", ""}, {"start ", ""}, {"stop ", ""}};
    player.play("s Tab");
    QCOMPARE(player.state(), QStringLiteral("st|"));
    player.play("Tab");
    QCOMPARE(player.screen.rows(),
        QStringList({QStringLiteral("$ st"), QStringLiteral("state  start  stop"), QStringLiteral("$ st")}));
    player.play("Tab");
    QCOMPARE(player.state(), QStringLiteral("state|"));
    player.play("Tab Tab Tab S-Tab");
    QCOMPARE(player.state(), QStringLiteral("stop |"));
    player.play("x Enter");
    QCOMPARE(player.lines, QStringList(QStringLiteral("stop x")));

    // A long list waits for a key; a blank brings a page, any other key but Enter ends it.
    player.candidates.clear();
    for (int i = 0; i < 20; ++i)
        player.candidates += {"c" + QByteArray::number(100 + i), "about it"};
    player.play("C-l c Tab Tab");
    QCOMPARE(player.screen.row(5), QStringLiteral("--More--"));
    player.play("Space Enter");
    QCOMPARE(player.screen.row(4), QStringLiteral("c110  about it"));
    player.play("q x");
    QCOMPARE(player.screen.row(5), QStringLiteral("$ c1x"));
}

void tst_ZELPromptEditor::longLine()
{
    constexpr int size = 1000000;
    Player player;
    QElapsedTimer timer;
    const auto type = [&](int count) {
        timer.start();
        for (int i = 0; i < count; ++i) {
            player.editor.feed('a');
            if (i % 20 == 0)
                player.editor.takeOutput();
        }
        return timer.nsecsElapsed();
    };
    const qint64 first = type(size / 10);
    type(size * 8 / 10);
    QVERIFY2(type(size / 10) < 4 * first + 20000000, "typing at the end costs the more the longer the line is");
    QCOMPARE(player.editor.size(), size);
}

QTEST_APPLESS_MAIN(tst_ZELPromptEditor)
#include "tst_zelprompteditor.moc"
