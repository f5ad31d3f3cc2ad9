// SPDX-License-Identifier: MIT
#ifndef FAULTCOMMANDS_H
#define FAULTCOMMANDS_H

#include <QObject>
#include <QVariant>
#include <zelarguments.h>

class CommandBook;

/** fault/...: everything that can go wrong inside a command.
 *
 * Each of them ends as an error of its own execution; the host and the other sessions live on. None owns anything
 * on its stack at the point where it is abandoned, since no destructor runs on that way.
 */
class FaultCommands : public QObject
{
    Q_OBJECT
public:
    explicit FaultCommands(CommandBook &book, QObject *parent = nullptr);

public Q_SLOTS:
    QVariant raise(ZELArguments args);
    QVariant assertion(ZELArguments args);
    QVariant segv(ZELArguments args);
    QVariant overflow(ZELArguments args);
    QVariant hang(ZELArguments args);
};

#endif
