// SPDX-License-Identifier: MIT
#ifndef LOGCOMMANDS_H
#define LOGCOMMANDS_H

#include <QObject>
#include <QVariant>
#include <zelarguments.h>

class CommandBook;

/// log/...: writes on every output channel that a command has.
class LogCommands : public QObject
{
    Q_OBJECT
public:
    explicit LogCommands(CommandBook &book, QObject *parent = nullptr);

public Q_SLOTS:
    QVariant print(ZELArguments args);
};

#endif
