// SPDX-License-Identifier: MIT
// Runs in signal handlers: fixed buffers and system calls. vfork(), because fork() takes the allocator's locks.
#include "zelcodemap_p.h"
#include "zelresolver_p.h"

#include <QFile>
#include <QStandardPaths>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char **environ;

namespace {

constexpr int maxAddresses = 64;
constexpr size_t cacheSize = 512; // a power of two

char resolverPath[512];
ZELPlaceName cache[cacheSize];
char output[32 * 1024];
char hexTexts[maxAddresses][20];
const char *arguments[maxAddresses + 8];

/// Where the address is remembered, or is to be: a free place nearby, or the one that it pushes out.
ZELPlaceName &slotOf(uintptr_t address)
{
    const size_t home = (address * 0x9e3779b97f4a7c15ull >> 40) & (cacheSize - 1);
    for (size_t i = 0; i < 16; ++i) {
        ZELPlaceName &slot = cache[(home + i) & (cacheSize - 1)];
        if (slot.address == address || slot.address == 0)
            return slot;
    }
    return cache[(home + address % 16) & (cacheSize - 1)];
}

void writeHex(char *to, uintptr_t number)
{
    char digits[2 + 16];
    int n = 0;
    do {
        digits[n++] = "0123456789abcdef"[number & 15];
        number >>= 4;
    } while (number);
    *to++ = '0';
    *to++ = 'x';
    while (n)
        *to++ = digits[--n];
    *to = 0;
}

/// In the child, which shares everything with us until it has become another program.
[[noreturn]] void becomeResolver(int out)
{
    for (int sig = 1; sig < NSIG; ++sig)
        signal(sig, SIG_DFL); // ours stay as they are: handlers are not shared
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, 0);
    dup2(null, 2);
    dup2(out, 1);
    execve(resolverPath, const_cast<char *const *>(arguments), environ);
    _exit(127);
}

/// No signal meets the child before it has become another program: a handler there would work on our memory.
pid_t startResolver(int out)
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
#ifdef __SANITIZE_ADDRESS__
    // The sanitizer's vfork() clears its notes from here to the end of the thread's own stack, which a signal stack is
    // no piece of: it would write until memory is out. A copy of the process does as well.
    const auto child = pid_t(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
#else
    const pid_t child = vfork();
#endif
    if (child == 0)
        becomeResolver(out);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return child;
}

size_t readUntil(int in, long long deadline)
{
    size_t length = 0;
    for (;;) {
        const long long left = deadline - zelMonotonicMs();
        pollfd fd{in, POLLIN, 0};
        if (left <= 0 || length + 1 >= sizeof output)
            return length;
        const int ready = poll(&fd, 1, int(left));
        if (ready < 0 && errno == EINTR)
            continue;
        const ssize_t got = ready > 0 ? read(in, output + length, sizeof output - 1 - length) : 0;
        if (got <= 0)
            return length;
        length += size_t(got);
    }
}

/// A child that hangs in the file system outlives even SIGKILL: it is left to the next report.
void reap(pid_t child)
{
    static pid_t left = 0;
    if (left && waitpid(left, nullptr, WNOHANG) != 0)
        left = 0;
    for (int i = 0; i < 100; ++i) {
        if (waitpid(child, nullptr, WNOHANG) != 0)
            return;
        const timespec pause{0, 2000000};
        nanosleep(&pause, nullptr);
    }
    left = child;
}

/// What the resolver wrote for the arguments prepared; how many bytes.
size_t runResolver(long long deadline)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return 0;
    const pid_t child = startResolver(ends[1]);
    close(ends[1]);
    const size_t length = child > 0 ? readUntil(ends[0], deadline) : 0;
    close(ends[0]);
    if (child > 0) {
        kill(child, SIGKILL); // has ended, or never will
        reap(child);
    }
    output[length] = 0;
    return length;
}

/// Takes one line off the output; "??" counts as unknown.
char *takeLine(char **rest, char *to, size_t size)
{
    char *line = *rest;
    char *end = strchr(line, '\n');
    if (!end)
        return nullptr;
    *end = 0;
    *rest = end + 1;
    to[0] = 0;
    if (strncmp(line, "??", 2) != 0)
        strncpy(to, line, size - 1);
    to[size - 1] = 0;
    return to;
}

void resolveModule(const ZELModule *module, const uintptr_t *addresses, int count, long long deadline)
{
    int n = 0;
    for (const char *fixed : {"addr2line", "-C", "-f", "-e", static_cast<const char *>(module->path)})
        arguments[n++] = fixed;
    for (int i = 0; i < count; ++i) {
        writeHex(hexTexts[i], addresses[i] - module->base);
        arguments[n++] = hexTexts[i];
    }
    arguments[n] = nullptr;
    runResolver(deadline);
    char *rest = output;
    for (int i = 0; i < count; ++i) {
        ZELPlaceName &slot = slotOf(addresses[i]);
        slot.address = addresses[i];
        slot.function[0] = slot.location[0] = 0;
        if (takeLine(&rest, slot.function, sizeof slot.function))
            takeLine(&rest, slot.location, sizeof slot.location);
    }
}

bool wanted(const ZELModule *module, uintptr_t address, bool programOnly)
{
    if (!module || module->code == ZELCode::Runtime || (programOnly && !module->program))
        return false;
    return slotOf(address).address != address;
}

} // namespace

void zelFindResolver()
{
    const QByteArray path = QFile::encodeName(QStandardPaths::findExecutable(QStringLiteral("addr2line")));
    if (size_t(path.size()) < sizeof resolverPath)
        strcpy(resolverPath, path.constData());
}

bool zelHaveResolver()
{
    return resolverPath[0] != 0;
}

void zelResolve(const uintptr_t *addresses, int count, bool programOnly, long long deadline)
{
    static uintptr_t group[maxAddresses];
    for (size_t m = 0; zelHaveResolver() && m < zelModuleCount(); ++m) {
        const ZELModule *module = zelModule(m);
        int n = 0;
        for (int i = 0; i < count && n < maxAddresses; ++i) {
            if (zelModuleAt(addresses[i]) == module && wanted(module, addresses[i], programOnly))
                group[n++] = addresses[i];
        }
        if (n > 0 && zelMonotonicMs() < deadline)
            resolveModule(module, group, n, deadline);
    }
}

const ZELPlaceName *zelResolved(uintptr_t address)
{
    const ZELPlaceName &slot = slotOf(address);
    return slot.address == address ? &slot : nullptr;
}

long long zelMonotonicMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}
