// SPDX-License-Identifier: MIT
#include "table.h"
#include "zelcompleter_p.h"

#include <QHash>
#include <QtTest>

Q_DECLARE_METATYPE(ZELShellCommandEntry)

namespace {

using Tree = ZELShellCommandTree;

const QHash<QString, ZELListing> directories = {
    {"", {{"demo", Tree::Directory}, {"net", Tree::Directory}, {"reboot", Tree::Execute}, {"lsusb", Tree::Execute}}},
    {"demo", {{"hello", Tree::Execute}, {"help", Tree::Execute}, {"deep", Tree::Directory}}},
    {"demo/deep", {{"\u00e4pfel", Tree::Execute}, {"only", Tree::Directory}}},
    {"net", {}},
};

ZELCompletionScope::Reader readerFrom(const QStringList &start)
{
    return [start](const QStringList &pieces, const QString &) -> std::optional<ZELListing> {
        const QString path = (start + pieces).join('/');
        return directories.contains(path) ? std::make_optional(directories.value(path)) : std::nullopt;
    };
}

/// A session in the directory `current`; null stands above the tree.
ZELCompletionScope scopeIn(const QString &current)
{
    ZELCompletionScope scope;
    scope.fromRoot = readerFrom({});
    if (!current.isNull())
        scope.fromCurrent = readerFrom(current.split('/', Qt::SkipEmptyParts));
    scope.systemCommands = [] { return ZELListing{{"help", Tree::System_Execute}, {"version", Tree::System_Execute}}; };
    scope.aboveTree = current.isNull();
    return scope;
}

/// The names of a listing, without colours and padding.
QStringList namesOf(QString listing)
{
    return listing.remove(QRegularExpression("\033\\[[0-9;]*m")).split(QRegularExpression("\\s+"), Qt::SkipEmptyParts);
}

} // namespace

