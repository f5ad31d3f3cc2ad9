// SPDX-License-Identifier: MIT
#include "commandbook.h"

#include "arguments.h"

#include <QStringList>
#include <zelshellserver.h>

static const char builtIns[] = "\r\nBuilt in: cd [DIR], ls [DIR], sys COMMAND, $NAME = VALUE, quit, exit, reinit\r\n"
                               "Several statements: a; b    In the background: a &    More on one: COMMAND -h";

CommandBook::CommandBook(ZELShellServer *server, QObject *parent)
    : QObject(parent)
    , m_server(server)
{
    addSystem("help [PATH]", "lists the commands, or those below PATH", this, SLOT(help(ZELArguments)));
    addSystem("version", "tells what runs here", this, SLOT(version(ZELArguments)));
    server->setHelpFunction([this](ZELArguments args) { describe(args); });
}

void CommandBook::add(const char *usage, const char *purpose, QObject *receiver, const char *member, Running running)
{
    const QString command = QString(usage).section(' ', 0, 0);
    const QString path = command.section('/', 0, -2);
    const QString name = command.section('/', -1);
    if (!m_server->registerCmd(qPrintable(path), qPrintable(name), receiver, member, running == Shared))
        qWarning("CommandBook::add: %s was refused", usage);
    m_server->setDescription(path, name, purpose);
    m_usages.insert("/Main/" + command, usage);
}

void CommandBook::addSystem(const char *usage, const char *purpose, QObject *receiver, const char *member)
{
    const QString name = QString(usage).section(' ', 0, 0);
    if (!m_server->registerSysCmd(qPrintable(name), receiver, member))
        qWarning("CommandBook::addSystem: %s was refused", usage);
    m_server->setDescription({}, name, purpose);
    m_usages.insert("/Sys/" + name, usage);
}

QVariant CommandBook::help(ZELArguments args)
{
    if (!takes(args, 0, 1))
        return {};
    const QString prefix = args.ArgumentsLength() ? args[1] : QString();
    const QString found = listing(prefix);
    if (found.isEmpty())
        return refuse(args, "help: there is no command below '" + prefix + "'");
    print(args, prefix.isEmpty() ? found + builtIns : found);
    return {};
}

QVariant CommandBook::version(ZELArguments args)
{
    if (!takes(args, 0, 0))
        return {};
    print(args, QStringLiteral("ZEL Shell " ZELHOST_VERSION ", demonstration host, Qt %1").arg(qVersion()));
    return {};
}

void CommandBook::describe(ZELArguments args) const
{
    const QString path = args.getExecPath();
    for (const ZELShellCommandInfo &command : m_server->commands()) {
        const QString full = command.path + '/' + command.name;
        if (full == path) {
            print(args, "Usage: " + m_usages.value(full, command.name) + "\r\n" + command.description);
            return;
        }
    }
    print(args, path + ": there is no help for this");
}

/// Cuts "/Main/" and "/Sys/", which nobody types.
static QString typed(const ZELShellCommandInfo &command)
{
    return (command.path + '/' + command.name).section('/', 2);
}

QString CommandBook::listing(const QString &prefix) const
{
    QVector<QPair<QString, QString>> rows;
    int width = 0;
    for (const ZELShellCommandInfo &command : m_server->commands()) {
        const QString usage = m_usages.value(command.path + '/' + command.name, typed(command));
        if (!usage.startsWith(prefix))
            continue;
        rows.append({usage, command.description});
        width = qMax(width, usage.size());
    }
    QStringList lines;
    for (const auto &row : rows)
        lines += row.first.leftJustified(width + 2) + row.second;
    return lines.join("\r\n");
}
