// SPDX-License-Identifier: MIT
// The registry members of ZELShellServer. Registrations are one after another, under a lock of their own, and a leaf is
// complete before it is inserted: shells may be reading the tree.
#include "zelshellserver_p.h"

#include "zelguard_p.h"
#include "zelshellcommand_p.h"
#include "zelshellcommandtree_p.h"

#include <QDebug>
#include <algorithm>
#include <tuple>

namespace {

using Node = ZELShellCommandTree;

struct Binding
{
    const QObject *receiver;
    const char *member;
    bool multiRun;
};

/// One registration at a time; a message handler that is called meanwhile may register as well.
struct Registering
{
    explicit Registering(ZELShellServerState &state)
        : lock(state.registration)
    {
    }
    ZELCriticalSection section;
    std::lock_guard<std::recursive_mutex> lock;
};

QStringList piecesOf(const QString &path)
{
    return path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
}

bool isAbsolute(const QString &path)
{
    return path.startsWith(QLatin1Char('/'));
}

bool isCommand(Node::ZELShellCommandType type)
{
    return type == Node::Execute || type == Node::System_Execute;
}

/// In a packet's head ':' and line ends would end the head, and on a terminal control characters do what they like.
bool isSpeakable(const QString &text)
{
    const bool spoils = std::any_of(text.begin(), text.end(),
        [](QChar c) { return c == QLatin1Char(':') || c.category() == QChar::Other_Control; });
    if (spoils)
        qDebug("a registered path or name must not hold ':' or a control character");
    return !spoils;
}

/// Makes the directories of a relative path; null when a command is in the way.
Node *makeDirectories(Node *root, const QString &path)
{
    Node *directory = root;
    for (const QString &piece : piecesOf(path)) {
        Node *next = directory->Find(piece);
        if (!next) {
            next = new Node(piece, nullptr, directory);
            directory->insert(next);
        } else if (next->CommandType() != Node::Directory) {
            qDebug() << "path name conflicts with command";
            return nullptr;
        }
        directory = next;
    }
    return directory;
}

Node *place(const ZELShellServerState &state, const QString &path, const QString &name)
{
    if (!isSpeakable(path + name))
        return nullptr;
    if (zelLocateCommand(state, path, name)) {
        qDebug() << QStringLiteral("%1/%2").arg(path, name) << "is duplicate registration!";
        return nullptr;
    }
    if (!isAbsolute(path))
        return makeDirectories(state.mainRoot(), path);
    const QStringList pieces = piecesOf(path);
    if (!pieces.isEmpty() && pieces.first() == state.mainRoot()->objectName())
        return state.mainRoot(); // what follows "/Main" is not walked, unlike when a command is looked up
    qDebug() << "illegal registered address!";
    return nullptr;
}

/// A leaf that takes itself out of `directory` when the receiver dies, whether the server is still there or not.
QMetaObject::Connection watchReceiver(
    const std::shared_ptr<ZELShellServerState> &state, Node *directory, Node *leaf, const QObject *receiver)
{
    const std::weak_ptr<ZELShellServerState> weak = state;
    const QString name = leaf->objectName();
    const quint64 serial = ZELShellCommandTreePrivate::serialOf(leaf);
    return QObject::connect(
        receiver, &QObject::destroyed, receiver,
        [weak, directory, name, serial] {
            if (const auto state = weak.lock())
                ZELShellCommandTreePrivate::takeOut(directory, name, serial);
        },
        Qt::DirectConnection);
}

/// Puts a complete command in its place; without a receiver it stays until it is taken out.
void plant(const std::shared_ptr<ZELShellServerState> &state, Node *directory, Node *leaf, const QObject *receiver)
{
    if (receiver)
        ZELShellCommandPrivate::get(leaf->Command())->receiverGone = watchReceiver(state, directory, leaf, receiver);
    directory->insert(leaf);
}

/// Binds a command and plants it; false, with the binding's warning, when the member does not fit.
bool plantCommand(const std::shared_ptr<ZELShellServerState> &state, Node *directory, const QString &name,
    Node::ZELShellCommandType type, const Binding &binding)
{
    auto command = std::make_unique<ZELShellCommand>();
    command->setMultRun(binding.multiRun);
    command->BindCommand(binding.receiver, binding.member);
    if (!command->isBound())
        return false;
    auto *leaf = new Node(name, command.release(), directory);
    leaf->setCommandType(type);
    plant(state, directory, leaf, binding.receiver);
    return true;
}

ZELShellCommandInfo infoOf(const QString &path, const ZELShellCommandEntry &entry, ZELShellCommand *command)
{
    const ZELCommandTraits traits = ZELShellCommandPrivate::get(command)->commandTraits();
    return {path, entry.name, command->description(), entry.type, command->canMultRunning(), traits.group, traits.role,
        traits.replacement, traits.hidden};
}

void listCommands(Node *directory, QVector<ZELShellCommandInfo> &list)
{
    for (const ZELShellCommandEntry &entry : ZELShellCommandTreePrivate::snapshot(directory)) {
        const ZELShellCommandPin pin = ZELShellCommandPin::find(directory, entry.name);
        if (entry.type == Node::Directory)
            listCommands(pin.node(), list);
        else if (pin.command())
            list.append(infoOf(directory->getPath(), entry, pin.command()));
    }
}

} // namespace

