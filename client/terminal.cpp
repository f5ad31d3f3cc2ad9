// SPDX-License-Identifier: MIT
#include "terminal.h"

#include <QRegularExpression>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <zelshellclient.h>

namespace {

constexpr int leaveKey = 29; // Ctrl-]
constexpr int endingSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL};

termios found, raw;
volatile sig_atomic_t changed = 0;

void restore()
{
    if (changed)
        tcsetattr(STDIN_FILENO, TCSANOW, &found);
    changed = 0;
}

// Only calls that are safe in a handler.
void onSignal(int number)
{
    restore();
    signal(number, SIG_DFL);
    raise(number);
}

/// Stopped from outside, as no key does it here: the shell that goes on finds its terminal as it was.
void onStop(int number)
{
    const int before = errno;
    tcsetattr(STDIN_FILENO, TCSANOW, &found);
    signal(number, SIG_DFL);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, number);
    raise(number);
    sigprocmask(SIG_UNBLOCK, &stop, nullptr); // stops here
    signal(number, onStop);
    if (changed)
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    errno = before;
}

/// The terminal's settings while it stands, with some local modes switched off.
class Modes
{
public:
    explicit Modes(tcflag_t off)
    {
        if (tcgetattr(STDIN_FILENO, &found) != 0)
            return;
        for (int number : endingSignals)
            signal(number, onSignal);
        raw = found;
        raw.c_lflag &= ~off;
        if (off & ICANON) {
            raw.c_iflag &= ~tcflag_t(IXON);
            raw.c_cc[VMIN] = 1;
            raw.c_cc[VTIME] = 0;
        }
        // Before the change: a signal in between restores what was never changed, which is harmless.
        changed = 1;
        signal(SIGTSTP, onStop);
        tcsetattr(STDIN_FILENO, TCSADRAIN, &raw);
    }
    ~Modes()
    {
        restore();
        signal(SIGTSTP, SIG_DFL);
        for (int number : endingSignals)
            signal(number, SIG_DFL);
    }
};

void show(const QByteArray &bytes)
{
    for (int done = 0; done < bytes.size();) {
        const ssize_t count = write(STDOUT_FILENO, bytes.constData() + done, size_t(bytes.size() - done));
        if (count < 0 && errno != EINTR)
            return;
        done += int(qMax<ssize_t>(count, 0));
    }
}

} // namespace

Terminal::Terminal(ZELShellClient &client)
    : m_client(client)
    , m_bannerFirst(m_mutex)
{
    winsize size = {};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    const auto hook = [this](const QByteArray &bytes) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        show(bytes);
        m_lastShown = (m_lastShown + bytes).right(4096);
    };
    client.setTerminalHook(hook, size.ws_col);
}

Terminal::~Terminal()
{
    if (m_bannerFirst.owns_lock())
        m_bannerFirst.unlock();
    m_client.close();
}

Status Terminal::run(const QString &address)
{
    const int ended = eventfd(0, EFD_CLOEXEC);
    QObject::connect(&m_client, &ZELShellClient::disconnected, [ended] { eventfd_write(ended, 1); });
    bool left;
    {
        // Line ends are still translated on their way out.
        const Modes modes(ICANON | ECHO | ISIG | IEXTEN);
        std::fprintf(stderr, "Connected to %s; Ctrl-] leaves.\n", qPrintable(address));
        show(m_client.banner().toUtf8());
        m_bannerFirst.unlock();
        left = m_client.isConnected() && sendKeys(ended);
        m_client.close();
    }
    if (!left && !wasToldToEnd()) {
        std::fprintf(stderr, "\nzelsh: connection to %s lost\n", qPrintable(address));
        return NoConnection;
    }
    std::fprintf(stderr, left ? "\nLeft %s.\n" : "\nConnection to %s closed.\n", qPrintable(address));
    return Success;
}

/// The host says nothing on "quit": that shows only in what was typed, or came from its history or completion.
bool Terminal::wasToldToEnd() const
{
    QString line = QString::fromUtf8(m_lastShown.mid(m_lastShown.lastIndexOf("ZELShell@")));
    line.remove(QRegularExpression("\x1b\\[[0-9;]*[A-Za-z]"));
    line += '\n' + QString::fromUtf8(m_lastTyped).section('\n', -2);
    return line.contains(QRegularExpression("\\b(quit|exit|reinit)\\b"));
}

/// Until the host closes the connection (false), or the person leaves or hangs up (true).
bool Terminal::sendKeys(int ended)
{
    pollfd entries[] = {{STDIN_FILENO, POLLIN, 0}, {ended, POLLIN, 0}};
    for (;;) {
        if (poll(entries, 2, -1) < 0) {
            if (errno != EINTR)
                return false;
            continue;
        }
        if (entries[1].revents)
            return false;
        if (!entries[0].revents)
            continue;
        char keys[1024];
        const ssize_t count = read(STDIN_FILENO, keys, sizeof keys);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0 || memchr(keys, leaveKey, size_t(count)))
            return true;
        m_lastTyped = (m_lastTyped + QByteArray(keys, int(count))).right(256);
        if (!m_client.sendKeys(QByteArray(keys, int(count))))
            return false;
    }
}

QString askPassword()
{
    const Modes hidden(ECHO);
    std::fprintf(stderr, "Password: ");
    char line[1024];
    const bool read = std::fgets(line, sizeof line, stdin);
    std::fprintf(stderr, "\n");
    return read ? QString::fromUtf8(line).remove('\n') : QString();
}
