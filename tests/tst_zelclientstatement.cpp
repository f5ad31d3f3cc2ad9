// SPDX-License-Identifier: MIT
#include "table.h"
#include "zelarguments.h"
#include "zelclientstatement_p.h"

#include <QtTest>

class tst_ZELClientStatement : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void numbers_data()
    {
        Table<QString, QString, QString, bool> row("text", "line", "key", "background");
        row("jobs/count 2", "jobs/count#7 2", "jobs/count#7", false);
        row("  /demo/hello  ", "/demo/hello#7", "/demo/hello#7", false);
        row(",,cd x", ",,cd#7 x", "cd#7", false);
        row("run a=run", "run#7 a=run", "run#7", false);
        row("slow&", "slow#7", "slow#7", true);
        row("own#3 x", "own#3 x", "own#3", false);
        row("$x = run $x = y", "$x = run#7 $x = y", "run#7", false);
        row("$x=run(1)", "$x=run#7(1)", "run#7", false);
        row("h\xc3\xa9 x", "h#7\xc3\xa9 x", "h#7", false);
        // What cannot carry a number.
        row("$x", "$x", "$x", false);
        row("$cmd a", "$cmd a", "", false);
        row("$x =", "$x =", "", false);
        row("$x = 5", "$x = 5", "", false);
        row("$x = 'a b'", "$x = 'a b'", "", false);
        row("-1.5e3", "-1.5e3", "", false);
        row("\"text\"", "\"text\"", "", false);
        row("h\xc3\xa9llo", "h\xc3\xa9llo", "", false);
    }

    void numbers()
    {
        QFETCH(QString, text);
        const ZELClientStatement statement = zelNumberStatement(text, 7);
        QCOMPARE(statement.refusal, QString());
        QTEST(statement.line, "line");
        QTEST(statement.key, "key");
        QTEST(statement.background, "background");
        QCOMPARE(statement.numbered, statement.key.contains('#'));
    }

    void refuses_data()
    {
        Table<QString> row("text");
        for (const char *text :
            {"", "   ", "&", "a;b", "echo ';'", "a\nb", "echo \"a", "echo 'a", "echo (a", "f [[x]", ",,", ")"})
            row(text, QString(text));
        row("nul", QString("a") + QChar(0));
    }

    void refuses()
    {
        QFETCH(QString, text);
        const ZELClientStatement statement = zelNumberStatement(text, 7);
        QVERIFY(!statement.refusal.isEmpty());
    }

    void taggedLine()
    {
        QCOMPARE(
            zelTaggedLine(QString::fromUtf8("x \xc3\xa4"), false), QByteArray("x \xc3\xa4 UFJPVE9DT0w9WkVMX1NIRUxM\n"));
        QCOMPARE(zelTaggedLine("x", true), QByteArray("x UFJPVE9DT0w9WkVMX1NIRUxM &\n"));
    }

    void handshakeSurvivesTheSplitter_data()
    {
        Table<QString, QString, bool> row("user", "password", "fits");
        row("plain", "bob", "pw", true);
        row("blanks", "bob the builder", " a b ", true);
        row("options", "--key", "--nt --user admin", true);
        row("quotes", "it's", "say \"x\"", true);
        row("both quotes", "a'b\"c", "(\"'", true);
        row("separators", "a,b;c\td", ";", true);
        row("beyond ascii", QString::fromUtf8("j\xc3\xb6rg"), QString::fromUtf8("\xf0\x9f\x90\xb1"), true);
        row("everything", "bob", "'\"([{", false);
        row("line feed", "bob\n--key x", "pw", false);
    }

    // What the host's splitter makes of the line is what was meant, whatever stands in it.
    void handshakeSurvivesTheSplitter()
    {
        QFETCH(QString, user);
        QFETCH(QString, password);
        QFETCH(bool, fits);
        const QByteArray line = zelHandshakeLine(user, password, "KEY", -1);
        QCOMPARE(!line.isEmpty(), fits);
        if (!fits)
            return;
        QVERIFY(line.endsWith('\n') && line.count('\n') == 1);
        QCOMPARE("--nt" + zelHandshakeLine(user, password, "KEY", 0), line);
        const QStringList words = ZELArguments::CommandSplit("ZELShell " + QString::fromUtf8(line), true, true);
        const auto value = [&](const char *option) {
            QString word = words.value(words.indexOf(option) + 1);
            return words.contains(option) ? word.mid(1, word.size() - 2) : QString();
        };
        QCOMPARE(words.value(1), QString("--nt"));
        QCOMPARE(value("--user"), user);
        QCOMPARE(value("--password"), password);
        QCOMPARE(words.value(words.size() - 2), QString("--key"));
        QCOMPARE(words.last(), QString("KEY"));
    }
};

QTEST_GUILESS_MAIN(tst_ZELClientStatement)
#include "tst_zelclientstatement.moc"
