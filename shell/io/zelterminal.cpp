// SPDX-License-Identifier: MIT
#include "zelterminal_p.h"

#include "zelguard_p.h"
#include "zelsignals_p.h"

#include <algorithm>
#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <initializer_list>
#include <iterator>
#include <mutex>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace {
// Plain data of static storage: a handler may look at it at any time, before main and after exit.
struct RawTerminal
{
    std::atomic<bool> raw;
    int fd;
    pid_t process; // a forked child that exits leaves its parent's terminal alone
    dev_t device;
    ino_t node; // the descriptor may have been closed and its number reused
    termios found;
    termios set;
    bool allKeys; // flow control and quoting are not the terminal's business
};
RawTerminal terminals[64];

std::mutex &tableMutex()
{
    static auto *mutex = new std::mutex;
    return *mutex;
}

bool sameSettings(const termios &a, const termios &b)
{
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag && a.c_lflag == b.c_lflag
        && memcmp(a.c_cc, b.c_cc, sizeof a.c_cc) == 0;
}

bool isSame(const RawTerminal &terminal, const struct stat &info)
{
    return terminal.device == info.st_dev && terminal.node == info.st_ino;
}

RawTerminal *entryOf(int fd)
{
    for (RawTerminal &terminal : terminals) {
        if (terminal.raw && terminal.fd == fd)
            return &terminal;
    }
    for (RawTerminal &terminal : terminals) {
        if (!terminal.raw)
            return &terminal;
    }
    return nullptr;
}

// The settings to go back to from `now`: those found before, where `now` is what was set here.
termios settingsFound(const struct stat &info, const termios &now)
{
    for (const RawTerminal &terminal : terminals) {
        if (terminal.raw && isSame(terminal, info) && sameSettings(terminal.set, now))
            return terminal.found;
    }
    return now;
}

termios rawSettings(termios settings, bool allKeys)
{
    settings.c_lflag &= ~tcflag_t(ICANON | ECHO | ISIG | (allKeys ? IEXTEN : 0));
    settings.c_iflag &= ~tcflag_t(allKeys ? IXON : 0);
    settings.c_cc[VTIME] = 0;
    settings.c_cc[VMIN] = 1;
    return settings;
}

void enter(RawTerminal &terminal, int fd, const struct stat &info, const termios &found)
{
    terminal.raw = false;
    terminal.fd = fd;
    terminal.process = getpid();
    terminal.device = info.st_dev;
    terminal.node = info.st_ino;
    terminal.found = found;
    terminal.set = rawSettings(found, false);
    terminal.allKeys = false;
    terminal.raw = true;
}

// In the background the terminal is somebody else's by now, and SIGTTOU would stop the process on its way out.
bool apply(const RawTerminal &terminal, const termios &settings)
{
    struct stat info;
    if (terminal.process != getpid() || fstat(terminal.fd, &info) != 0 || !isSame(terminal, info))
        return false;
    const pid_t foreground = tcgetpgrp(terminal.fd);
    if (foreground > 0 && foreground != getpgrp())
        return false;
    sigset_t output, before;
    sigemptyset(&output);
    sigaddset(&output, SIGTTOU);
    pthread_sigmask(SIG_BLOCK, &output, &before);
    tcsetattr(terminal.fd, TCSANOW, &settings);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return true;
}

bool applyToAll(termios RawTerminal::*settings)
{
    bool any = false;
    for (const RawTerminal &terminal : terminals)
        any = (terminal.raw && apply(terminal, terminal.*settings)) || any;
    return any;
}

std::atomic<int> resumeDescriptor{-1};
constexpr uint64_t resumed = 1, resized = uint64_t(1) << 32; // added up in the descriptor
thread_local std::function<void()> redrawAfterResume, redrawAfterResize;

void tell(uint64_t what)
{
    const int error = errno;
    if (write(resumeDescriptor, &what, sizeof what) < 0)
        errno = error; // the line stands as it was
}

void noteSize(int)
{
    tell(resized);
}

// Only the shell's own screen is told: without one in the foreground there is nobody to read it.
void stopTidily(int number)
{
    const int error = errno;
    if (applyToAll(&RawTerminal::found))
        recvPauseSignal(number);
    raise(SIGSTOP);
    errno = error;
}

void goOn(int number)
{
    const int error = errno;
    if (applyToAll(&RawTerminal::set)) {
        recvResumeSignal(number);
        tell(resumed);
    }
    errno = error;
}

// The signal is blocked until the handler returns; then the default action ends the process.
void restoreAndDie(int number)
{
    const int error = errno;
    zelRestoreTerminals();
    signal(number, SIG_DFL);
    raise(number);
    errno = error;
}

void installWhereDefault(int number, void (*handler)(int), int flags)
{
    struct sigaction action = {};
    if (sigaction(number, nullptr, &action) != 0 || (action.sa_flags & SA_SIGINFO) || action.sa_handler != SIG_DFL)
        return;
    action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaddset(&action.sa_mask, SIGQUIT); // no jump comes out of these handlers
    sigaddset(&action.sa_mask, SIGALRM);
    sigaction(number, &action, nullptr);
}

