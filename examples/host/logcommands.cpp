// SPDX-License-Identifier: MIT
#include "logcommands.h"

#include "arguments.h"
#include "commandbook.h"

#include <QStringList>

LogCommands::LogCommands(CommandBook &book, QObject *parent)
    : QObject(parent)
{
    book.add("log/print LEVEL TEXT...", "prints on a channel: info, warning, error, ...", this,
        SLOT(print(ZELArguments)), CommandBook::Shared);
}

using Channel = ZELLogging (ZELArguments::*)() const;

static Channel channelOf(const QString &level)
{
    static const struct
    {
        const char *name;
        Channel channel;
    } channels[] = {
        {"debug", &ZELArguments::debug},
        {"info", &ZELArguments::info},
        {"warning", &ZELArguments::warning},
        {"error", &ZELArguments::error},
        {"critical", &ZELArguments::critical},
        {"fatal", &ZELArguments::fatal},
        {"stream", &ZELArguments::stream},
        {"object", &ZELArguments::object},
    };
    for (const auto &candidate : channels) {
        if (level.compare(QLatin1String(candidate.name), Qt::CaseInsensitive) == 0)
            return candidate.channel;
    }
    return nullptr;
}

QVariant LogCommands::print(ZELArguments args)
{
    if (!takes(args, 2, INT_MAX))
        return {};
    const Channel channel = channelOf(args[1]);
    if (!channel)
        return refuse(args,
            "log/print: LEVEL must be debug, info, warning, error, critical, fatal, stream or object, not " + args[1]);
    QStringList words = QStringList(args).mid(2);
    for (QString &word : words)
        word = unquoted(word);
    (args.*channel)().noquote() << words.join(' ');
    return {};
}
