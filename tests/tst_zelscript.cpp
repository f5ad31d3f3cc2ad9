// SPDX-License-Identifier: MIT
// Scripts without a shell: expressions, the parser's places of errors, and the walk through the steps.
#include "table.h"
#include "zelscriptevaluator_p.h"

#include <QDir>
#include <QElapsedTimer>
#include <QtTest>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int share = 13; // of the changes: sanitizers make each slow
#else
constexpr int share = 1;
#endif

/// Statements end well and give their own text, but for "fail", "value WORD", and functions.
class FakeHost : public ZELScriptHost
{
public:
    Result run(const QString &statement) override
    {
        ran += statement;
        const QString word = statement.section(' ', 0, 0);
        if (word == "fail")
            return {QVariant(), true, "it failed"};
        if (word == "end")
            ending = true;
        if (functions.contains(word)) {
            ZELScriptEvaluator inner(*this);
            const QVariant value = inner.run(*functions.value(word).body);
            return {value, !inner.error().isEmpty(), inner.error()};
        }
        return {word == "value"     ? statement.section(' ', 1)
                : word == "nothing" ? QVariant()
                                    : QVariant(statement),
            false, {}};
    }
    QString variable(const QString &name) override { return variables.value(name, "NULL"); }
    void setVariable(const QString &name, const QString &value) override { variables.insert(name, value); }
    void define(const ZELScriptStep &function) override { functions.insert(function.name, function); }
    bool isEnding() override { return ending; }

    QStringList ran;
    QHash<QString, QString> variables{{"$n", "7"}, {"$t", "abc"}, {"$?", "7"}};
    QHash<QString, ZELScriptStep> functions;
    bool ending = false;
};

QString outcome(const QString &script)
{
    ZELScriptError error;
    const ZELScriptBody body = zelParseScript(script, &error);
    if (!body)
        return error.toString();
    FakeHost host;
    ZELScriptEvaluator evaluator(host);
    const QVariant value = evaluator.run(*body);
    QStringList said = host.ran;
    said += evaluator.error().isEmpty() ? "=" + value.toString() : evaluator.error();
    return said.join('|');
}

} // namespace

