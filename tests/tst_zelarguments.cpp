// SPDX-License-Identifier: MIT
#include "ptypair.h"
#include "recorder.h"
#include "table.h"
#include "zelarguments_p.h"
#include "zelguard_p.h"
#include "zeliodevice.h"

#include <QtTest>
#include <ctime>
#include <fcntl.h>
#include <thread>

class tst_ZELArguments : public QObject
{
    Q_OBJECT
Q_SIGNALS:
    void queued(ZELArguments args);
private Q_SLOTS:
    void split_data()
    {
        Table<QString, QStringList, QStringList> row("line", "kept", "stripped");
        const auto same
            = [&](const char *name, const char *line, const QStringList &words) { row(name, line, words, words); };
        same("separators", "ls  -l,;/tmp\t\r\n", {"ls", "-l", "/tmp"});
        same("nothing", " ,; ", {});
        row("quotes", "echo \"a b\" 'c=d' `e,f`", {"echo", "\"a b\"", "'c=d'", "`e,f`"}, {"echo", "a b", "c=d", "e,f"});
        row("quote joins no word", "a\"b\"c", {"a", "\"b\"", "c"}, {"a", "b", "c"});
        row("brackets", "f(x, y)", {"f", "(x, y)"}, {"f", "x, y"});
        row("nested", "((a))[[b]c]", {"((a))", "[[b]c]"}, {"(a)", "[b]c"});
        row("only one kind nests", "({)}", {"({)"}, {"{"});
        same("empty quotes", "echo \"\" '' () []", {"echo"});
        row("nested empty", "(())", {"(())"}, {"()"});
        same("equals", "x=1 a==b =", {"x", "=", "1", "a", "=", "=", "b", "="});
        same("stray closers", "a)b ]} c", {"ab", "c"});
        row("beyond ASCII", "h\xc3\xa9llo \"h\xc3\xa9 \xe2\x82\xac\"",
            {"hllo", QString::fromUtf8("\"h\xc3\xa9 \xe2\x82\xac\"")},
            {"hllo", QString::fromUtf8("h\xc3\xa9 \xe2\x82\xac")});
        same("backslash escapes nothing", "a\\ b", {"a\\", "b"});
        row("unterminated", "a \"b c", {"a", "\"b c"}, {"a", "b c"});
        row("unterminated empty", "a (", {"a", "("}, {"a"});
        row("backtick after bracket", "(a)`b`(c)", {"(a)", "`b`", "(c)"}, {"a", "b", "c"});
    }

    void split()
    {
        QFETCH(QString, line);
        QTEST(ZELArguments::CommandSplit(line, true, true), "kept");
        QTEST(ZELArguments::CommandSplit(line, false, true), "stripped");
        ZELArguments args(nullptr, line);
        QTEST(QStringList(args), "kept");
        QCOMPARE(args.getAllInput(), line);
        QCOMPARE(ZELArguments::CommandSplit("a \"\" ()", true, false), (QStringList{"a", "\"\"", "()"}));
    }

    void everyCharacter()
    {
        const QString words = "\\!#$%&*+-./:<>?@^_|~";
        for (int i = 0; i < 256; ++i) {
            const QChar c = QChar(ushort(i));
            const bool word = i < 128 && (c.isLetterOrNumber() || words.contains(c));
            const QStringList outside = ZELArguments::CommandSplit(QString(c), false, true);
            QCOMPARE(outside, word || c == '=' ? QStringList{QString(c)} : QStringList());
            if (c != '{' && c != '}')
                QCOMPARE(ZELArguments::CommandSplit('{' + QString(c) + '}', false, true), QStringList{QString(c)});
        }
    }

    void longLines_data()
    {
        Table<QString, int> row("line", "words");
        row("many words", QString("ab ").repeated(1 << 19), (1 << 19));
        row("equals", QString(1 << 20, '='), (1 << 20));
        row("nested", QString(200000, '(') + QString(200000, ')'), 1);
        row("open", QString(200000, '['), 1);
    }

    void longLines()
    {
        QFETCH(QString, line);
        const clock_t before = clock(); // processor time: other programs do not count
        QTEST(ZELArguments::CommandSplit(line, true, true).size(), "words");
        QVERIFY2((clock() - before) / CLOCKS_PER_SEC < 20, "not linear");
    }