void restoreAtEveryEnd()
{
    atexit(zelRestoreTerminals);
    zelProcessEnding = zelRestoreTerminals; // a fault that no frame takes
    for (int number : {SIGTERM, SIGHUP, SIGINT})
        installWhereDefault(number, restoreAndDie, SA_ONSTACK);
    zelNoteApplicationName();
    resumeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    installWhereDefault(SIGTSTP, stopTidily, SA_ONSTACK | SA_RESTART);
    installWhereDefault(SIGCONT, goOn, SA_ONSTACK | SA_RESTART);
}
} // namespace

bool zelTerminalEnterRaw(int fd)
{
    static std::once_flag once;
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(tableMutex());
    termios now;
    struct stat info;
    if (tcgetattr(fd, &now) != 0 || fstat(fd, &info) != 0)
        return false;
    const termios found = settingsFound(info, now);
    RawTerminal *terminal = entryOf(fd);
    if (!terminal)
        return false;
    std::call_once(once, restoreAtEveryEnd);
    // An entry that says the same already is left alone: a signal would miss it while it is being written.
    if (!terminal->raw || terminal->process != getpid() || !isSame(*terminal, info)
        || !sameSettings(terminal->found, found))
        enter(*terminal, fd, info, found);
    tcsetattr(fd, TCSANOW, &terminal->set);
    return true;
}

void zelTerminalReenterRaw(int fd)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(tableMutex());
    const RawTerminal *terminal = entryOf(fd);
    if (terminal && terminal->raw)
        tcsetattr(fd, TCSANOW, &terminal->set);
}

void zelTerminalLeaveRaw(int fd)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(tableMutex());
    RawTerminal *terminal = entryOf(fd);
    if (!terminal || !terminal->raw)
        return;
    apply(*terminal, terminal->found);
    terminal->raw = false;
}

bool zelTerminalIsRaw(int fd)
{
    struct stat info;
    const auto isIt = [&info](const RawTerminal &terminal) { return terminal.raw && isSame(terminal, info); };
    const auto isUsed = [](const RawTerminal &terminal) { return terminal.raw.load(); };
    return std::any_of(std::begin(terminals), std::end(terminals), isUsed) && fstat(fd, &info) == 0
        && std::any_of(std::begin(terminals), std::end(terminals), isIt);
}

void zelTerminalTakeAllKeys(int fd)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(tableMutex());
    RawTerminal *terminal = entryOf(fd);
    if (!terminal || !terminal->raw)
        return;
    terminal->allKeys = true;
    terminal->set = rawSettings(terminal->found, true);
    tcsetattr(fd, TCSANOW, &terminal->set);
    installWhereDefault(SIGWINCH, noteSize, SA_ONSTACK | SA_RESTART);
}

bool zelTerminalInterruptKey(int fd, bool on)
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(tableMutex());
    RawTerminal *terminal = entryOf(fd);
    if (!terminal || !terminal->raw || (on && tcgetpgrp(fd) != getpgrp()))
        return false;
    // What is set stands in the table: another device on the terminal must not take it for settings of somebody else.
    terminal->set = rawSettings(terminal->found, terminal->allKeys);
    if (on) {
        terminal->set.c_lflag |= tcflag_t(ISIG | NOFLSH);
        terminal->set.c_cc[VINTR] = 3;
        terminal->set.c_cc[VQUIT] = _POSIX_VDISABLE;
        terminal->set.c_cc[VSUSP] = _POSIX_VDISABLE;
    }
    return tcsetattr(fd, TCSANOW, &terminal->set) == 0;
}

void zelRestoreTerminals()
{
    const int error = errno;
    applyToAll(&RawTerminal::found);
    errno = error;
}

int zelTerminalResumeDescriptor()
{
    return resumeDescriptor;
}

void zelTerminalResumed()
{
    uint64_t count = 0;
    if (read(resumeDescriptor, &count, sizeof count) <= 0)
        return;
    if (count >= resized && redrawAfterResize)
        redrawAfterResize();
    if (count % resized != 0 && redrawAfterResume)
        redrawAfterResume();
}

void zelTerminalOnResume(std::function<void()> redraw)
{
    redrawAfterResume = std::move(redraw);
}

void zelTerminalOnResize(std::function<void()> redraw)
{
    redrawAfterResize = std::move(redraw);
}

__attribute__((constructor)) void zelKeepStandardDescriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY) < 0)
            return; // no /dev/null here: the next ones would fail alike
    }
}

void zelIgnoreBrokenPipes()
{
    // A handler that does nothing, not SIG_IGN: that would be inherited by every program that the process starts.
    static std::once_flag once;
    std::call_once(once, [] {
        installWhereDefault(
            SIGPIPE, [](int) {}, SA_RESTART | SA_ONSTACK);
    });
}
