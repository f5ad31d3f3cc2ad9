// SPDX-License-Identifier: MIT
#ifndef NETWORKCOMMANDS_H
#define NETWORKCOMMANDS_H

#include <QObject>
#include <QVariant>
#include <zelarguments.h>

class CommandBook;

/// network/...: the interfaces of the board and their addresses.
class NetworkCommands : public QObject
{
    Q_OBJECT
public:
    explicit NetworkCommands(CommandBook &book, QObject *parent = nullptr);

public Q_SLOTS:
    QVariant interfaces(ZELArguments args);
};

#endif
