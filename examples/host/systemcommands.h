// SPDX-License-Identifier: MIT
#ifndef SYSTEMCOMMANDS_H
#define SYSTEMCOMMANDS_H

#include <QObject>
#include <QVariant>
#include <zelarguments.h>

class CommandBook;

/// system/...: how the board is doing, read from the kernel at the moment of asking.
class SystemCommands : public QObject
{
    Q_OBJECT
public:
    explicit SystemCommands(CommandBook &book, QObject *parent = nullptr);

public Q_SLOTS:
    QVariant uptime(ZELArguments args);
    QVariant memory(ZELArguments args);
    QVariant processes(ZELArguments args);
};

#endif
