// SPDX-License-Identifier: MIT
// Invariants: a node in a table has an owner and holds its owner's hold; tables, owners, parents, commands and types
// change only under the lock; nothing is deleted and no foreign code is called while it is held.
#include "zelshellcommandtree_p.h"

#include "zelguard_p.h"
#include "zelshellcommand_p.h"

#include <QVarLengthArray>
#include <algorithm>
#include <mutex>
#include <pthread.h>
#include <shared_mutex>

namespace {

/// One lock for all trees, so that a node may move between them. Writers go first: the readers of many shells would
/// else keep a registration waiting for ever.
class TreeLock
{
public:
    void lock() { pthread_rwlock_wrlock(&m_lock); }
    void unlock() { pthread_rwlock_unlock(&m_lock); }
    void lock_shared() { pthread_rwlock_rdlock(&m_lock); }
    void unlock_shared() { pthread_rwlock_unlock(&m_lock); }

private:
    pthread_rwlock_t m_lock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
};

TreeLock treeLock;

struct Reading
{
    ZELCriticalSection section;
    std::shared_lock<TreeLock> lock{treeLock};
};

struct Writing
{
    ZELCriticalSection section;
    std::unique_lock<TreeLock> lock{treeLock};
};

quint64 nextSerial()
{
    static std::atomic<quint64> last{0};
    return ++last;
}

} // namespace

ZELShellCommandTreePrivate::ZELShellCommandTreePrivate(ZELShellCommand *command, Node *parent)
    : command(command)
    , parent(parent)
    , serial(nextSerial())
{
}

void ZELShellCommandTreePrivate::detach(Node *node)
{
    Node *owner = std::exchange(node->d->owner, nullptr);
    if (!owner)
        return;
    auto &children = owner->d->children;
    const auto entry = children.constFind(node->objectName());
    if (entry != children.cend() && entry.value() == node)
        children.erase(entry);
    else
        owner->d->displaced.removeOne(node);
}

QVector<ZELShellCommandEntry> ZELShellCommandTreePrivate::snapshot(Node *directory)
{
    QVector<ZELShellCommandEntry> entries;
    if (!directory)
        return entries;
    {
        Reading reading;
        const auto &children = directory->d->children;
        entries.reserve(children.size());
        for (auto child = children.cbegin(); child != children.cend(); ++child)
            entries.append({child.key(), child.value()->d->type});
    }
    std::sort(entries.begin(), entries.end(), [](const auto &a, const auto &b) { return a.name < b.name; });
    return entries;
}

QVector<ZELShellCommandEntry> ZELShellCommandTreePrivate::visible(
    Node *directory, const ZELCommandAudience &audience, const QString &prefix)
{
    QVector<ZELShellCommandEntry> entries;
    if (!directory)
        return entries;
    Reading reading;
    const auto &children = directory->d->children;
    entries.reserve(prefix.isEmpty() ? children.size() : 0);
    for (auto child = children.cbegin(); child != children.cend(); ++child) {
        if (!child.key().startsWith(prefix))
            continue;
        const auto &node = child.value()->d;
        if (!node->command)
            entries.append({child.key(), node->type, node->summaryText});
        else if (ZELShellCommandPrivate::get(node->command)->isVisible(audience))
            entries.append({child.key(), node->type, node->command->description()});
    }
    return entries;
}

QString ZELShellCommandTreePrivate::summary(Node *node)
{
    Reading reading;
    return node->d->summaryText;
}

void ZELShellCommandTreePrivate::setSummary(Node *node, const QString &text)
{
    Writing writing;
    node->d->summaryText = text;
}

void ZELShellCommandTreePrivate::takeOut(Node *directory, const QString &name, quint64 serial)
{
    Node *found = nullptr;
    {
        Writing writing;
        const auto matches = [serial](Node *node) { return node && node->d->serial == serial; };
        found = directory->d->children.value(name);
        if (!matches(found)) {
            const auto &displaced = directory->d->displaced;
            const auto entry = std::find_if(displaced.cbegin(), displaced.cend(), matches);
            found = entry == displaced.cend() ? nullptr : *entry;
        }
        if (found)
            detach(found);
    }
    drop(found);
}

