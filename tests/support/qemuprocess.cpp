// SPDX-License-Identifier: MIT
// Linked into tests that run under qemu's user emulation, which answers Qt's question for process descriptors with
// yes and then cannot clone with one, so that QProcess never starts anything. Here the answer is no; QProcess then
// forks in the classic way.
#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <sys/syscall.h>

extern "C" __attribute__((visibility("default"))) long syscall(long number, ...)
{
    using Syscall = long (*)(long, ...);
    static const auto next = reinterpret_cast<Syscall>(dlsym(RTLD_NEXT, "syscall"));
    long a[6];
    va_list arguments;
    va_start(arguments, number);
    for (long &argument : a)
        argument = va_arg(arguments, long);
    va_end(arguments);
    const long ofProcessDescriptor = 3; // P_PIDFD
    if (number == SYS_waitid && a[0] == ofProcessDescriptor) {
        errno = EINVAL;
        return -1;
    }
    return next(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
