// SPDX-License-Identifier: MIT
#ifndef ZELSHELLCOMMANDTREE_P_H
#define ZELSHELLCOMMANDTREE_P_H

#include "zelshellcommandtree.h"

#include <QHash>
#include <QStringList>
#include <QVector>
#include <atomic>
#include <functional>
#include <utility>

class ZELArguments;
class ZELShellCommand;

/// One line of a directory listing.
struct ZELShellCommandEntry
{
    QString name;
    ZELShellCommandTree::ZELShellCommandType type = ZELShellCommandTree::Directory;
};

/**
 * A hold on a node found in the tree: the node and its command live while it stands, also when the registry removes
 * them meanwhile. Movable, not copyable; used by one thread at a time.
 *
 * A jump out of a command does not run destructors. execute() therefore takes the hold over and gives it back in every
 * case; a pin that is still held by a stack that is jumped over keeps its node for ever, so release() others before.
 *
 *     auto pin = ZELShellCommandPin::walk(directory, pieces);
 *     if (!pin || !pin.command()) return false;      // no such command
 *     if (!pin.reserve()) return locked();           // runs already, and may not run twice
 *     pin.execute(args, [=] { forgetLabel(); });     // the pin is empty afterwards
 */
class ZELShellCommandPin
{
public:
    ZELShellCommandPin() = default;
    ZELShellCommandPin(ZELShellCommandPin &&other) noexcept
        : m_node(std::exchange(other.m_node, nullptr))
        , m_reserved(std::exchange(other.m_reserved, false))
    {
    }
    ZELShellCommandPin &operator=(ZELShellCommandPin &&other) noexcept
    {
        std::swap(m_node, other.m_node);
        std::swap(m_reserved, other.m_reserved);
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

    /// Counts one execution in advance; false when the command is running and does not allow several at once.
    bool reserve();
    /// Runs the command (reserved or not) and gives up the pin and its reservation when the command has returned, or,
    /// before `abandoned` is called, when a kill jumps over it.
    void execute(const ZELArguments &args, std::function<void()> abandoned = {});
    /// Gives up the node and the reservation.
    void release();

private:
    ZELShellCommandTree *m_node = nullptr;
    bool m_reserved = false;
};

/// The fields of a node, all but the name guarded by the one lock of all trees.
class ZELShellCommandTreePrivate
{
public:
    using Node = ZELShellCommandTree;

    ZELShellCommandTreePrivate(ZELShellCommand *command, Node *parent)
        : command(command)
        , parent(parent)
    {
    }

    /// The children of `directory`, sorted by name; empty for null.
    static QVector<ZELShellCommandEntry> snapshot(Node *directory);
    /// The child `name`; when there is none, `child` is inserted and returned. What a caller does not get back it
    /// keeps.
    static Node *findOrInsert(Node *directory, const QString &name, const std::function<Node *()> &make);
    /// Never used twice in a process; tells a node from a later one at the same address.
    static quint64 serial(Node *node) { return node->d->number; }
    /// Takes exactly this child out of `directory`, as long as it is still there, and disposes of it.
    static void takeOut(Node *directory, Node *child, quint64 serial);

    static void hold(Node *node) { node->d->holds.fetch_add(1, std::memory_order_relaxed); }
    /// Gives up one hold; the last one deletes the node.
    static void drop(Node *node);

    ZELShellCommand *command;
    Node *parent; ///< what Parent() and getPath() show; may be set freely by the host
    Node *owner = nullptr; ///< the directory that holds this node in one of its two tables
    Node::ZELShellCommandType type = Node::Directory;
    QHash<QString, Node *> children;
    QVector<Node *> displaced; ///< replaced by a later child of the same name, still owned
    std::atomic<int> holds{1}; ///< one of the owner, one of every pin
    const quint64 number;

private:
    friend class ZELShellCommandTree;
    friend class ZELShellCommandPin;
};

#endif
