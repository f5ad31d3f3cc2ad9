// SPDX-License-Identifier: MIT
// Commands that ask their user.
#include "noleakcheck.h"
#include "shellfixture.h"
#include "table.h"
#include "zelshell_p.h"
#include "zelshellquestions_p.h"

#include <QTcpSocket>
#include <QtTest>

class tst_ZELShellQuestions : public ShellFixture
{
    Q_OBJECT
    QStringList answers;

    void registerCommands() override
    {
        answers.clear();
        const auto keep = [this](const std::optional<QString> &answer) {
            answers += answer.value_or("none");
            return answer.value_or("none");
        };
        server->command("", "ask", [keep](const ZELArguments &args) { return keep(args.ask("Name?", 20000)); });
        server->command("", "hide", [keep](const ZELArguments &args) { return keep(args.askHidden("Word?", 20000)); });
        server->command("", "short", [keep](const ZELArguments &args) { return keep(args.ask("Name?", 50)); });
        server->command("", "sure", [](const ZELArguments &args) { return args.confirm("Sure?", 20000); });
        server->command("", "limited", [](const ZELArguments &args) { return args.ask("Name?", 20000); })
            .timeLimit(100);
    }

    QString typed(const QString &line, const QByteArray &keys)
    {
        ZELShellPrivate::get(shell.get())->coreThreadId = QThread::currentThreadId();
        device->type(keys);
        return answer(line);
    }

private Q_SLOTS:
    void terminal_data()
    {
        Table<QString, QByteArray, QString> row("line", "keys", "answer");
        row("an answer", "ask", "bob\n", "Name? bob\nbob\r\n");
        row("edited", "ask", "bx\177ob\r\n", "Name? bx\b \b \033[Dob\r\nbob\r\n");
        row("empty", "ask", "\n", "Name? \n\r\n");
        row("utf-8", "hide", "p\xc3\xa4\n", QString::fromLatin1("Word? \np\xe4\r\n"));
        row("hidden", "hide", "pw\177x\n", "Word? \npx\r\n");
        row("cancelled", "ask", "bo\003", "Name? bo\nask: cancelled\r\n");
        row("too late", "short", "bo", "Name? bo\nshort: no answer came in time\r\n");
        row("yes", "sure", "YES\n", "Sure? [y/N] YES\ntrue\r\n");
        row("no", "sure", "\n", "Sure? [y/N] \nfalse\r\n");
    }

    void terminal()
    {
        QFETCH(QString, line);
        QFETCH(QByteArray, keys);
        QFETCH(QString, answer);
        QCOMPARE(typed(line, keys), answer);
    }

    void restStays()
    {
        QCOMPARE(typed("ask", "bob\ny\n"), QString("Name? bob\nbob\r\n"));
        QCOMPARE(typed("sure", {}), QString("Sure? [y/N] y\ntrue\r\n"));
    }

    void ends()
    {
        device->type("bo");
        device->end();
        QCOMPARE(typed("ask", {}), QString("Name? bo\nask: the session has ended\r\n"));
        QVERIFY(answer("limited").contains("ended"));
    }

    void nobody()
    {
        QCOMPARE(answer("ask"), QString("ask: nobody can be asked here\r\n"));
        QVERIFY(!server->execute(nullptr, "/Main", "ask", "ask").toString().compare("none"));
        auto *session = ZELShellPrivate::get(shell.get());
        session->coreThreadId = QThread::currentThreadId();
        session->noTerminal = true;
        QCOMPARE(answer("ask"), QString("ask: there is no terminal to ask on\r\n"));
        QVERIFY(
            answer("ask " + tag).contains(QString("ask: this request takes no questions\r\n").toLatin1().toBase64()));
        QVERIFY(answer("ask " + tag).contains("State: EXECUTE_ERROR\r\n"));
    }

    void packets()
    {
        const QString answered = typed("ask#7 " + tag + ' ' + zelAnswersTag(), "b\xc3\xb6\nnext");
        QVERIFY2(answered.contains("Accept: QUESTION\r\nState: EXECUTE_PROCESS\r\n"), qPrintable(answered));
        QVERIFY2(answered.contains("State: EXECUTE_RESULT\r\n"), qPrintable(answered));
        QCOMPARE(answers, QStringList{QString::fromUtf8("b\xc3\xb6")});
        QCOMPARE(answered.count("ZEL_SHELL_PACKET_START ask#7\r\n"), 2);
        QVERIFY(typed("hide " + zelAnswersTag() + "= " + tag, "x\n").contains("Accept: HIDDENQUESTION\r\n"));
    }

    /// Statements and answers have one limit.
    void tooLong()
    {
        ZELShellPrivate::get(shell.get())->lineLimit = 10;
        QCOMPARE(typed("ask", "0123456789\n"), QString("Name? 0123456789\n0123456789\r\n"));
        QVERIFY(typed("ask", "0123456789x\n").endsWith("ask: the answer is too long\r\n"));
        typed("hide " + zelAnswersTag() + ' ' + tag, "0123456789xy\n");
        QCOMPARE(answers, (QStringList{"0123456789", "none", "none"}));
    }

    void overTcp()
    {
        server->startTcpServer(0);
        QTcpSocket peer;
        peer.connectToHost("127.0.0.1", server->serverPort());
        peer.write("\nask\n");
        QTRY_VERIFY_WITH_TIMEOUT(peer.peek(4096).endsWith("Name? "), 20000);
        peer.write("bob\n");
        QTRY_VERIFY_WITH_TIMEOUT(peer.peek(4096).contains("Name? bob\nbob\r\n"), 20000);
        peer.write("short\n");
        QTRY_VERIFY_WITH_TIMEOUT(peer.peek(4096).contains("short: no answer came in time\r\n"), 20000);
        zelSetCrashDump(false);
        peer.write("limited\n");
        QTRY_VERIFY_WITH_TIMEOUT(peer.peek(4096).contains("Application Timerout,Max time is 100"), 20000);
        zelSetCrashDump(true);
        peer.write("ask\n");
        QTRY_COMPARE_WITH_TIMEOUT(peer.peek(4096).count("Name? "), 4, 20000);
        peer.abort();
        QTRY_COMPARE_WITH_TIMEOUT(answers.size(), 3, 20000);
        QTRY_COMPARE_WITH_TIMEOUT(server->ClientNumber(), 0, 20000);
    }
};

QTEST_GUILESS_MAIN(tst_ZELShellQuestions)
#include "tst_zelshellquestions.moc"
