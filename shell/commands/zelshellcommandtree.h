// SPDX-License-Identifier: MIT
#ifndef ZELSHELLCOMMANDTREE_H
#define ZELSHELLCOMMANDTREE_H

#include "zelshell_export.h"

#include <QObject>
#include <QString>
#include <memory>

class ZELShellCommand;
class ZELShellCommandTreePrivate;

/**
 * A node of the virtual directory tree: a directory with children, or a leaf that owns a command.
 *
 * Owner: the directory it was inserted into; nodes that were never inserted, or were removed, belong to the caller. A
 * node has no Qt parent. Its name is its object name and must not change while it is in a directory.
 * Threads: every function may be called from any thread; each takes one process-wide lock for its own duration only.
 * A pointer that a look-up returned stays valid as long as nobody deletes the node: directories live as long as their
 * root, a registered command until its receiver dies.
 */
class ZELSHELL_EXPORT ZELShellCommandTree : public QObject
{
    Q_OBJECT
public:
    enum ZELShellCommandType {
        Directory = 0, ///< virtual directory; every node starts as one
        File = 1, ///< file-like node; not created by the registry
        Execute = 2, ///< application command
        System_Execute = 3 ///< system command
    };
    Q_ENUM(ZELShellCommandType)

    /// A directory named `name`. `command`, when given, is owned from now on. Does not insert itself into `parent`.
    ZELShellCommandTree(QString name, ZELShellCommand *command, ZELShellCommandTree *parent);
    /// Deletes all children that nobody is running, then the command; children that are being run follow when they end.
    ~ZELShellCommandTree() override;

    /**
     * Stores `child` under its name and owns it. A child of the same name that was there is no longer found, but stays
     * owned and is deleted with this node. Null is ignored.
     */
    void insert(ZELShellCommandTree *child);
    /// The child of exactly that name, or null.
    ZELShellCommandTree *Find(QString name);
    /// Takes the child out and hands it to the caller, who ends it with dispose(); null when there is none.
    ZELShellCommandTree *Remove(const QString &name);
    /// Deletes a node that is in no directory as soon as no shell is running its command. Null is ignored.
    static void dispose(ZELShellCommandTree *node);

    /// The i-th child in the table's own order, which is stable until the table changes; null outside of it.
    ZELShellCommandTree *at(int i);
    int length();

    /// "/" and the names from the root down to this node: "/Main/net/ping".
    QString getPath();

    ZELShellCommand *Command();
    /// The previous command is not deleted.
    void setCommand(ZELShellCommand *command);
    ZELShellCommandTree *Parent();
    void setParent(ZELShellCommandTree *parent);
    ZELShellCommandType CommandType();
    void setCommandType(ZELShellCommandType type);

private:
    friend class ZELShellCommandTreePrivate;
    friend class ZELShellCommandPin;
    std::unique_ptr<ZELShellCommandTreePrivate> d;
};

#endif
