// SPDX-License-Identifier: MIT
#include "families.h"

#include <stdexcept>
#include <unistd.h>
#include <zelcatch.h>
#include <zelshellserver.h>

enum class Kind { RuntimeError, Exception, Pointer, Int };

static void provoke(Kind kind)
{
    switch (kind) {
    case Kind::RuntimeError:
        throw std::runtime_error("provoked");
    case Kind::Exception:
        throw Exception("fault", "provoked", "host", 1);
    case Kind::Pointer:
        throw new Exception("fault", "provoked", "host", 2);
    case Kind::Int:
        throw 3;
    }
}

static void assertion()
{
    zel_assert_x("fault", "provoked", "host", 7);
}

static void segv()
{
    // Both volatile: else an optimising compiler sees the fault coming, or drops a write that nobody reads.
    volatile int *volatile nowhere = nullptr;
    *nowhere = 1;
}

static int descend(int depth)
{
    volatile char room[4096];
    room[0] = char(depth);
    return depth < 0 ? 0 : descend(depth + 1) + room[0];
}

static int overflow()
{
    return descend(0);
}

static void hang(const std::optional<QString> &how)
{
    volatile bool busy = how.has_value();
    for (;;) {
        if (!busy)
            ::sleep(1);
    }
}

void addFaultCommands(ZELShellServer &server)
{
    server.command("fault", "throw", provoke)
        .multiRun()
        .help("throws")
        .argument("kind")
        .choices({{"runtime_error", Kind::RuntimeError}, {"exception", Kind::Exception}, {"pointer", Kind::Pointer},
            {"int", Kind::Int}})
        .defaultValue("runtime_error");
    server.command("fault", "assert", assertion).multiRun().help("fails an assertion");
    server.command("fault", "segv", segv).multiRun().help("writes through a null pointer");
    server.command("fault", "overflow", overflow).multiRun().help("overflows its stack");
    server.command("fault", "hang", hang)
        .help("never returns")
        .argument("how", "\"busy\" keeps a processor busy")
        .choices({"busy"});
    server.describeDirectory("fault", "everything that can go wrong inside a command");
}
