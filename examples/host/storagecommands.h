// SPDX-License-Identifier: MIT
#ifndef STORAGECOMMANDS_H
#define STORAGECOMMANDS_H

#include <QObject>
#include <QVariant>
#include <zelarguments.h>

class CommandBook;

/// storage/...: what is mounted and how full it is.
class StorageCommands : public QObject
{
    Q_OBJECT
public:
    explicit StorageCommands(CommandBook &book, QObject *parent = nullptr);

public Q_SLOTS:
    QVariant usage(ZELArguments args);
};

#endif
