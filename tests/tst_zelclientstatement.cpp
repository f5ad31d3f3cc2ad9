// SPDX-License-Identifier: MIT
#include "zelarguments.h"
#include "zelclientstatement_p.h"

#include <QtTest>

class tst_ZELClientStatement : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void numbers_data();
    void numbers();
    void refuses_data();
    void refuses();
    void taggedLine();
    void handshakeSurvivesTheSplitter_data();
    void handshakeSurvivesTheSplitter();
};

void tst_ZELClientStatement::numbers_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("key");
    QTest::addColumn<bool>("background");
    const auto row = [](const char *text, const char *line, const char *key, bool background = false) {
        QTest::newRow(text) << QString::fromUtf8(text) << QString::fromUtf8(line) << QString::fromUtf8(key)
                            << background;
    };
    row("jobs/count 2", "jobs/count#7 2", "jobs/count#7");
    row("  /demo/hello  ", "/demo/hello#7", "/demo/hello#7");
    row(",,cd x", ",,cd#7 x", "cd#7");
    row("run a=run", "run#7 a=run", "run#7");
    row("echo a\tb", "echo#7 a b", "echo#7");
    row("slow 5 &", "slow#7 5", "slow#7", true);
    row("slow&", "slow#7", "slow#7", true);
    row("own#3 x", "own#3 x", "own#3");
    row("$x = run $x = y", "$x = run#7 $x = y", "run#7");
    row("$x=run(1)", "$x=run#7(1)", "run#7");
    row("h\xc3\xa9 x", "h#7\xc3\xa9 x", "h#7");
    // What cannot carry a number.
    row("$x", "$x", "$x");
    row("$cmd a", "$cmd a", "");
    row("$x =", "$x =", "");
    row("$x = 5", "$x = 5", "");
    row("$x = 'a b'", "$x = 'a b'", "");
    row("$x = $y", "$x = $y", "");
    row("42", "42", "");
    row("-1.5e3", "-1.5e3", "");
    row("\"text\"", "\"text\"", "");
    row("h\xc3\xa9llo", "h\xc3\xa9llo", "");
}

void tst_ZELClientStatement::numbers()
{
    QFETCH(QString, text);
    const ZELClientStatement statement = zelNumberStatement(text, 7);
    QCOMPARE(statement.refusal, QString());
    QTEST(statement.line, "line");
    QTEST(statement.key, "key");
    QTEST(statement.background, "background");
    QCOMPARE(statement.numbered, statement.key.contains('#'));
}

void tst_ZELClientStatement::refuses_data()
{
    QTest::addColumn<QString>("text");
    for (const char *text :
        {"", "   ", "&", "a;b", "echo ';'", "a\nb", "echo \"a", "echo 'a", "echo (a", "f [[x]", ",,", ")"})
        QTest::newRow(text) << QString(text);
    QTest::newRow("nul") << QString("a") + QChar(0);
}

void tst_ZELClientStatement::refuses()
{
    QFETCH(QString, text);
    const ZELClientStatement statement = zelNumberStatement(text, 7);
    QVERIFY(!statement.refusal.isEmpty());
}

void tst_ZELClientStatement::taggedLine()
{
    QCOMPARE(
        zelTaggedLine(QString::fromUtf8("x \xc3\xa4"), false), QByteArray("x \xc3\xa4 UFJPVE9DT0w9WkVMX1NIRUxM\n"));
    QCOMPARE(zelTaggedLine("x", true), QByteArray("x UFJPVE9DT0w9WkVMX1NIRUxM &\n"));
}

void tst_ZELClientStatement::handshakeSurvivesTheSplitter_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("password");
    QTest::addColumn<bool>("fits");
    QTest::newRow("plain") << "bob"
                           << "pw" << true;
    QTest::newRow("blanks") << "bob the builder"
                            << " a b " << true;
    QTest::newRow("no password") << "bob"
                                 << "" << true;
    QTest::newRow("options") << "--key"
                             << "--nt --user admin" << true;
    QTest::newRow("dashes") << "-bob"
                            << "-" << true;
    QTest::newRow("quotes") << "it's"
                            << "say \"x\"" << true;
    QTest::newRow("both quotes") << "a'b\"c"
                                 << "(\"'" << true;
    QTest::newRow("equals") << "a=b"
                            << "==" << true;
    QTest::newRow("separators") << "a,b;c\td"
                                << ";" << true;
    QTest::newRow("beyond ascii") << QString::fromUtf8("j\xc3\xb6rg") << QString::fromUtf8("\xf0\x9f\x90\xb1") << true;
    QTest::newRow("everything") << "bob"
                                << "'\"([{" << false;
    QTest::newRow("line feed") << "bob\n--key x"
                               << "pw" << false;
}

// What the host's splitter makes of the line is what was meant, whatever stands in it.
void tst_ZELClientStatement::handshakeSurvivesTheSplitter()
{
    QFETCH(QString, user);
    QFETCH(QString, password);
    QFETCH(bool, fits);
    const QByteArray line = zelHandshakeLine(user, password, "KEY", true);
    QCOMPARE(!line.isEmpty(), fits);
    if (!fits)
        return;
    QVERIFY(line.endsWith('\n') && line.count('\n') == 1);
    QCOMPARE("--nt" + zelHandshakeLine(user, password, "KEY", false), line);
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

QTEST_GUILESS_MAIN(tst_ZELClientStatement)
#include "tst_zelclientstatement.moc"
