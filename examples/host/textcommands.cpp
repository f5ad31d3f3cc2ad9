// SPDX-License-Identifier: MIT
#include "textcommands.h"

#include "arguments.h"
#include "commandbook.h"

#include <QStringList>

TextCommands::TextCommands(CommandBook &book, QObject *parent)
    : QObject(parent)
{
    book.add("text/echo [WORD...]", "prints its words as the shell split them", this, SLOT(echo(ZELArguments)),
        CommandBook::Shared);
    book.add("text/ping", "prints nothing and returns \"pong\"", this, SLOT(ping(ZELArguments)), CommandBook::Shared);
}

QVariant TextCommands::echo(ZELArguments args)
{
    print(args, QStringList(args).mid(1).join(' '));
    return {};
}

QVariant TextCommands::ping(ZELArguments args)
{
    return takes(args, 0, 0) ? QStringLiteral("pong") : QVariant();
}
