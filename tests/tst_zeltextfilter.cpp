// SPDX-License-Identifier: MIT
#include "shellfixture.h"
#include "table.h"
#include "zelshell_p.h"
#include "zeltextfilter_p.h"

#include <QtTest>

class tst_ZELTextFilter : public ShellFixture
{
    Q_OBJECT
    void registerCommands() override
    {
        server->setFilters(true);
        server->command("", "lines", [](const ZELArguments &args, int count) {
            for (int i = 1; i <= count; ++i)
                args.debug().noquote().nospace() << "line " << i;
        });
        server->command("", "mixed", [](const ZELArguments &args) {
            args.stream() << "part ";
            args.warning() << "of one\r\nand two";
            args.stream() << "no end";
            return "the value";
        });
        server->registerCmd("", "echo", board.get(), SLOT(echo(ZELArguments)));
        server->registerCmd("", "fail", board.get(), SLOT(fail(ZELArguments)));
        server->command("d", "x", [] {});
    }

    /// The bodies of the packets that an answer consists of, each behind its channel and state.
    static QStringList packets(const QString &text)
    {
        QStringList found;
        for (const QString &packet : text.split("ZEL_SHELL_PACKET_END", Qt::SkipEmptyParts)) {
            if (!packet.contains("PACKET_START"))
                continue;
            const int body = packet.indexOf("\r\n\r\n");
            const auto header = [&](const char *name) {
                return QRegularExpression(QString(name) + ": (\\S+)").match(packet.left(body)).captured(1);
            };
            found += header("Accept") + ' ' + header("State") + ' '
                + QString::fromUtf8(QByteArray::fromBase64(packet.mid(body + 4).toLatin1())).trimmed();
        }
        return found;
    }

private Q_SLOTS:
    void splits_data()
    {
        Table<QString, QStringList> row("line", "parts");
        row("a | b", {"a ", " b"});
        row("a |b", {"a |b"});
        row("a| b", {"a| b"});
        row("a |", {"a |"});
        row("| b", {"| b"});
        row("a \" | \" b", {"a \" | \" b"});
        row("a (x ( | ) | ) | b | c", {"a (x ( | ) | ) ", " b ", " c"});
        row("a ( ' | ) | b", {"a ( ' | ) ", " b"});
        row("a ' | ", {"a ' | "});
        row("", {""});
    }

    void splits()
    {
        QFETCH(QString, line);
        QTEST(zelSplitAtBars(line), "parts");
    }

    void terminal_data()
    {
        Table<QString, QString> row("line", "answer");
        row("lines 12 | include 1", "line 1\r\nline 10\r\nline 11\r\nline 12\r\n");
        row("lines 3 | exclude \"e 2\"", "line 1\r\nline 3\r\n");
        row("lines 4 | begin 3", "line 3\r\nline 4\r\n");
        row("lines 4 | count", "4\r\n");
        row("lines 4 | head 2", "line 1\r\nline 2\r\n");
        row("lines 12 | head",
            "line 1\r\nline 2\r\nline 3\r\nline 4\r\nline 5\r\nline 6\r\nline 7\r\nline 8\r\nline 9\r\n"
            "line 10\r\n");
        row("lines 12 | tail 2", "line 11\r\nline 12\r\n");
        row("lines 12 | tail 5 | head 1 | count", "1\r\n");
        row("lines 12 | head 0", "");
        row("lines 2 | more", "line 1\r\nline 2\r\n");
        row("mixed | include two", "\033[30;43mand two\r\n\033[0m");
        row("mixed | count", "3\r\n");
        row("mixed | tail 1", "no endthe value\r\n");
        row("ls | include d",
            "d        \033[33mecho\033[0m     \033[33mfail\033[0m     \033[33mlines\033[0m    \033[33mmixed\033[0m\n");
        row("fail | include nothing", "EXECUTE_ERROR :Exception in board: broken, file f, line 1\r\n");
        row("nothing | count", "0\r\nError : input 'nothing' can not execate\n");
        row("lines x | count",
            "0\r\nlines: arg1 must be a whole number from -2147483648 to 2147483647, not 'x'\r\nUsage: lines arg1\r\n");
        row("lines 1 | grep x", "there is no filter 'grep', only include, exclude, begin, head, tail, count, more\n");
        row("lines 1 | head x", "head: takes a number of lines from 0 to 100000\n");
        row("lines 1 | include", "include: takes one text, in quotes if it has blanks\n");
        row("lines 1 | count 2", "count: takes nothing\n");
        row("echo \"a | b\"", "echo \"a | b\"\r\n");
        row("sys echo 1 | cat", " 1\n\n");
    }

    void terminal()
    {
        QFETCH(QString, line);
        QFETCH(QString, answer);
        if (line.startsWith("sys"))
            answer = "1\n\n";
        QCOMPARE(this->answer(line), answer);
    }

    void packetsAreFiltered()
    {
        QCOMPARE(packets(answer("lines#1 12 | tail 1 " + tag)),
            (QStringList{"STDOUT EXECUTE_PROCESS line 12", "STDOUT EXECUTE_COMPLETE Execute lines Complete!"}));
        QCOMPARE(packets(answer("mixed | include nothing " + tag + "==")),
            QStringList{"STDOUT EXECUTE_RESULT Execute mixed Complete!"});
        QCOMPARE(packets(answer("fail | include nothing " + tag)),
            QStringList{"STDOUT EXECUTE_ERROR EXECUTE_ERROR :Exception in board: broken, file f, line 1"});
        QCOMPARE(packets(answer("lines 1 | grep x " + tag)).size(), 1);
        run("$x = mixed | count");
        QCOMPARE(answer("$x"), "the value\r\n" + prompt);
    }

    void switchedOff()
    {
        server->setFilters(false);
        QCOMPARE(answer("echo a | count"), QString("echo a | count\r\n"));
    }

    /// The first page comes at once, the others by keys.
    void pages()
    {
        auto *session = ZELShellPrivate::get(shell.get());
        session->coreThreadId = QThread::currentThreadId();
        const auto shown = [&](const QByteArray &keys) {
            device->type(keys);
            return answer("lines 60 | more").count("line ");
        };
        QCOMPARE(shown("  "), 60);
        QCOMPARE(shown(" q"), 46);
        QCOMPARE(shown("\n\nq"), 25);
        QCOMPARE(answer("lines 20 | more").count("line "), 20);
        QCOMPARE(answer("lines 60 | more " + tag).count("PACKET_START"), 61);
    }
};

QTEST_MAIN(tst_ZELTextFilter)
#include "tst_zeltextfilter.moc"
