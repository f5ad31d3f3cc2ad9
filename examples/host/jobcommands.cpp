// SPDX-License-Identifier: MIT
#include "families.h"

#include <QElapsedTimer>
#include <QThread>
#include <zelshellserver.h>

static const int dayInMs = 24 * 60 * 60 * 1000;

static int sleepFor(int ms)
{
    QElapsedTimer clock;
    clock.start();
    QThread::msleep(ms);
    return int(clock.elapsed());
}

static int countTo(const ZELArguments &args, int last, int pause)
{
    for (int i = 1; i <= last; ++i) {
        args.debug() << i;
        if (pause)
            QThread::msleep(pause);
    }
    return last;
}

void addJobCommands(ZELShellServer &server)
{
    server.command("jobs", "sleep", sleepFor)
        .multiRun()
        .help("sleeps; returns the milliseconds that went by")
        .argument("ms")
        .range(0, dayInMs);
    server.command("jobs", "count", countTo)
        .multiRun()
        .help("counts; returns the last number")
        .argument("last")
        .range(0, INT_MAX - 1)
        .argument("pause", "milliseconds between two numbers")
        .range(0, dayInMs)
        .defaultValue(0);
    server.describeDirectory("jobs", "commands that take their time");
}