void ZELShellCommandTreePrivate::drop(Node *node)
{
    if (node && node->d->holds.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete node;
}

ZELShellCommandPin ZELShellCommandPin::walk(ZELShellCommandTree *start, const QStringList &pieces)
{
    ZELShellCommandPin pin;
    Reading reading;
    ZELShellCommandTree *node = start;
    for (const QString &piece : pieces) {
        if (!node)
            break;
        if (!piece.isEmpty())
            node = node->d->children.value(piece);
    }
    pin.hold(node);
    return pin;
}

ZELShellCommandPin ZELShellCommandPin::find(ZELShellCommandTree *directory, const QString &name)
{
    ZELShellCommandPin pin;
    Reading reading;
    pin.hold(directory ? directory->d->children.value(name) : nullptr);
    return pin;
}

void ZELShellCommandPin::hold(ZELShellCommandTree *node)
{
    if (node)
        node->d->holds.fetch_add(1, std::memory_order_relaxed);
    m_node = node;
}

ZELShellCommand *ZELShellCommandPin::command() const
{
    return m_node ? m_node->Command() : nullptr;
}

bool ZELShellCommandPin::execute(const ZELArguments &args, std::shared_ptr<ZELCommandWatcher> watcher)
{
    ZELShellCommand *bound = command();
    if (!bound)
        return false;
    ZELShellCommandPrivate::Run run;
    run.node = std::exchange(m_node, nullptr);
    run.always = false;
    run.watcher = std::move(watcher);
    return ZELShellCommandPrivate::get(bound)->execute(bound, args, std::move(run));
}

void ZELShellCommandPin::release()
{
    ZELCriticalSection section;
    ZELShellCommandTreePrivate::drop(std::exchange(m_node, nullptr));
}

ZELShellCommandTree::ZELShellCommandTree(QString name, ZELShellCommand *command, ZELShellCommandTree *parent)
    : d(new ZELShellCommandTreePrivate(command, parent))
{
    setObjectName(name);
}

ZELShellCommandTree::~ZELShellCommandTree()
{
    QVector<ZELShellCommandTree *> orphans;
    {
        Writing writing;
        ZELShellCommandTreePrivate::detach(this);
        orphans.reserve(d->children.size() + d->displaced.size());
        std::copy(d->children.cbegin(), d->children.cend(), std::back_inserter(orphans));
        orphans += d->displaced;
        d->children.clear();
        d->displaced.clear();
        for (ZELShellCommandTree *child : qAsConst(orphans)) {
            child->d->owner = nullptr;
            if (child->d->parent == this)
                child->d->parent = nullptr;
        }
    }
    for (ZELShellCommandTree *child : qAsConst(orphans))
        ZELShellCommandTreePrivate::drop(child);
    delete d->command;
}

void ZELShellCommandTree::insert(ZELShellCommandTree *child)
{
    if (!child || child == this)
        return;
    Writing writing;
    ZELShellCommandTreePrivate::detach(child);
    ZELShellCommandTree *&entry = d->children[child->objectName()];
    if (entry)
        d->displaced.append(entry);
    entry = child;
    child->d->owner = this;
}

ZELShellCommandTree *ZELShellCommandTree::Find(QString name)
{
    Reading reading;
    return d->children.value(name);
}

ZELShellCommandTree *ZELShellCommandTree::Remove(const QString &name)
{
    Writing writing;
    ZELShellCommandTree *child = d->children.take(name);
    if (child)
        child->d->owner = nullptr;
    return child;
}

void ZELShellCommandTree::dispose(ZELShellCommandTree *node)
{
    if (!node)
        return;
    {
        Writing writing;
        ZELShellCommandTreePrivate::detach(node);
    }
    ZELShellCommandTreePrivate::drop(node);
}

ZELShellCommandTree *ZELShellCommandTree::at(int i)
{
    Reading reading;
    if (i < 0 || i >= d->children.size())
        return nullptr;
    return *std::next(d->children.cbegin(), i);
}

int ZELShellCommandTree::length()
{
    Reading reading;
    return d->children.size();
}

QString ZELShellCommandTree::getPath()
{
    QVarLengthArray<QString, 16> names;
    {
        Reading reading;
        for (ZELShellCommandTree *node = this; node; node = node->d->parent)
            names.append(node->objectName());
    }
    QString path;
    path.reserve(16 * names.size());
    for (auto name = names.crbegin(); name != names.crend(); ++name)
        path.append(QLatin1Char('/')).append(*name);
    return path;
}

ZELShellCommand *ZELShellCommandTree::Command()
{
    Reading reading;
    return d->command;
}

void ZELShellCommandTree::setCommand(ZELShellCommand *command)
{
    Writing writing;
    d->command = command;
}

ZELShellCommandTree *ZELShellCommandTree::Parent()
{
    Reading reading;
    return d->parent;
}

void ZELShellCommandTree::setParent(ZELShellCommandTree *parent)
{
    Writing writing;
    d->parent = parent;
}

ZELShellCommandTree::ZELShellCommandType ZELShellCommandTree::CommandType()
{
    Reading reading;
    return d->type;
}

void ZELShellCommandTree::setCommandType(ZELShellCommandType type)
{
    Writing writing;
    d->type = type;
}
