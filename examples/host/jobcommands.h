// SPDX-License-Identifier: MIT
#ifndef JOBCOMMANDS_H
#define JOBCOMMANDS_H

#include <QObject>
#include <QVariant>
#include <zelarguments.h>

class CommandBook;

/// jobs/...: commands that take their time, for background runs, kills and time limits.
class JobCommands : public QObject
{
    Q_OBJECT
public:
    explicit JobCommands(CommandBook &book, QObject *parent = nullptr);

public Q_SLOTS:
    QVariant sleep(ZELArguments args);
    QVariant count(ZELArguments args);
};

#endif
