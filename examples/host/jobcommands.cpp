// SPDX-License-Identifier: MIT
#include "jobcommands.h"

#include "arguments.h"
#include "commandbook.h"

#include <QElapsedTimer>
#include <QThread>

JobCommands::JobCommands(CommandBook &book, QObject *parent)
    : QObject(parent)
{
    book.add("jobs/sleep MS", "sleeps; returns the milliseconds that went by", this, SLOT(sleep(ZELArguments)),
        CommandBook::Shared);
    book.add("jobs/count N [MS]", "counts to N, MS milliseconds apart; returns N", this, SLOT(count(ZELArguments)),
        CommandBook::Shared);
}

static const int dayInMs = 24 * 60 * 60 * 1000;

QVariant JobCommands::sleep(ZELArguments args)
{
    int ms = 0;
    if (!takes(args, 1, 1) || !takesNumber(args, 1, "MS", 0, dayInMs, &ms))
        return {};
    QElapsedTimer clock;
    clock.start();
    QThread::msleep(ms);
    return int(clock.elapsed());
}

QVariant JobCommands::count(ZELArguments args)
{
    int last = 0;
    int pause = 0;
    if (!takes(args, 1, 2) || !takesNumber(args, 1, "N", 0, INT_MAX - 1, &last))
        return {};
    if (args.ArgumentsLength() == 2 && !takesNumber(args, 2, "MS", 0, dayInMs, &pause))
        return {};
    for (int i = 1; i <= last; ++i) {
        args.debug() << i;
        if (pause)
            QThread::msleep(pause);
    }
    return last;
}