ZELShellCommandPin zelLocateCommand(const ZELShellServerState &state, const QString &path, const QString &name)
{
    if (path.isEmpty())
        return ZELShellCommandPin::find(state.systemRoot(), name);
    QStringList pieces = piecesOf(path);
    if (isAbsolute(path)) {
        if (pieces.isEmpty() || pieces.first() != state.mainRoot()->objectName())
            return {};
        pieces.removeFirst();
    }
    return ZELShellCommandPin::find(ZELShellCommandPin::walk(state.mainRoot(), pieces).node(), name);
}

bool ZELShellServer::registerCmd(
    const char *path, const char *name, const QObject *receiver, const char *member, bool multiRun)
{
    if (!member || !receiver)
        return false;
    const Registering registering(*d->state);
    Node *directory = CreatCommandPath(path, name);
    return directory
        && plantCommand(d->state, directory, QString::fromUtf8(name), Node::Execute, {receiver, member, multiRun});
}

bool ZELShellServer::registerSysCmd(const char *name, const QObject *receiver, const char *member)
{
    const Registering registering(*d->state);
    const QString key = QString::fromUtf8(name);
    if (!isSpeakable(key) || zelLocateCommand(*d->state, QString(), key))
        return false;
    return plantCommand(d->state, d->state->systemRoot(), key, Node::System_Execute, {receiver, member, false});
}

bool ZELShellServer::plant(ZELCommandDraft &draft, bool isSystem)
{
    const QPointer<QObject> receiver = draft.typed.function.receiver;
    if (draft.typed.function.hasReceiver && !receiver)
        return false;
    const Registering registering(*d->state);
    const QString name = QString::fromUtf8(draft.name);
    const bool isTaken = isSystem && (!isSpeakable(name) || zelLocateCommand(*d->state, QString(), name));
    Node *const systemRoot = isTaken ? nullptr : d->state->systemRoot();
    Node *directory = isSystem ? systemRoot : CreatCommandPath(draft.path.constData(), draft.name.constData());
    if (!directory)
        return false;
    auto *leaf = new Node(name, ZELShellCommandPrivate::make(draft).release(), directory);
    leaf->setCommandType(isSystem ? Node::System_Execute : Node::Execute);
    ::plant(d->state, directory, leaf, receiver);
    return true;
}

ZELShellCommandTree *ZELShellServer::CreatCommandPath(const char *path, const char *name)
{
    const Registering registering(*d->state);
    return place(*d->state, QString::fromUtf8(path), QString::fromUtf8(name));
}

ZELShellCommandTree *ZELShellServer::Register(ZELShellCommandTree *parent, const char *name)
{
    if (!parent || !isSpeakable(QString::fromUtf8(name)))
        return nullptr;
    auto *leaf = new Node(QString::fromUtf8(name), new ZELShellCommand, parent);
    parent->insert(leaf);
    return leaf;
}

ZELShellCommandTree *ZELShellServer::FindCommand(QString path, QString name)
{
    return zelLocateCommand(*d->state, path, name).node();
}

QVariant ZELShellServer::execute(ZELShellBase *shell, const QString &path, const QString &name, const QString &args)
{
    // Shared with the frame, because a kill that jumps over this call leaves the stack as it is.
    const auto pin = std::make_shared<ZELShellCommandPin>(zelLocateCommand(*d->state, path, name));
    ZELShellCommand *command = pin->command();
    if (!command || !isCommand(pin->node()->CommandType()))
        return {};
    const ZELArguments record(shell, args);
    command->doExecute(record, [pin] { pin->release(); });
    return record.getReturnValue();
}

bool ZELShellServer::setDescription(const QString &path, const QString &name, const QString &text)
{
    const ZELShellCommandPin pin = zelLocateCommand(*d->state, path, name);
    ZELShellCommand *command = pin.command();
    if (command)
        command->setDescription(text);
    return command;
}

QString ZELShellServer::description(const QString &path, const QString &name)
{
    const ZELShellCommandPin pin = zelLocateCommand(*d->state, path, name);
    const ZELShellCommand *command = pin.command();
    return command ? command->description() : QString();
}

bool ZELShellServer::setCommandTimeout(const QString &path, const QString &name, int ms)
{
    const ZELShellCommandPin pin = zelLocateCommand(*d->state, path, name);
    ZELShellCommand *command = pin.command();
    if (command)
        command->setTimeLimit(ms);
    return command;
}

QVector<ZELShellCommandInfo> ZELShellServer::commands()
{
    QVector<ZELShellCommandInfo> list;
    listCommands(d->state->systemRoot(), list);
    listCommands(d->state->mainRoot(), list);
    std::sort(list.begin(), list.end(),
        [](const auto &a, const auto &b) { return std::tie(a.path, a.name) < std::tie(b.path, b.name); });
    return list;
}