class tst_ZELScript : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void expressions_data()
    {
        Table<QString, QString> row("text", "value");
        for (const char *pair : {"1 + 2 * 3 -> 7", "(1 + 2) * 3 -> 9", "7 / 2 -> 3", "-7 / 2 -> -3", "-7 % 3 -> -1",
                 "7.0 / 2 -> 3.5", "1e3 + 1 -> 1001", "0x10 + 1 -> 17", "2 - -2 -> 4", "!0 -> 1", "!!5 -> 1",
                 "1 < 2 && 2 < 3 -> 1", "1 > 2 || 0 -> 0", "10 > 9 -> 1", "\"10\" > \"9\" -> 1", "\"b\" > \"a\" -> 1",
                 "\"abc\" == $t -> 1", "$n * 2 -> 14", "$n != 7.0 -> 0", "$never == \"NULL\" -> 1", "\"a\" + 1 -> a1",
                 "\"1\" + \"2\" -> 3", "'x y' + \"z\" -> x yz", "1 == 1 == 1 -> 1", "2 >= 2 -> 1", "1 <= 0 -> 0",
                 "9223372036854775807 + 1 -> ! the result has more than 64 bits",
                 "-9223372036854775807 - 1 -> -9223372036854775808", "1 / 0 -> ! division by zero",
                 "1 % 0 -> ! division by zero", "1.5 / 0 -> ! division by zero", "1 - \"x\" -> ! 'x' is no number",
                 "0 && 1 / 0 -> 0", "1 || 1 / 0 -> 1", "5.5 % 2 -> 1.5", "\"false\" || \"\" -> 0",
                 "1 + -> ? 3 a number, a text in quotes, a variable or '('", "(1 -> ? 2 an operator or ')'",
                 "1 2 -> ? 2 an operator or ')'", "\"open -> ? 0 a number, a text in quotes, a variable or '('",
                 "nan -> ? 0 a number, a text in quotes, a variable or '('", "$n*$n -> 49", "$?*2 -> 14",
                 "$n%4 + $n.x -> 3NULL", "-9223372036854775808 -> -9223372036854775808",
                 "-9223372036854775808 / -1 -> ! the result has more than 64 bits", "-9223372036854775808 % -1 -> 0",
                 "--9223372036854775808 -> ! the result has more than 64 bits", "- 7 -> -7", "-0x10 - -1.5 -> -14.5",
                 "1e308 * 10 -> ! the result is too large",
                 "-1e400 -> ? 1 a number, a text in quotes, a variable or '('",
                 "inf + 1 -> ? 0 a number, a text in quotes, a variable or '('", "1 & 2 -> ? 2 an operator or ')'"}) {
            const QStringList parts = QString(pair).split(" -> ");
            row(pair, parts[0], parts[1]);
        }
    }

    void expressions()
    {
        QFETCH(QString, text);
        int offset = 0;
        QString problem;
        const auto expression = ZELScriptExpression::parse(text, &offset, &problem);
        FakeHost host;
        QString said = QString("? %1 %2").arg(offset).arg(problem);
        if (expression) {
            QString error;
            const QVariant value
                = expression->evaluate([&](const QString &name) { return host.variable(name); }, &error);
            said = value.isValid() ? value.toString() : "! " + error;
        }
        QTEST(said, "value");
    }

    void scripts_data()
    {
        Table<QString, QString> row("script", "outcome");
        row("lines", "a b; c\n\n# d; e\n f", "a b|c|f|=f");
        row("groups", "a \"b;c\" (d\ne) {f;g}; h", "a \"b;c\" (d\ne) {f;g}|h|=h");
        row("assignment", "$x = (1 + 2)\n$y = (a b)\n$z = ($x * 2); if ($z == 6) { good }", "$y = (a b)|good|=good");
        row("if", "if ($n > 5) { big } else { small }", "big|=big");
        row("elseif", "if ($n > 9) { a }\nelseif ($n > 6)\n{ b }\n# c\nelse { d }", "b|=b");
        row("else", "if (0) { a } elseif (\"\") { b } else\n{\nc\n}", "c|=c");
        row("statement true", "if (value 1) { a }", "value 1|a|=a");
        row("statement false", "if (value false) { a } elseif (nothing) { b } elseif (fail) { c } else { d }",
            "value false|nothing|fail|d|=d");
        row("while", "$i = (0)\nwhile ($i < 3) { a; $i = ($i + 1) }", "a|a|a|=a");
        row("break", "while (1) { a; if (1) { break }; b }; c", "a|c|=c");
        row("continue", "for ($i = 0; $i < 4; $i = ($i + 1)) { if ($i % 2) { continue }; a }", "a|a|=a");
        row("each", "for $x in (a \"b c\" $n) { if ($x == \"b c\") { two } elseif ($x == 7) { seven } }",
            "two|seven|=seven");
        row("nested", "for $x in (1 2) { for $y in (1 2 3) { if ($y == 2) { break }; a } }", "a|a|=a");
        row("function", "function f () { in; return ($n + 1); never }\nf\nout", "f|in|out|=out");
        row("return", "a; return $n; b", "a|=7");
        row("return words", "return \"a $n\" b", "=a 7 b");
        row("error", "a\nfail\nb", "a|fail|line 2: it failed");
        row("goes on", "onerror continue\nfail\nb\nonerror stop\nfail\nc", "fail|b|fail|line 5: it failed");
        row("computed error", "\n$x = (1 / ($n - 7))", "line 2: division by zero");
        row("end", "while (1) { end; a }", "end|=end");
        row("words", "if x\nfor x\nwhile\nfunction\nbreakfast\nreturned",
            "if x|for x|while|function|breakfast|returned|=returned");
        row("no brace", "if (1)\n\nx", "line 3, column 1: expected '{'");
        row("no end", "while (1) {\n a", "line 2, column 3: expected '}'");
        row("quote", "a\n b \"c\n", "line 3, column 1: expected '\"'");
        row("condition", "if (1 + ) { }", "line 1, column 9: expected a number, a text in quotes, a variable or '('");
        row("no condition", "if ( ) { }", "line 1, column 5: expected a condition");
        row("no loop", "a; break", "line 1, column 4: expected a loop around 'break'");
        row("break in function", "while (1) { function f () { break } }",
            "line 1, column 29: expected a loop around 'break'");
        row("for", "for ($i = 0; $i < 3) { }", "line 1, column 6: expected 'START; CONDITION; STEP'");
        row("for with texts", "for ($s = \"\"; $s != \";;\"; $s = ($s + \";\")) { a }", "a|a|=a");
        row("a tab", "function\tf () { a }; f", "f|a|=a");
        row("torn value", "a\n$x = (1 + )", "line 2, column 11: expected a number");
        row("torn sum", "$x = ($x 1)", "line 1, column 10: expected an operator or ')'");
        row("parameters", "function f (a) { }", "line 1, column 13: expected '$NAME' for each parameter");
        row("onerror", "onerror perhaps", "line 1, column 1: expected 'onerror continue' or 'onerror stop'");
    }

    void scripts()
    {
        QFETCH(QString, script);
        QFETCH(QString, outcome);
        QVERIFY2(::outcome(script).startsWith(outcome), qPrintable(::outcome(script)));
    }

    void isOpen_data()
    {
        Table<QString, bool> row("text", "open");
        row("block", "if (1) {", true);
        row("two lines", "if (1) {\n a", true);
        row("head", "while (1)", true);
        row("quote", "if (1) { a \"b", true);
        row("whole", "if (1) {\n a }", false);
        row("bracket in quotes", "if (1) { a \"}\"", true);
        row("wrong", "if (1 + ) {", false);
    }

    void isOpen()
    {
        QFETCH(QString, text);
        QTEST(zelIsOpenScript(text), "open");
    }

    /// Nothing but an outcome or a located error, whatever a script is cut down to or changed into; in linear time.
    void tornScripts()
    {
        const QDir folder(SCRIPTS);
        const QStringList names = folder.entryList(QDir::Files);
        QVERIFY(!names.isEmpty());
        for (const QString &name : names) {
            QFile file(folder.filePath(name));
            QVERIFY(file.open(QIODevice::ReadOnly));
            const QString text = QString::fromUtf8(file.readAll());
            const auto isGood = [](const QString &script) {
                ZELScriptError error;
                return zelParseScript(script, &error)
                    || (error.line > 0 && error.column > 0 && !error.expected.isEmpty());
            };
            ZELScriptError error;
            QVERIFY2(zelParseScript(text, &error), qPrintable(name + ": " + error.toString()));
            for (int i = 0; i < text.size(); i += share) {
                QVERIFY(isGood(text.left(i)));
                for (const char other : {'"', '(', ')', '{', '}', ';', '\n', '#', '$', 'x'})
                    QVERIFY(isGood(QString(text).replace(i, 1, QLatin1Char(other))));
            }
        }
    }

    void deepAndLong()
    {
        QVERIFY(::outcome(QString("if (1) {").repeated(5000)).contains("expected less nesting"));
        QVERIFY(::outcome("$x = (" + QString("(").repeated(5000)).contains("expected"));
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(::outcome(QString("$x = (1)\n").repeated(50000)), QString("="));
        QVERIFY(::outcome("a" + QString("\"b\"{c}").repeated(50000) + "(").contains("expected ')'"));
        QVERIFY2(clock.elapsed() < 20000, "linear");
    }
};

QTEST_GUILESS_MAIN(tst_ZELScript)
#include "tst_zelscript.moc"