    void options_data()
    {
        Table<QString, QString, bool, int, QString> row("line", "opt", "contained", "index", "value");
        row("--file in run --file x.sh", "run --file x.sh", "--file", true, 1, "x.sh");
        row("--file in run --file --quiet", "run --file --quiet", "--file", true, 1, "--quiet");
        row("--file in run --file -", "run --file -", "--file", true, 1, "");
        row("--file in run --file", "run --file", "--file", true, 1, "");
        row("run --file \"a b\"", "--file", true, 1, "a b");
        row("--file in run --file `x`", "run --file `x`", "--file", true, 1, "`x`");
        row("-x in run -x (y)", "run -x (y)", "-x", true, 1, "y");
        row("--n=== in run --n", "run --n", "--n===", false, 1, "");
        row("= in run a", "run a", "=", false, -1, "");
        row(" in run a", "run a", "", false, -1, "");
        row("a in ", "", "a", false, -1, "");
    }

    void options()
    {
        QFETCH(QString, line);
        QFETCH(QString, opt);
        const ZELArguments args(nullptr, line);
        QTEST(args.containsOpt(opt), "contained");
        QTEST(args.indexOfOptFromString(opt), "index");
        QTEST(args.getOptFromString(opt), "value");
        QCOMPARE(args.ArgumentsLength(), qMax(0, args.Length() - 1));
    }

    void quotesOfWords()
    {
        const ZELArguments args(nullptr, QString(), {"'a'", "\"", "(a", "{a}", "[a)", "`a`", ""});
        for (int i = -1; i < 8; ++i)
            QCOMPARE(args.HasQuote(i), i == 0 || i == 1 || i == 3);
        // A lone quote is its own pair.
        QCOMPARE(ZELArguments(nullptr, QString(), {"x", "-o", "\""}).getOptFromString("-o"), QString());
    }

    void removeAt()
    {
        ZELArguments args(nullptr, "cat at \"\" hat", {"cat", "at", "", "hat"});
        args.removeAt(1);
        QCOMPARE(QStringList(args), (QStringList{"cat", "", "hat"}));
        QCOMPARE(args.getAllInput(), QString("c  \"\" h"));
        args.removeAt(1);
        args.removeAt(7);
        args.removeAt(-1);
        QCOMPARE(QStringList(args), (QStringList{"cat", "hat"}));
        QCOMPARE(args.ToString(","), QString("cat,hat"));
    }

    void reset()
    {
        RecorderShell shell;
        ZELArguments args(&shell, "a");
        args.setReturnValue(1);
        args.setMessagePrintHook([](const QString &text) { return text + '!'; });
        const ZELArguments other = args;
        args.reset("echo \"a b\" c");
        QCOMPARE(QStringList(args), (QStringList{"echo", "a b", "c"}));
        QVERIFY(args.getAllInput().isEmpty() && !args.hasRetrunValue());
        QCOMPARE(args.Sender(), &shell);
        QCOMPARE(args.getUuid(), shell.uuid);
        QCOMPARE(args.getMessagePrintHook()("x"), QString("x!"));
        QCOMPARE(other.getReturnValue(), QVariant(1));
    }

    void copiesShare()
    {
        ZELArguments args(nullptr, "a b");
        ZELArguments copy(args), assigned;
        assigned = copy;
        assigned = *&assigned;
        assigned.setReturnValue(5);
        assigned[1] = "c";
        QCOMPARE(args.getReturnValue(), QVariant(5));
        args.setReturnValue(QVariant());
        QCOMPARE(copy.getReturnValue(), QVariant(5));
        QCOMPARE(QByteArray(args), QByteArray("a c"));
        Recorder stream;
        ZELLogging::debug(&stream) << args << 1;
        QCOMPARE(stream.take(), QString("\"a c\" 1\r\n"));
        QString text;
        QDebug(&text) << args << 1;
        QCOMPARE(text, QString("\"a c\" 1 "));
        copy.setProtoclState("EXECUTE_ERROR ");
        QVERIFY(!args.hasError());
        copy.setProtoclState("EXECUTE_ERROR");
        QVERIFY(args.hasError());
        auto *record = ZELArgumentsPrivate::get(args);
        record->answersInPackets = true;
        QCOMPARE(record->packetState(), QString("EXECUTE_PROCESS"));
        ZELArgumentsPrivate::completing = record;
        QCOMPARE(record->packetState(), QString("EXECUTE_ERROR"));
    }

    void throughQueuedConnection()
    {
        QVERIFY(QMetaType::type("ZELArguments") != 0);
        QCOMPARE(QMetaType::type("ZELArguments&"), QMetaType::type("ZELArguments"));
        int words = 0;
        connect(
            this, &tst_ZELArguments::queued, this, [&](ZELArguments args) { words = args.Length(); },
            Qt::QueuedConnection);
        Q_EMIT queued(ZELArguments(nullptr, "a b c"));
        QTRY_COMPARE(words, 3);
    }

