// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_PTYHOST_H
#define TESTS_SUPPORT_PTYHOST_H

#include <QByteArray>
#include <QDeadlineTimer>
#include <QList>
#include <QStringList>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utility>
#include <vector>

/**
 * A program on a terminal of its own: the test is the person at the keyboard.
 *
 * The child dies with this object, and with the test program. Every wait is bounded; generous, because it only lasts
 * that long when something is wrong.
 *
 *     PtyHost host({"/bin/cat"});
 *     host.type("abc\n");
 *     QVERIFY(host.waitFor("abc"));
 */
class PtyHost
{
public:
    enum Output { Translated, Plain };
    static constexpr int patience = 30000;

    /// With plain output a line feed is not turned into CR LF on the way.
    explicit PtyHost(const QStringList &command, int columns = 80, int rows = 24, Output output = Translated)
    {
        QList<QByteArray> words;
        for (const QString &word : command)
            words += word.toLocal8Bit();
        m_found = cooked();
        if (output == Plain)
            m_found.c_oflag &= ~tcflag_t(OPOST);
        winsize size{};
        size.ws_col = static_cast<unsigned short>(columns);
        size.ws_row = static_cast<unsigned short>(rows);
        const pid_t parent = getpid();
        m_pid = forkpty(&m_master, nullptr, &m_found, &size);
        if (m_pid == 0)
            become(words, parent);
    }
    ~PtyHost()
    {
        if (m_master >= 0)
            close(m_master);
        if (m_pid > 0 && !m_ended) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    PtyHost(const PtyHost &) = delete;
    PtyHost &operator=(const PtyHost &) = delete;

    pid_t pid() const { return m_pid; }

    /// Sends keys, reading meanwhile: a terminal holds only a few thousand bytes either way.
    bool type(const QByteArray &bytes)
    {
        const QDeadlineTimer deadline(patience);
        int sent = 0;
        while (sent < bytes.size() && !deadline.hasExpired()) {
            pollfd terminal{m_master, POLLIN | POLLOUT, 0};
            if (poll(&terminal, 1, 100) > 0 && terminal.revents & POLLIN && !take())
                return false;
            // Half a typeahead buffer at a time never blocks once the terminal takes anything at all.
            if (terminal.revents & POLLOUT) {
                const auto count = write(m_master, bytes.constData() + sent, size_t(qMin(bytes.size() - sent, 1024)));
                sent += count > 0 ? int(count) : 0;
            }
        }
        return sent == bytes.size();
    }

    /// Waits until `mark` stands in the output that was not taken yet.
    bool waitFor(const QByteArray &mark, int ms = patience)
    {
        return waitUntil([&] { return m_output.contains(mark); }, ms);
    }

    /// Waits until the output that was not taken yet is at least that long.
    bool waitForSize(int bytes, int ms = patience)
    {
        return waitUntil([&] { return m_output.size() >= bytes; }, ms);
    }

    /// The output since the last call; with a mark, up to its end, after waiting for it.
    QByteArray take(const QByteArray &mark, int ms = patience)
    {
        if (!waitFor(mark, ms))
            return takeAll();
        const int end = m_output.indexOf(mark) + mark.size();
        const QByteArray taken = m_output.left(end);
        m_output.remove(0, end);
        return taken;
    }
    QByteArray takeAll() { return std::exchange(m_output, QByteArray()); }

    /// Waits for the program's end, reading what it still writes.
    bool waitForEnd(int ms = patience)
    {
        const QDeadlineTimer deadline(ms);
        while (!m_ended && !deadline.hasExpired()) {
            wait(20);
            m_ended = waitpid(m_pid, &m_status, WNOHANG) == m_pid;
        }
        while (wait(0)) { }
        return m_ended;
    }
    /// The exit status; minus the signal's number when one ended it.
    int status() const { return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -WTERMSIG(m_status); }

    /// The settings of the terminal, also after the program's end.
    termios settings() const
    {
        termios modes{};
        tcgetattr(m_master, &modes);
        return modes;
    }
    bool isRaw() const { return !(settings().c_lflag & (ICANON | ECHO)); }
    /// Whether the settings are those that the program found.
    bool isRestored() const
    {
        const termios now = settings();
        return now.c_lflag == m_found.c_lflag && now.c_iflag == m_found.c_iflag && now.c_oflag == m_found.c_oflag
            && now.c_cc[VMIN] == m_found.c_cc[VMIN] && now.c_cc[VTIME] == m_found.c_cc[VTIME];
    }
    /// Puts the settings back that the program found.
    void makeCooked() { tcsetattr(m_master, TCSANOW, &m_found); }
    /// Takes the terminal away, as when a window is closed.
    void hangUp() { close(std::exchange(m_master, -1)); }

private:
    static termios cooked()
    {
        termios modes{};
        modes.c_iflag = ICRNL | IXON;
        modes.c_oflag = OPOST | ONLCR;
        modes.c_cflag = CS8 | CREAD;
        modes.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | IEXTEN;
        modes.c_cc[VINTR] = 3;
        modes.c_cc[VERASE] = 127;
        modes.c_cc[VEOF] = 4;
        modes.c_cc[VMIN] = 1;
        cfsetspeed(&modes, B38400);
        return modes;
    }

    [[noreturn]] static void become(const QList<QByteArray> &words, pid_t parent)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::vector<char *> arguments;
        for (const QByteArray &word : words)
            arguments.push_back(const_cast<char *>(word.constData()));
        arguments.push_back(nullptr);
        if (getppid() == parent)
            execvp(arguments[0], arguments.data());
        _exit(126);
    }

    template <class Condition>
    bool waitUntil(Condition condition, int ms)
    {
        const QDeadlineTimer deadline(ms);
        while (!condition()) {
            if (deadline.hasExpired() || m_master < 0 || (!wait(100) && m_closed))
                return condition();
        }
        return true;
    }

    /// Waits for output and takes it in; false when none came.
    bool wait(int ms)
    {
        pollfd terminal{m_master, POLLIN, 0};
        return poll(&terminal, 1, ms) > 0 && take();
    }
    bool take()
    {
        char buffer[4096];
        const auto count = read(m_master, buffer, sizeof buffer);
        m_closed = count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
        if (count > 0)
            m_output.append(buffer, int(count));
        return count > 0;
    }

    termios m_found{};
    int m_master = -1;
    pid_t m_pid = -1;
    QByteArray m_output;
    int m_status = 0;
    bool m_ended = false;
    bool m_closed = false;
};

#endif
