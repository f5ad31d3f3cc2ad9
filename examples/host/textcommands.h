// SPDX-License-Identifier: MIT
#ifndef TEXTCOMMANDS_H
#define TEXTCOMMANDS_H

#include <QObject>
#include <QVariant>
#include <zelarguments.h>

class CommandBook;

/// text/...: the smallest commands there are; ping answers in its completing packet only.
class TextCommands : public QObject
{
    Q_OBJECT
public:
    explicit TextCommands(CommandBook &book, QObject *parent = nullptr);

public Q_SLOTS:
    QVariant echo(ZELArguments args);
    QVariant ping(ZELArguments args);
};

#endif