class tst_ZELCompleter : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void completes_data()
    {
        Table<QString, QString, QString, QStringList> table("directory", "line", "insertion", "listed");
        const auto row
            = [&](const char *directory, const char *line, const char *insertion, const QStringList &listed = {}) {
                  table(line + QByteArray(" in ") + directory, directory, line, insertion, listed);
              };
        row("", "reb", "oot");
        row("", "d", "emo/");
        row("", "re", "", {"reboot", "reinit"});
        row("", "l", "s", {"ls", "lsusb"});
        row("", "v", "ersion");
        row("", "cd re", "boot");
        row("", "cd l", "susb");
        row("", "demo/h", "el", {"hello", "help"});
        row("", "demo//deep/o", "nly/");
        row("", "demo/", "", {"deep", "hello", "help"});
        row("", "demo\\hell", "o");
        row("", "./demo/hell", "o");
        row("", "net/", "");
        row("", "nowhere/h", "");
        row("demo", "hel", "", {"hello", "help"});
        row("demo", "/reb", "oot");
        row("demo", "\\demo\\hell", "o");
        row("demo", "cd /n", "et/");
        row("demo", "/demo/hello reb", "oot");
        row("demo", "/Main/demo/hell", "o");
        row("demo", "/Main", "");
        row("demo", "$x = hell", "o");
        row("demo", "$x=/re", "boot");
        row("demo", "e", "xit");
        row("demo", "echo \"hell", "o");
        row("demo", "echo \"hell\"", "");
        row("demo", "echo hell,", "");
        row("demo", "echo h\u00e9ll", "");
        row("demo", "deep/\"\u00e4", "");
        row("", "\"reb", ""); // a text
        row("demo", "deep/", "only/"); // the other name needs quotes
        row("demo", "echo \"deep/", "", {"only", "\u00e4pfel"});
        row(nullptr, "M", "ain/");
        row(nullptr, "q", "uit");
        row(nullptr, "reb", "");
        row(nullptr, "cd Main/demo/d", "eep/");
        row(nullptr, "demo/h", "");
        row(nullptr, "/reb", "oot");
    }

    void completes()
    {
        QFETCH(QString, directory);
        QFETCH(QString, line);
        QFETCH(QStringList, listed);
        const ZELCompletion found = zelComplete(line, scopeIn(directory), 80);
        QTEST(found.insertion, "insertion");
        QCOMPARE(namesOf(found.listing), listed);
    }

    void mainMayBeAnotherDirectory()
    {
        ZELCompletionScope scope = scopeIn("");
        scope.fromRoot = [](const QStringList &pieces, const QString &) -> std::optional<ZELListing> {
            if (pieces == QStringList("Main"))
                return ZELListing{{"inner", Tree::Execute}};
            return pieces.isEmpty() ? std::make_optional(ZELListing{{"Main", Tree::Directory}}) : std::nullopt;
        };
        QCOMPARE(zelComplete("/Main/", scope, 80).insertion, QString("inner"));
        QCOMPARE(zelComplete("/Main/Main/", scope, 80).insertion, QString());
    }

    void readsTrees()
    {
        Tree root("Main", nullptr, nullptr), system("Sys", nullptr, nullptr);
        auto *demo = new Tree("demo", nullptr, &root);
        root.insert(demo);
        demo->insert(new Tree("inner", nullptr, demo));
        ZELCompletionScope scope = ZELCompletionScope::ofTrees(&root, &root, &system);
        QCOMPARE(zelComplete("demo/i", scope, 80).insertion, QString("nner/"));
        QCOMPARE(zelComplete("nowhere/i", scope, 80).insertion, QString());
        scope = ZELCompletionScope::ofTrees(&root, nullptr, &system);
        QCOMPARE(zelComplete("M", scope, 80).insertion, QString("ain/"));
        QCOMPARE(zelComplete("/d", scope, 80).insertion, QString("emo/"));
        // What the dispatcher would find first decides how a name is shown.
        const ZELCompletion found = zelComplete("h", scopeIn("demo"), 80);
        QCOMPARE(found.listing, QString("\033[33mhello\033[0m    \033[33mhelp\033[0m\n"));
    }

    void paints_data()
    {
        Table<ZELListing, int, QString> row("entries", "width", "text");
        const ZELListing three = {{"a", Tree::Directory}, {"bb", Tree::Execute}, {"c", Tree::File}};
        const QString a = "a", bb = "\033[33mbb\033[0m", c = "\033[34mc\033[0m";
        row("nothing", {}, 80, "\n");
        row("one row", three, 18, a + "     " + bb + "    " + c + "\n");
        row("two columns", three, 17, a + "     " + bb + "\n" + c + "\n");
        row("too narrow", three, 3, a + "\n" + bb + "\n" + c + "\n");
        row("unknown", ZELListing(22, {"ab", Tree::Directory}), 0, QString("ab    ").repeated(20) + "ab\nab\n");
        row("negative", three, -1, a + "     " + bb + "    " + c + "\n");
    }

    void paints()
    {
        QFETCH(ZELListing, entries);
        QFETCH(int, width);
        QTEST(zelPaintColumns(entries, width), "text");
    }

    void everyWidthKeepsAllNames()
    {
        ZELListing entries;
        QStringList names;
        for (int i = 0; i < 25; ++i) {
            names += "n" + QString::number(i * i);
            entries.append({names.last(), i % 2 ? Tree::Execute : Tree::Directory});
        }
        for (int width = 0; width <= 300; ++width) {
            const QString text = zelPaintColumns(entries, width);
            QCOMPARE(namesOf(text), names);
            const QStringList rows = QString(text).remove(QRegularExpression("\033\\[[0-9;]*m")).split('\n');
            QVERIFY(rows.last().isEmpty());
            for (const QString &row : rows) {
                QVERIFY(!row.endsWith(' '));
                QVERIFY(row.size() <= std::max(width ? width : 128, 4));
            }
        }
    }
};

QTEST_APPLESS_MAIN(tst_ZELCompleter)
#include "tst_zelcompleter.moc"
