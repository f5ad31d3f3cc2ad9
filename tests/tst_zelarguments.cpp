// SPDX-License-Identifier: MIT
#include "recorder.h"
#include "table.h"
#include "zelarguments_p.h"
#include "zelguard_p.h"

#include <QtTest>
#include <ctime>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

QVariant RecorderShell::ExecuteString(ZELArguments args)
{
    executed << args.getAllInput();
    return args.Length();
}

static ZELLogging openChannel(const ZELArguments &args, int channel)
{
    using Channel = ZELLogging (ZELArguments::*)() const;
    static const Channel all[]
        = {&ZELArguments::debug, &ZELArguments::info, &ZELArguments::warning, &ZELArguments::error,
            &ZELArguments::critical, &ZELArguments::fatal, &ZELArguments::stream, &ZELArguments::object};
    const Channel open = all[channel];
    return (args.*open)();
}

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
        row("one word", QString(1 << 20, 'a'), 1);
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
        row("--file in run --file -q", "run --file -q", "--file", true, 1, "");
        row("--file in run --file -3", "run --file -3", "--file", true, 1, "-3");
        row("--file in run --file -", "run --file -", "--file", true, 1, "");
        row("--file in run --file", "run --file", "--file", true, 1, "");
        row("run --file \"a b\"", "--file", true, 1, "a b");
        row("--file in run --file `x`", "run --file `x`", "--file", true, 1, "`x`");
        row("-x in run -x (y)", "run -x (y)", "-x", true, 1, "y");
        row("--n in run --n=5", "run --n=5", "--n", true, 1, "=");
        row("--n=== in run --n", "run --n", "--n===", false, 1, "");
        row("= in run a", "run a", "=", false, -1, "");
        row(" in run a", "run a", "", false, -1, "");
        row("run in run a", "run a", "run", false, -1, "");
        row("a in run A", "run A", "a", false, -1, "");
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
        const QList<bool> quoted{true, true, false, true, false, false, false};
        for (int i = 0; i < quoted.size(); ++i)
            QCOMPARE(args.HasQuote(i), quoted.at(i));
        QVERIFY(!args.HasQuote(-1) && !args.HasQuote(7));
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
        copy.setProtoclState("EXECUTE_ERROR ");
        QVERIFY(!args.hasError());
        copy.setProtoclState("EXECUTE_ERROR");
        QVERIFY(args.hasError());
        auto *record = ZELArgumentsPrivate::get(args);
        record->running = true;
        QCOMPARE(record->packetState(), QString("EXECUTE_PROCESS"));
        record->running = false;
        QCOMPARE(record->packetState(), QString("EXECUTE_ERROR"));
    }

    void copiesOnManyThreads()
    {
        std::vector<std::thread> threads;
        {
            const ZELArguments args(nullptr, "a");
            for (int i = 0; i < 4; ++i) {
                threads.emplace_back([args] {
                    for (int j = 0; j < 2000; ++j) {
                        ZELArguments copy(args), other;
                        other = copy;
                    }
                });
            }
        }
        for (std::thread &thread : threads)
            thread.join();
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

    void outOfRange()
    {
        ZELArguments args(nullptr, "a");
        const ZELArguments &constant = args;
        ZELFrame frame, constFrame;
        QVERIFY(zelGuard(frame.get(), [&] { args[1] = "x"; }));
        QCOMPARE(frame->exception->ToString(),
            QString("ASSERT failure ZELCommandArgs::operator[]: \"index out of range\", file zelarguments, line 330"));
        QVERIFY(zelGuard(constFrame.get(), [&] { constant[-1]; }));
        QCOMPARE(constFrame->exception->line(), QString("336"));
    }

    void throwError()
    {
        ZELArguments args(nullptr, "a");
        args.setExecPath("/Main/demo");
        args.setExecName("run");
        ZELFrame frame;
        QVERIFY(zelGuard(frame.get(), [&] { args.throwError("no fan", "board.cpp", 7); }));
        QCOMPARE(
            frame->exception->ToString(), QString("Exception in /Main/demo/run: no fan, file zelarguments, line 624"));
    }

    void channels_data()
    {
        Table<int, QString, QString> row("channel", "accept", "output");
        int i = 0;
        for (const char *name : {"STDOUT", "STDINFO", "STDWARNING", "STDERROR", "STDCRITICAL", "STDFATAL"}) {
            static const char *const prefixes[] = {"", "Info: ", "Warning: ", "Error: ", "Critical: ", "Fatal: "};
            row(name, i, QString(name), QString(prefixes[i]) + "\"abc\"\r\n");
            ++i;
        }
        // The blank after the last item is cut off at emission, with or without a line end.
        row("STREAM", 6, "STREAM", "abc");
        row("OBJECT", 7, "OBJECT", "abc");
    }

    void channels()
    {
        QFETCH(int, channel);
        RecorderShell shell;
        const ZELArguments args(&shell, "a");
        openChannel(args, channel) << QString("abc");
        QTEST(args.getProtoclAccept(), "accept");
        QTEST(shell.stream.take(), "output");
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
        const int input = dup(0);
        dup2(ends[1], 0);
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
        args.stream() << QString("as any other");
        dup2(input, 0);
        close(input);
        close(ends[1]);
        char text[100];
        const ssize_t count = read(ends[0], text, sizeof text);
        close(ends[0]);
        QCOMPARE(QByteArray(text, int(count)), QByteArray("Error: lost\r\n\"as any other\"\r\n"));
        QCOMPARE(args.getProtoclAccept(), QString("STREAM"));
    }

    void execl()
    {
        RecorderShell shell;
        const ZELArguments args(&shell, "a b");
        args.Execl("x %1");
        args.Execl(QString());
        QCOMPARE(shell.executed, (QStringList{"dostring --string x %1\n", "a b"}));
        const ZELArguments orphan; // out here, because the jump out of the call destroys nothing
        ZELFrame frame;
        QVERIFY(zelGuard(frame.get(), [&] { orphan.Execl(QStringLiteral("x")); }));
    }

    void shellDiesWhilePrinting()
    {
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
            const int null = open("/dev/null", O_WRONLY);
            const int input = dup(0);
            dup2(null, 0); // what comes after the shell's end
            shell.reset();
            job.join();
            dup2(input, 0);
            close(input);
            close(null);
        }
    }

    void printers()
    {
        Recorder stream;
        const ZELArguments args(nullptr, "a b");
        ZELLogging::debug(&stream) << args << 1;
        QCOMPARE(stream.take(), QString("\"a b\" 1\r\n"));
        QString text;
        QDebug(&text) << args << 1;
        QCOMPARE(text, QString("\"a b\" 1 "));
    }
};

QTEST_GUILESS_MAIN(tst_ZELArguments)
#include "tst_zelarguments.moc"
