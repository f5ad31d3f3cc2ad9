// SPDX-License-Identifier: MIT
#include "fakehost.h"
#include "ptyhost.h"
#include "table.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

/// Runs the installed command against peers that answer, err, hang, hang up or talk nonsense.
/// Answers every statement with what its word asks for.
static void answer(QTcpSocket &socket)
{
    FakeHost::greet(socket);
    for (QByteArray line = FakeHost::readLine(socket); !line.isEmpty(); line = FakeHost::readLine(socket)) {
        const QByteArray key = line.split(' ').first(), word = key.split('#').first();
        const QByteArray report = "Execute " + word + " Complete!\r\n";
        const auto send = [&](const QByteArray &state, const QByteArray &text, const QByteArray &more = {}) {
            FakeHost::send(socket, FakeHost::packet(key, state, text, more));
        };
        if (word == "hangup")
            return;
        if (word == "say")
            send("EXECUTE_PROCESS", line.split(' ').value(1) + "\r\n");
        if (word == "say" || word == "done")
            send("EXECUTE_COMPLETE", report);
        else if (word == "value")
            send("EXECUTE_RESULT", report, "ReturnType: 2\r\nReturn: " + QByteArray("42").toBase64() + "\r\n");
        else if (word == "err")
            send("EXECUTE_ERROR", "it broke\r\n");
        else if (word == "locked")
            send("EXECUTE_RUNNINGLOCK", "locked is already in running!\r\n");
        else if (word == "forbidden")
            send("EXECUTE_PERMISSION_ERROR", "no\r\n");
        else if (word == "quit")
            send("ZEL_SHELL_DISCONNECT", "ZEL shell disconnect\r\n");
        else if (word != "hang")
            send("EXECUTE_NOTFOUND", "Error : input '" + key + "' can not execate");
    }
}

static QByteArray on(const QByteArray &channel, QByteArray packet)
{
    return packet.replace("Accept: STDOUT", "Accept: " + channel);
}

// Echoes keys until "q", as a host with a line editor would, or fails at "x".
static void echo(QTcpSocket &socket)
{
    if (FakeHost::readLine(socket) != " --columns 80\n")
        return;
    FakeHost::send(socket, FakeHost::banner() + "prompt$ ");
    while (socket.waitForReadyRead(10000)) {
        const QByteArray keys = socket.readAll();
        FakeHost::send(socket, '<' + keys.toHex() + (keys.contains('q') ? ">ZELShell@\x1b[33m $ \x1b[0mquit\n" : ">"));
        if (keys.contains('q') || keys.contains('x'))
            return;
    }
}

