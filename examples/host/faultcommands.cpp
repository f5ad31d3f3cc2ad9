// SPDX-License-Identifier: MIT
#include "faultcommands.h"

#include "arguments.h"
#include "commandbook.h"

#include <stdexcept>
#include <unistd.h>
#include <zelcatch.h>

FaultCommands::FaultCommands(CommandBook &book, QObject *parent)
    : QObject(parent)
{
    const auto shared = CommandBook::Shared;
    book.add("fault/throw [KIND]", "throws: runtime_error, exception, pointer or int", this, SLOT(raise(ZELArguments)),
        shared);
    book.add("fault/assert", "fails an assertion", this, SLOT(assertion(ZELArguments)), shared);
    book.add("fault/segv", "writes through a null pointer", this, SLOT(segv(ZELArguments)), shared);
    book.add("fault/overflow", "overflows its stack", this, SLOT(overflow(ZELArguments)), shared);
    book.add("fault/hang [busy]", "never returns; \"busy\": keeps a processor busy", this, SLOT(hang(ZELArguments)),
        CommandBook::Alone);
}

QVariant FaultCommands::raise(ZELArguments args)
{
    if (!takes(args, 0, 1))
        return {};
    if (!args.ArgumentsLength() || args[1] == "runtime_error")
        throw std::runtime_error("provoked");
    if (args[1] == "exception")
        throw Exception("fault", "provoked", "host", 1);
    if (args[1] == "pointer")
        throw new Exception("fault", "provoked", "host", 2);
    if (args[1] == "int")
        throw 3;
    return refuse(args, "fault/throw: KIND must be runtime_error, exception, pointer or int, not " + args[1]);
}

QVariant FaultCommands::assertion(ZELArguments args)
{
    if (takes(args, 0, 0))
        zel_assert_x("fault", "provoked", "host", 7);
    return {};
}

QVariant FaultCommands::segv(ZELArguments args)
{
    if (!takes(args, 0, 0))
        return {};
    // Both volatile: else an optimising compiler sees the fault coming, or drops a write that nobody reads.
    volatile int *volatile nowhere = nullptr;
    *nowhere = 1;
    return {};
}

static int descend(int depth)
{
    volatile char room[4096];
    room[0] = char(depth);
    return depth < 0 ? 0 : descend(depth + 1) + room[0];
}

QVariant FaultCommands::overflow(ZELArguments args)
{
    return takes(args, 0, 0) ? QVariant(descend(0)) : QVariant();
}

QVariant FaultCommands::hang(ZELArguments args)
{
    if (!takes(args, 0, 1))
        return {};
    if (args.ArgumentsLength() && args[1] != "busy")
        return refuse(args, "fault/hang: the only option is busy, not " + args[1]);
    volatile bool busy = args.ArgumentsLength() == 1;
    for (;;) {
        if (!busy)
            ::sleep(1);
    }
}
