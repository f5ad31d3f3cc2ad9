// SPDX-License-Identifier: MIT
// What opening a frame costs beside what it cannot do without: nine sigaction calls and one sigsetjmp with mask.
// Best of 20 interleaved runs, since the machine is never alone.
#include "zelguard_p.h"

#include <algorithm>
#include <cstdio>

static void ignore(int, siginfo_t *, void *) { }

static long long now()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

static void bare()
{
    static sigjmp_buf env;
    if (sigsetjmp(env, 1) != 0)
        return;
    struct sigaction action
    {
    };
    action.sa_sigaction = ignore;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGXCPU, SIGXFSZ, SIGQUIT, SIGABRT})
        sigaction(sig, &action, nullptr);
}

static void guarded()
{
    ZELFrame frame;
    zelGuard(frame.get(), [] {});
}

template <class F>
static double nsOf(F call)
{
    const int count = 20000;
    const long long begin = now();
    for (int i = 0; i < count; ++i)
        call();
    return double(now() - begin) / count;
}

int main()
{
    double least = 1e9, outermost = 1e9, nested = 1e9;
    for (int run = 0; run < 20; ++run) {
        least = std::min(least, nsOf(bare));
        outermost = std::min(outermost, nsOf(guarded));
        ZELFrame outer;
        zelGuard(outer.get(), [&] { nested = std::min(nested, nsOf(guarded)); });
    }
    printf("bare %.0f ns, outermost frame %.0f ns (%.2f), nested frame %.0f ns (%.2f)\n", least, outermost,
        outermost / least, nested, nested / least);
    return 0;
}