    void errors()
    {
        ZELArguments args(nullptr, "a");
        const ZELArguments &constant = args;
        args.setExecPath("/Main/demo");
        args.setExecName("run");
        const auto caught = [](const std::function<void()> &what) {
            ZELFrame frame;
            return zelGuard(frame.get(), what) ? frame->exception->ToString() : QString();
        };
        QCOMPARE(caught([&] { args[1] = "x"; }),
            QString("ASSERT failure ZELCommandArgs::operator[]: \"index out of range\", file zelarguments, line 330"));
        QVERIFY(caught([&] { constant[-1]; }).endsWith("line 336"));
        QCOMPARE(caught([&] { args.throwError("no fan", "board.cpp", 7); }),
            QString("Exception in /Main/demo/run: no fan, file zelarguments, line 624"));
    }

    void channels()
    {
        const struct
        {
            ZELLogging (ZELArguments::*open)() const;
            const char *accept, *output;
        } all[] = {
            {&ZELArguments::debug, "STDOUT", "\"abc\"\r\n"},
            {&ZELArguments::info, "STDINFO", "Info: \"abc\"\r\n"},
            {&ZELArguments::warning, "STDWARNING", "Warning: \"abc\"\r\n"},
            {&ZELArguments::error, "STDERROR", "Error: \"abc\"\r\n"},
            {&ZELArguments::critical, "STDCRITICAL", "Critical: \"abc\"\r\n"},
            {&ZELArguments::fatal, "STDFATAL", "Fatal: \"abc\"\r\n"},
            // The blank after the last item is cut off at emission, with or without a line end.
            {&ZELArguments::stream, "STREAM", "abc"},
            {&ZELArguments::object, "OBJECT", "abc"},
        };
        for (const auto &channel : all) {
            RecorderShell shell;
            const ZELArguments args(&shell, "a");
            (args.*channel.open)() << QString("abc");
            QCOMPARE(args.getProtoclAccept(), QString(channel.accept));
            QCOMPARE(shell.stream.take(), QString(channel.output));
        }
    }

    void printHook()
    {
        RecorderShell shell;
        auto args = std::make_unique<ZELArguments>(&shell, "a");
        auto *record = ZELArgumentsPrivate::get(*args);
        args->setExecName("run");
        args->setMessagePrintHook([record](const QString &text) { return record->execName + ':' + text; });
        {
            ZELLogging log = args->debug();
            log << "x";
            args.reset(); // the handle alone keeps the record that the hook uses
        }
        QCOMPARE(shell.stream.take(), QString("run:x\r\n"));
    }

    void afterTheShell()
    {
        int ends[2];
        QCOMPARE(pipe(ends), 0);
        auto input = std::make_unique<StandardInput>(ends[1]);
        auto shell = std::make_unique<RecorderShell>();
        const ZELArguments args(shell.get(), "a");
        QVERIFY(args.HasSender());
        {
            // Made for the session, so not for the terminal, however late it ends.
            ZELLogging late = args.debug();
            late << "late";
            QTest::ignoreMessage(QtDebugMsg, "Stream is closed, Out [ \"late\\r\\n\" ]");
            shell.reset();
        }
        QVERIFY(!args.Sender() && !args.HasSender());
        args.error() << "lost";
        const int devices = ZELIODevice::Device_Table().size();
        args.stream() << QString("as any other");
        QCOMPARE(ZELIODevice::Device_Table().size(), devices); // such a command may print for ever
        input.reset();
        close(ends[1]);
        char text[100];
        const ssize_t count = read(ends[0], text, sizeof text);
        close(ends[0]);
        QCOMPARE(QByteArray(text, int(count)), QByteArray("Error: lost\r\n\"as any other\"\r\n"));
        QCOMPARE(args.getProtoclAccept(), QString("STREAM"));
    }

    void shellDiesWhilePrinting()
    {
        const int null = open("/dev/null", O_WRONLY);
        for (int i = 0; i < 50; ++i) {
            auto shell = std::make_unique<RecorderShell>();
            const ZELArguments args(shell.get(), "a");
            std::atomic<int> printed{0};
            std::thread job([&printed, args] {
                for (; args.HasSender() && printed < 10000; ++printed)
                    ZELLogging(args.debug()) << printed.load();
            });
            while (printed < 3)
                std::this_thread::yield();
            const StandardInput input(null); // what comes after the shell's end
            shell.reset();
            job.join();
        }
    }
};

QTEST_GUILESS_MAIN(tst_ZELArguments)
#include "tst_zelarguments.moc"
