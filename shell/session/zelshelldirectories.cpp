// SPDX-License-Identifier: MIT
#include "zelcompleter_p.h"
#include "zelshell_p.h"
#include "zelshellcommandtree_p.h"
#include "zelshellexpansion_p.h"
#include "zelshellreply_p.h"
#include "zelshellserverstate_p.h"

#include <algorithm>

namespace {

bool isHidden(const QString &name)
{
    return name.startsWith(QLatin1Char('.'));
}

ZELShellCommandTree *copyNode(ZELShellCommandTree *source, ZELShellCommandTree *parent)
{
    auto *copy = new ZELShellCommandTree(source->objectName(), nullptr, parent);
    copy->setCommandType(source->CommandType());
    return copy;
}

/// The node for a child in the copy: one of that name that is there already takes the children of both.
ZELShellCommandTree *nodeUnder(QObject *destination, ZELShellCommandTree *source)
{
    auto *directory = qobject_cast<ZELShellCommandTree *>(destination);
    if (directory) {
        if (ZELShellCommandTree *present = directory->Find(source->objectName()))
            return present;
    }
    ZELShellCommandTree *copy = copyNode(source, directory);
    if (directory)
        directory->insert(copy);
    else
        static_cast<QObject *>(copy)->setParent(destination);
    return copy;
}

} // namespace

bool ZELShell::EnterDir(QString name)
{
    const bool entered = d->directories.enter(name);
    if (entered)
        d->updatePath();
    return entered;
}

void ZELShell::QuitDir()
{
    d->directories.quit();
    d->updatePath();
}

void ZELShell::ReSetDir()
{
    d->directories.reset();
    d->updatePath();
}

ZELShellCommandTree *ZELShell::currentDirectory()
{
    return d->directories.current();
}

QString ZELShell::getShellPath(bool withRoot)
{
    return d->directories.path(withRoot);
}

QString ZELShell::getCurVirtualDir()
{
    return QStringLiteral("ZELShell@ZEL:~%1 $ ").arg(getShellPath(true));
}

void ZELShell::PrintCurVirtualDir()
{
    d->printPrompt();
}

void ZELShellPrivate::printPrompt()
{
    if (noTerminal || hasPrompt)
        return;
    output.prompt(QStringLiteral("\033[32mZELShell@ZEL:~\033[0m\033[34m") + namesForTerminal(directories.path(true))
        + QStringLiteral("\033[0m\033[33m $ \033[0m"));
}

QString ZELShellPrivate::pathOf(const QString &word) const
{
    const bool isOpen = word.size() > 1 && (word.startsWith(QLatin1Char('"')) || word.startsWith(QLatin1Char('\'')))
        && !word.endsWith(word.at(0));
    return decoded(isOpen ? word.mid(1) : zelUnquoted(word));
}

QString ZELShellPrivate::decoded(const QString &word) const
{
    const auto isByte = [](QChar c) { return c.unicode() < 0x100; };
    return utf8Editing && std::all_of(word.cbegin(), word.cend(), isByte) ? zelTextOf(word.toLatin1()) : word;
}

QString ZELShellPrivate::namesForTerminal(const QString &text) const
{
    return utf8Editing ? QString::fromLatin1(text.toUtf8()) : text;
}

QString ZELShellPrivate::namesFor(const ZELArguments &args, const QString &text) const
{
    return args.hasProtocl() ? text : namesForTerminal(text);
}

void ZELShellPrivate::updatePath()
{
    environment.set(QStringLiteral("$PATH"), directories.path(true));
}

QString ZELShellPrivate::listing(ZELShellCommandTree *directory, bool hidden)
{
    if (!directory)
        return QStringLiteral("Main\n");
    ZELListing entries;
    for (const ZELShellCommandEntry &entry : ZELShellCommandTreePrivate::visible(directory, audience())) {
        if (entry.type != ZELShellCommandTree::System_Execute && (hidden || !isHidden(entry.name)))
            entries.append({entry.name, entry.type});
    }
    std::sort(entries.begin(), entries.end(), [](const auto &a, const auto &b) { return a.name < b.name; });
    return zelPaintColumns(entries, output.width());
}

void ZELShell::PrintDir(ZELShellCommandTree *dir, bool flag)
{
    d->output.write(d->namesForTerminal(d->listing(dir, flag)));
}

void ZELShell::dumptree(ZELShellCommandTree *src, QObject *dst)
{
    if (!src || !dst)
        return;
    for (const ZELShellCommandEntry &entry : ZELShellCommandTreePrivate::snapshot(src)) {
        const auto pin = ZELShellCommandPin::find(src, entry.name);
        if (!pin)
            continue;
        ZELShellCommandTree *copy = nodeUnder(dst, pin.node());
        if (entry.type == ZELShellCommandTree::Directory)
            dumptree(pin.node(), copy);
    }
}

ZELShellCommandTree *ZELShell::getCommandTree(bool withSystem)
{
    auto *root = new ZELShellCommandTree(QStringLiteral("Main"), nullptr, nullptr);
    dumptree(d->server->mainRoot(), root);
    if (!withSystem)
        return root;
    const QString name = QStringLiteral("system");
    ZELShellCommandTree *system = root->Find(name);
    if (!system) {
        system = new ZELShellCommandTree(name, nullptr, root);
        root->insert(system);
    }
    dumptree(d->server->systemRoot(), system);
    return root;
}

QString ZELShell::getEnvironment(QString name)
{
    return d->environment.value(name);
}

void ZELShell::setEnvironment(const QString &name, const QString &value)
{
    d->environment.set(name, value);
}

void ZELShell::LeftShift()
{
    if (!d->noTerminal)
        d->output.write(QByteArrayLiteral("\033[D"));
}

void ZELShell::RightShift()
{
    if (!d->noTerminal)
        d->output.write(QByteArrayLiteral("\033[C"));
}

void ZELShell::DeleteOne()
{
    if (!d->noTerminal)
        d->output.write(QByteArrayLiteral("\b \b"));
}
