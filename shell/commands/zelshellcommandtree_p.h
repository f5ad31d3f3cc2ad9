// SPDX-License-Identifier: MIT
#ifndef ZELSHELLCOMMANDTREE_P_H
#define ZELSHELLCOMMANDTREE_P_H

#include "zelshellcommandtree.h"

#include <QHash>
#include <QStringList>
#include <QVector>
#include <atomic>
#include <memory>
#include <utility>

class ZELArguments;
class ZELCommandWatcher;
class ZELShellCommand;

/// Whose listing it is: commands that are not for it are left out.
struct ZELCommandAudience
{
    bool everyRole = true;
    QStringList roles;

    /// Whether it may run a command of that role; an empty one is everybody's.
    bool hasRole(const QString &role) const { return role.isEmpty() || everyRole || roles.contains(role); }
};

/// One line of a directory listing.
struct ZELShellCommandEntry
{
    QString name;
    ZELShellCommandTree::ZELShellCommandType type = ZELShellCommandTree::Directory;
    QString note = {}; ///< one line about it; may be empty
};

/**
 * A hold on a node found in the tree: the node and its command live while it stands, also when the registry removes
 * them meanwhile. Movable, not copyable; used by one thread at a time.
 *
 * A kill runs no destructors: a pin on the stack that it jumps over keeps its node for ever. execute() therefore takes
 * the hold over and gives it back in every case.
 *
 *     auto pin = ZELShellCommandPin::walk(directory, pieces);
 *     if (!pin.command())
 *         return false;                              // no such command
 *     if (!pin.execute(args, std::make_shared<LabelKeeper>(labels)))
 *         return locked();                           // runs already, and may not run twice
 */
class ZELShellCommandPin
{
public:
    ZELShellCommandPin() = default;
    ZELShellCommandPin(ZELShellCommandPin &&other) noexcept
        : m_node(std::exchange(other.m_node, nullptr))
    {
    }
    ZELShellCommandPin &operator=(ZELShellCommandPin &&other) noexcept
    {
        std::swap(m_node, other.m_node);
        return *this;
    }
    ~ZELShellCommandPin() { release(); }

    /// The node that `pieces` lead to from `start`; empty pieces are skipped, none left is `start` itself.
    /// Empty when a piece is missing or `start` is null.
    static ZELShellCommandPin walk(ZELShellCommandTree *start, const QStringList &pieces);
    /// The child of exactly that name; empty when there is none or `directory` is null.
    static ZELShellCommandPin find(ZELShellCommandTree *directory, const QString &name);

    ZELShellCommandTree *node() const { return m_node; }
    /// The node's command; null for directories and for an empty pin.
    ZELShellCommand *command() const;
    explicit operator bool() const { return m_node != nullptr; }

    /**
     * Runs the command and gives the node up; the pin is empty afterwards. False, with nothing called, when there is no
     * command or it is running and does not allow several executions at once; looking and starting are one step.
     * A kill may jump over this call, which then never returns; the watcher is told.
     */
    bool execute(const ZELArguments &args, std::shared_ptr<ZELCommandWatcher> watcher = {});
    /// Gives the node up.
    void release();

private:
    void hold(ZELShellCommandTree *node);

    ZELShellCommandTree *m_node = nullptr;
};

/// The fields of a node, all but holds and serial guarded by the one lock of all trees.
class ZELShellCommandTreePrivate
{
public:
    using Node = ZELShellCommandTree;

    ZELShellCommandTreePrivate(ZELShellCommand *command, Node *parent);

    /// The children of `directory`, sorted by name; empty for null.
    static QVector<ZELShellCommandEntry> snapshot(Node *directory);
    /// Those that may be seen, in no order.
    static QVector<ZELShellCommandEntry> visible(
        Node *directory, const ZELCommandAudience &audience, const QString &prefix = QString());
    /// The line that the help says of a directory; empty at first.
    static QString summary(Node *node);
    static void setSummary(Node *node, const QString &text);
    /// Tells a node from a later one at the same address.
    static quint64 serialOf(Node *node) { return node->d->serial; }
    /// Disposes of the child of that name and serial number, found or displaced; nothing when it is gone already.
    static void takeOut(Node *directory, const QString &name, quint64 serial);
    /// Gives up one hold; the last one deletes the node.
    static void drop(Node *node);

private:
    friend class ZELShellCommandTree;
    friend class ZELShellCommandPin;
    static void detach(Node *node);

    ZELShellCommand *command;
    Node *parent; ///< what Parent() and getPath() show; the host may set it as it likes
    Node *owner = nullptr; ///< the directory that has this node in one of its two tables
    Node::ZELShellCommandType type = Node::Directory;
    QString summaryText;
    QHash<QString, Node *> children;
    QVector<Node *> displaced; ///< replaced by a later child of the same name, still owned
    std::atomic<int> holds{1}; ///< one of the owner, one of every pin
    const quint64 serial;
};

#endif