class tst_Zelsh : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void statuses_data()
    {
        Table<QString, int, QByteArray, QByteArray> row("command", "status", "out", "err");
        row("say hello", 0, "hello\n", "");
        row("value", 0, "42\n", "");
        row("err", 1, "", "it broke\n");
        row("forbidden", 126, "", "no\n");
        row("nothing", 127, "", "Error : input 'nothing' can not execate\n");
        row("quit", 0, "ZEL shell disconnect\n", "");
        row("hangup; say never", 255, "", "zelsh: connection lost during hangup\n");
        row("say one; err; say two; nothing", 1, "one\ntwo\n", "it broke\nError : input 'nothing' can not execate\n");
        row("say \"", 2, "", "zelsh: unfinished quote or bracket: say \"\n");
        row("hang; say never", 124, "", "zelsh: no end of hang after 0.3 s\n");
    }

    void statuses()
    {
        QFETCH(QString, command);
        FakeHost host(answer);
        QStringList arguments{at(host), command};
        if (command.startsWith("hang;"))
            arguments = QStringList{"--timeout", "0.3"} + arguments;
        const Outcome outcome = run(arguments);
        QTEST(outcome.err, "err");
        QTEST(outcome.out, "out");
        QTEST(outcome.status, "status");
    }

    void usage_data()
    {
        Table<QStringList> row("arguments");
        row("unknown option", {"--nope", "h"});
        row("bad port", {"h:99999", "x"});
        row("bad time-out", {"--timeout", "nan", "h", "x"});
        row("command and script", {"--file", "-", "h", "x"});
        row("one input for two", {"--password-file", "-", "h"});
    }

    void usage()
    {
        QFETCH(QStringList, arguments);
        const Outcome outcome = run(arguments, "x\n");
        QCOMPARE(outcome.status, 2);
        QVERIFY(outcome.err.startsWith("zelsh: ") && outcome.err.count('\n') == 1);
        QVERIFY(run({"--help"}).out.contains("HOST[:PORT]"));
        QVERIFY(run({"--version"}).out.startsWith("zelsh "));
    }

    void channels()
    {
        FakeHost host([](QTcpSocket &socket) {
            FakeHost::greet(socket);
            const QByteArray key = FakeHost::readKey(socket);
            for (const char *channel : {"STDOUT", "STDINFO", "STDWARNING", "STDERROR", "STDCRITICAL", "STDFATAL"})
                FakeHost::send(
                    socket, on(channel, FakeHost::packet(key, "EXECUTE_PROCESS", channel + QByteArray("\r\n"))));
            FakeHost::send(socket, FakeHost::packet(key, "EXECUTE_COMPLETE", "own words\xc3\xa4"));
            FakeHost::readLine(socket);
        });
        const Outcome outcome = run({at(host), "x", "--user", "y"});
        QCOMPARE(outcome.out, QByteArray("STDOUT\nSTDINFO\nown words\xc3\xa4\n"));
        QCOMPARE(outcome.err, QByteArray("STDWARNING\nSTDERROR\nSTDCRITICAL\nSTDFATAL\n"));
        QCOMPARE(outcome.status, 0);
    }

    void json()
    {
        FakeHost host(answer);
        const Outcome outcome = run({"--json", at(host), "say \"x\"; value; err"});
        QCOMPARE(outcome.status, 1);
        QCOMPARE(outcome.err, QByteArray());
        QList<QJsonObject> objects;
        for (const QByteArray &line : outcome.out.trimmed().split('\n'))
            objects << QJsonDocument::fromJson(line).object();
        QCOMPARE(objects.size(), 4);
        QCOMPARE(objects[0]["text"].toString(), QString("\"x\"\r\n"));
        QCOMPARE(objects[0]["state"].toString(), QString("EXECUTE_PROCESS"));
        QCOMPARE(objects[2]["return"].toString(), QString("42"));
        QCOMPARE(objects[2]["returnType"].toInt(), 2);
        QCOMPARE(objects[3]["text"].toString(), QString("it broke\r\n"));
    }

    void scripts()
    {
        const QByteArray script = "#!/usr/bin/zelsh\n\nsay 1; say 2\r\n  # comment\nerr\nsay 3";
        QTemporaryFile written;
        QVERIFY(written.open() && written.write(script) > 0 && written.flush());
        FakeHost host(answer);
        const QStringList ways[] = {{at(host)}, {"--file", "-", at(host)}, {"--file", written.fileName(), at(host)}};
        for (const QStringList &way : ways) {
            const Outcome outcome = run(way, script);
            QCOMPARE(outcome.out, QByteArray("1\n2\n3\n"));
            QCOMPARE(outcome.status, 1);
        }
        QCOMPARE(run({"--file", "/nonexistent", at(host)}).status, 2);
    }

    // The host answers the job only after the statement behind it.
    void background()
    {
        FakeHost host([](QTcpSocket &socket) {
            FakeHost::greet(socket);
            const QByteArray job = FakeHost::readLine(socket), next = FakeHost::readLine(socket);
            FakeHost::send(socket, FakeHost::packet(next.split(' ').first(), "EXECUTE_COMPLETE", "second"));
            FakeHost::send(socket,
                FakeHost::packet(job.split(' ').first(), "EXECUTE_COMPLETE", job.endsWith("&\n") ? "first" : ""));
            FakeHost::readLine(socket);
        });
        const Outcome outcome = run({at(host)}, "job &\nnext\n");
        QCOMPARE(outcome.out, QByteArray("second\nfirst\n"));
        QCOMPARE(outcome.status, 0);
    }

    void login()
    {
        Note hello;
        FakeHost host([&](QTcpSocket &socket) {
            const QByteArray line = FakeHost::readLine(socket).trimmed(), key = line.mid(line.lastIndexOf(' ') + 1);
            hello.write(line);
            const bool good = line.startsWith("--nt --user \"bob\" --password \"se cret\" --key ");
            FakeHost::send(socket, good ? FakeHost::banner('{' + key + '}') : FakeHost::banner());
            FakeHost::send(socket, FakeHost::packet(FakeHost::readKey(socket), "EXECUTE_COMPLETE", "in"));
            FakeHost::readLine(socket);
        });
        const Outcome good = run({"--user", "bob", "--password-file", "-", at(host), "x"}, "se cret\r\nmore\n");
        QCOMPARE(good.out, QByteArray("in\n"));
        QCOMPARE(good.status, 0);
        const Outcome bad = run({"--user", "bob", at(host), "x"});
        QCOMPARE(QString(bad.err), "zelsh: " + at(host) + ": login refused\n");
        QCOMPARE(bad.status, 255);
    }

    void brokenPipeline()
    {
        FakeHost host(answer);
        const auto shell = [&](const QString &text) {
            QProcess process;
            process.start("/bin/bash", {"-o", "pipefail", "-c", text});
            process.closeWriteChannel();
            return process.waitForFinished(20000) ? process.exitCode() : -1;
        };
        const QString zelsh = QString(ZELSH) + ' ';
        QCOMPARE(shell(zelsh + at(host) + " 'say 1; say 2' | grep -x 2"), 0);
        QCOMPARE(shell("echo err | " + zelsh + at(host) + " | cat"), 1);
        QCOMPARE(shell(zelsh + at(host) + " 'say 1; say 2; say 3' | true") & ~141, 0);
        QCOMPARE(shell(zelsh + at(host) + " say 1 > /dev/full"), 1);
    }

    void session()
    {
        FakeHost host(echo);
        PtyHost terminal({ZELSH, at(host)});
        QVERIFY(terminal.waitFor("prompt$ "));
        const QByteArray start = terminal.takeAll();
        QVERIFY(start.indexOf("ConnectId = ") < start.indexOf("prompt$ "));
        QVERIFY(terminal.isRaw());
        for (const QByteArray key : {"\t", "\x1b[A", "\x03", "\x7f", "\xc3\xa4"}) {
            QVERIFY(terminal.type(key));
            QVERIFY2(terminal.waitFor('<' + key.toHex() + '>'), key.toHex());
            terminal.takeAll();
        }
        QVERIFY(terminal.type("\r"));
        QVERIFY2(terminal.waitFor("<0a>"), "the host ends lines at line feeds");
        QVERIFY(terminal.type("q"));
        QVERIFY(terminal.waitForEnd());
        QVERIFY(terminal.takeAll().contains("closed."));
        QCOMPARE(terminal.status(), 0);
        QVERIFY(terminal.isRestored());
    }

    void terminalIsRestored_data()
    {
        Table<int, QByteArray> row("signal", "keys"); // or a negative exit status
        row("Ctrl-]", 0, "\x1d");
        row("lost", -255, "x");
        row("terminate", SIGTERM, "");
        row("abort", SIGABRT, "");
        row("fault", SIGSEGV, "");
    }

    void terminalIsRestored()
    {
        QFETCH(int, signal);
        QFETCH(QByteArray, keys);
        FakeHost host(echo);
        PtyHost terminal({ZELSH, at(host)});
        QVERIFY(terminal.waitFor("prompt$ ") && terminal.isRaw());
        if (signal > 0)
            kill(terminal.pid(), signal);
        else
            QVERIFY(terminal.type(keys));
        QVERIFY(terminal.waitForEnd());
        QCOMPARE(terminal.status(), -signal);
        QVERIFY(terminal.isRestored());
    }

    void passwordIsNotShown()
    {
        Note hello;
        FakeHost host([&](QTcpSocket &socket) {
            hello.write(FakeHost::readLine(socket));
            FakeHost::send(socket, FakeHost::banner());
        });
        PtyHost terminal({ZELSH, "--user", "bob", at(host), "x"});
        QVERIFY(terminal.waitFor("Password: "));
        QVERIFY(terminal.type("secret\n"));
        QVERIFY(terminal.waitForEnd());
        QVERIFY(hello.read().contains("--password \"secret\""));
        QVERIFY(!terminal.takeAll().contains("secret"));
        QVERIFY(terminal.isRestored());
        QCOMPARE(terminal.status(), 255);
    }

private:
    struct Outcome
    {
        int status;
        QByteArray out;
        QByteArray err;
    };

    static Outcome run(const QStringList &arguments, const QByteArray &input = QByteArray())
    {
        QProcess process;
        process.start(ZELSH, arguments);
        process.write(input);
        process.closeWriteChannel();
        const bool ended = process.waitForFinished(20000);
        const bool normal = ended && process.exitStatus() == QProcess::NormalExit;
        return {normal ? process.exitCode() : -1, process.readAllStandardOutput(), process.readAllStandardError()};
    }
    static QString at(const FakeHost &host) { return "127.0.0.1:" + QString::number(host.port()); }
};

QTEST_GUILESS_MAIN(tst_Zelsh)
#include "tst_zelsh.moc"
