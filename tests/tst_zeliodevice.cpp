// SPDX-License-Identifier: MIT
#include "fakedevice.h"
#include "ptypair.h"
#include "table.h"
#include "threads.h"
#include "zelcatch.h"
#include "zelfault.h"
#include "zeliodevice.h"
#include "zelterminal_p.h"

#include <QtTest>
#include <atomic>
#include <fcntl.h>
#include <sys/wait.h>
#include <thread>

namespace {
bool isOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

/// Runs what in a child and waits for it; its status, or -1 when it had to be killed.
template <class F>
int inChild(F what)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        what();
        _exit(99);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}
} // namespace

class tst_ZELIODevice : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void table()
    {
        const int before = ZELIODevice::Device_Table().size();
        {
            FakeDevice device(nullptr);
            QVERIFY(ZELIODevice::Device_Table().contains(&device));
            Threads(4, [] {
                for (int j = 0; j < 500; ++j) {
                    FakeDevice other(nullptr);
                    ZELIODevice::Device_Table();
                }
            }).join();
        }
        QCOMPARE(ZELIODevice::Device_Table().size(), before);
    }

    void rawWhileOpen()
    {
        Pty pty;
        const termios found = pty.settings();
        const int fd = dup(pty.slave);
        ZELStdDevice device(fd);
        termios expected = found;
        expected.c_lflag &= ~tcflag_t(ICANON | ECHO | ISIG);
        expected.c_cc[VMIN] = 1;
        expected.c_cc[VTIME] = 0;
        QVERIFY(pty.isRaw() && pty.is(expected));
        pty.type("\x03\x1a\x1c");
        QCOMPARE(device.readAll(), QByteArray("\x03\x1a\x1c"));
        device.CloseRawInputMode();
        QVERIFY(pty.is(found));
        device.SetRawInputMode();
        QVERIFY(pty.isRaw());
        termios left = found;
        left.c_lflag &= ~tcflag_t(ECHO);
        tcsetattr(fd, TCSANOW, &left);
        zelTerminalReenterRaw(fd);
        QVERIFY(pty.isRaw());
        device.Close();
        QVERIFY(pty.is(found) && !isOpen(fd));
    }

    void abandonedRead()
    {
        int ends[2];
        QVERIFY(pipe(ends) == 0);
        ZELStdDevice device(ends[0]);
        std::atomic<void *> id{nullptr};
        int state = 0;
        std::thread reader([&] {
            const auto outcome = ZELFault::call([&] {
                id = QThread::currentThreadId();
                device.readAll();
            });
            state = outcome.state;
        });
        while (!id || except_stack->Kill(id) != 0)
            QTest::qSleep(20);
        reader.join();
        QCOMPARE(state, SIGQUIT);
        device.Close();
        QVERIFY(!isOpen(ends[0])); // nobody uses it any more
        close(ends[1]);
    }

    void settingsFound()
    {
        Pty pty;
        const termios found = pty.settings();
        ZELStdDevice device(dup(pty.slave)), other(dup(pty.slave));
        device.Start(); // finds its own raw settings
        device.CloseRawInputMode();
        QVERIFY(pty.is(found));
        device.Start();
        termios changed = found;
        changed.c_cc[VERASE] = 8;
        tcsetattr(pty.slave, TCSANOW, &changed);
        device.Start(); // finds what somebody else set meanwhile
        device.Close();
        QVERIFY(pty.is(changed));
        other.SetRawInputMode(); // another descriptor of the same terminal
        QVERIFY(pty.isRaw());
        other.Close();
        QVERIFY(pty.is(changed));
    }

    void restoredAtEnd_data()
    {
        Table<int> row("signal");
        row("exit", 0);
        row("SIGTERM", SIGTERM);
        row("fault", SIGSEGV);
    }

    void restoredAtEnd()
    {
        QFETCH(int, signal);
#ifdef __SANITIZE_THREAD__
        if (signal)
            QSKIP("no signals in a forked child of a program with threads");
#endif
        Pty pty;
        const termios found = pty.settings();
        const int status = inChild([&] {
            installUnixSignal();
            new ZELStdDevice(dup(pty.slave));
            if (!pty.isRaw())
                _exit(98);
            if (!signal)
                exit(3);
            kill(getpid(), signal);
        });
        QVERIFY(pty.is(found));
        if (signal)
            QVERIFY(WIFSIGNALED(status) && WTERMSIG(status) == signal);
        else
            QVERIFY(WIFEXITED(status) && WEXITSTATUS(status) < 98); // a leak checker has its own opinion of the status
    }

    void forkedChildLeavesItAlone()
    {
        Pty pty;
        ZELStdDevice device(dup(pty.slave));
        inChild([] {
            zelRestoreTerminals();
            _exit(0);
        });
        QVERIFY(pty.isRaw());
    }

    void allBytes()
    {
        Pty pty;
        termios transparent = pty.settings();
        cfmakeraw(&transparent);
        tcsetattr(pty.slave, TCSANOW, &transparent);
        ZELStdDevice device(dup(pty.slave));
        QByteArray all;
        for (int i = 0; i < 256; ++i)
            all.append(char(i));
        pty.type(all);
        QCOMPARE(device.readAll(), all);
        device.write(all);
        QCOMPARE(pty.shown(256), all);
        device.write(QString::fromLatin1(all.constData(), all.size()));
        QCOMPARE(pty.shown(256), all);
        device.write(QStringLiteral("\u20ac\u00e9"));
        QVERIFY(pty.shown(2).endsWith('\xe9'));
    }

    void endOfInput_data()
    {
        Table<int> row("fd");
        row("null", ::open("/dev/null", O_RDONLY));
        row("hung up", dup(Pty().slave));
        row("directory", ::open("/", O_RDONLY));
        row("closed", 1000);
        row("negative", -1);
    }

    void endOfInput()
    {
        QFETCH(int, fd);
        ZELStdDevice device(fd);
        int closes = 0;
        device.setCloseHook([&] { ++closes; });
        device.Start();
        QCOMPARE(device.readAll(), QByteArray());
        QCOMPARE(get_screen_width(&device), -1);
        device.Close();
        QCOMPARE(closes, 1);
        QCOMPARE(device.readAll(), QByteArray());
        device.write(QByteArray("x"));
    }

    void closeWakesReader()
    {
        Pty pty;
        ZELStdDevice device(dup(pty.slave));
        std::atomic<bool> back{false};
        std::thread reader([&] { back = device.readAll().isEmpty(); });
        QTest::qWait(20);
        QVERIFY(!back);
        device.Close();
        QTRY_VERIFY(back);
        reader.join();
    }

    void closeTwice()
    {
        Pty pty;
        const int fd = dup(pty.slave);
        ZELStdDevice device(fd);
        QCOMPARE(get_screen_width(&device), 77);
        int closes = 0;
        device.setCloseHook([&] { ++closes; });
        device.Close();
        QCOMPARE(dup2(pty.slave, fd), fd); // the number is somebody else's now
        const termios theirs = pty.settings();
        device.Close();
        device.CloseRawInputMode();
        device.SetRawInputMode();
        QCOMPARE(closes, 1);
        QVERIFY(isOpen(fd) && pty.is(theirs));
        QCOMPARE(get_screen_width(&device), -1);
        QCOMPARE(get_screen_width(nullptr), -1);
        close(fd);
    }

    void brokenPipe()
    {
        const int status = inChild([] {
            int ends[2];
            if (pipe(ends) != 0)
                _exit(98);
            ZELStdDevice device(ends[1]);
            close(ends[0]);
            device.write(QByteArray(1 << 20, 'a'));
            _exit(0);
        });
        QVERIFY(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    void slowReader()
    {
        int ends[2];
        QCOMPARE(pipe2(ends, O_NONBLOCK), 0);
        ZELStdDevice device(ends[1]);
        QByteArray sent;
        for (int i = 0; i < 100000; ++i)
            sent += QByteArray::number(i) + ' ';
        std::thread writer([&] { device.write(sent); });
        QByteArray received;
        char block[3000];
        while (received.size() < sent.size()) {
            const ssize_t count = read(ends[0], block, sizeof block);
            if (count > 0)
                received.append(block, int(count));
            else
                std::this_thread::yield();
        }
        writer.join();
        close(ends[0]);
        QVERIFY(received == sent);
    }

    void fullDescriptor()
    {
        ZELStdDevice full(::open("/dev/full", O_WRONLY));
        full.write(QByteArray("x"));
        int ends[2];
        QCOMPARE(pipe2(ends, O_NONBLOCK), 0);
        ZELStdDevice stuck(ends[1]);
        std::thread writer([&] { stuck.write(QByteArray(1 << 20, 'a')); });
        QTest::qWait(20);
        stuck.Close(); // lets the writer go long before its time is up
        QElapsedTimer timer;
        timer.start();
        writer.join();
        QVERIFY(timer.elapsed() < 5000);
        close(ends[0]);
    }

    /// A time limit while the reader of a pipe, or the user who pressed Ctrl-S, lets the writer wait.
    void stoppedWriter()
    {
#ifdef __SANITIZE_THREAD__
        QSKIP("the sanitizer delivers signals only when a system call has come back");
#endif
        ZELFault::setReport(SIGALRM, false);
        int ends[2];
        QCOMPARE(pipe(ends), 0);
        Pty pty;
        QCOMPARE(tcflow(pty.slave, TCOOFF), 0);
        for (const int fd : {ends[1], dup(pty.slave)}) {
            ZELStdDevice device(fd);
            QElapsedTimer timer;
            timer.start();
            const auto outcome = ZELFault::call(
                [&] {
                    ZELFaultSection section; // as the library's own writers do
                    device.write(QByteArray(1 << 20, 'x'));
                },
                50);
            QCOMPARE(outcome.state, int(SIGALRM));
            QVERIFY(timer.elapsed() < 5000);
        }
        close(ends[0]);
    }

    /// Whatever becomes of standard input, the next file must not take its number.
    void standardInput()
    {
        int in[2], out[2];
        QVERIFY(pipe(in) == 0 && pipe(out) == 0);
        int status = inChild([&] {
            dup2(in[0], 0);
            dup2(out[1], 1);
            ZELStdDevice device(0);
            device.write(QByteArray("x"));
            device.Close();
            _exit(::open("/", O_RDONLY) > 2 ? 0 : 1);
        });
        QCOMPARE(status, 0);
        char x = 0;
        QVERIFY(read(out[0], &x, 1) == 1 && x == 'x');
        for (int fd : {in[0], in[1], out[0], out[1]})
            close(fd);
        status = inChild([] {
            close(0);
            zelKeepStandardDescriptors();
            _exit(::open("/", O_RDONLY) > 2 && ZELStdDevice(0).readAll().isEmpty() ? 0 : 1);
        });
        QCOMPARE(status, 0);
    }
};

QTEST_GUILESS_MAIN(tst_ZELIODevice)
#include "tst_zeliodevice.moc"
