// SPDX-License-Identifier: MIT
#include "zelcommandhelp_p.h"

#include "zelshellcommand_p.h"

#include <QJsonArray>
#include <QMap>
#include <algorithm>

namespace {

using Node = ZELShellCommandTree;
using Parameter = ZELCommandParameter;
using Rows = QVector<QPair<QString, QString>>;

const char *const lineEnd = "\r\n";

QString heading(const QString &text)
{
    return QLatin1String(lineEnd) + QLatin1String(lineEnd) + text;
}

/// Rows below a heading, the second column aligned; nothing for none.
QString section(const QString &title, const Rows &rows)
{
    int width = 0;
    for (const auto &row : rows)
        width = std::max(width, row.first.size());
    QString text = rows.isEmpty() ? QString() : heading(title);
    for (const auto &row : rows) {
        const QString padded = row.second.isEmpty() ? row.first : row.first.leftJustified(width + 2) + row.second;
        text += QLatin1String(lineEnd) + QLatin1String("  ") + padded;
    }
    return text;
}

QString nameColumn(const Parameter &parameter)
{
    QString text = parameter.names.join(QLatin1String(", "));
    if (parameter.isOption && !parameter.isFlag())
        text += QLatin1Char(' ') + parameter.typeName().toUpper();
    return parameter.type.isList ? text + QLatin1String("...") : text;
}

QString helpColumn(const Parameter &parameter)
{
    QStringList pieces;
    if (!parameter.help.isEmpty())
        pieces += parameter.help;
    if (!parameter.isFlag())
        pieces += parameter.typeText();
    if (parameter.type.isList && parameter.range)
        pieces += QStringLiteral("%1 to %2 of them").arg(parameter.leastText(), parameter.mostText());
    if (parameter.defaultWord)
        pieces += parameter.defaultWord->isEmpty() ? QStringLiteral("empty when left out")
                                                   : *parameter.defaultWord + QLatin1String(" when left out");
    return pieces.join(QLatin1String("; "));
}

QString parameterSections(const ZELCommandSignature &signature)
{
    Rows arguments, options;
    for (const Parameter &parameter : signature.parameters)
        (parameter.isOption ? options : arguments).append({nameColumn(parameter), helpColumn(parameter)});
    return section(QStringLiteral("Arguments"), arguments) + section(QStringLiteral("Options"), options);
}

const ZELTypedCommand *typedOf(Node *node)
{
    ZELShellCommand *command = node->Command();
    return command ? ZELShellCommandPrivate::get(command)->typed.get() : nullptr;
}

/// The children that the audience may see, held, sorted by name.
QVector<std::shared_ptr<ZELShellCommandPin>> childrenOf(Node *directory, const ZELCommandAudience &audience)
{
    auto entries = ZELShellCommandTreePrivate::visible(directory, audience);
    std::sort(entries.begin(), entries.end(), [](const auto &a, const auto &b) { return a.name < b.name; });
    QVector<std::shared_ptr<ZELShellCommandPin>> pins;
    for (const ZELShellCommandEntry &entry : qAsConst(entries)) {
        auto pin = std::make_shared<ZELShellCommandPin>(ZELShellCommandPin::find(directory, entry.name));
        if (*pin)
            pins.append(std::move(pin));
    }
    return pins;
}

QString commandLine(ZELShellCommand *command)
{
    const QString replacement = ZELShellCommandPrivate::get(command)->commandTraits().replacement;
    if (replacement.isEmpty())
        return command->description();
    return command->description() + QStringLiteral(" (deprecated, use %1)").arg(replacement);
}

QJsonValue boundJson(const Parameter &parameter, const QString &text)
{
    using Type = ZELCommandType;
    const Type::Kind kind = parameter.type.kind;
    const bool isNumber = parameter.type.isList || kind == Type::Integer || kind == Type::Unsigned || kind == Type::Real
        || kind == Type::Size || kind == Type::Text;
    const double number = text.toDouble();
    const bool isExact = parameter.type.kind == Type::Real || std::abs(number) < 9e15; // what every reader can hold
    return isNumber && isExact ? QJsonValue(number) : QJsonValue(text);
}

QJsonObject parameterJson(const Parameter &parameter)
{
    QJsonObject json{{QStringLiteral("name"), parameter.name()}, {QStringLiteral("help"), parameter.help},
        {QStringLiteral("type"), parameter.typeName()}, {QStringLiteral("required"), parameter.isRequired()},
        {QStringLiteral("list"), parameter.type.isList}};
    if (parameter.names.size() > 1)
        json.insert(QStringLiteral("aliases"), QJsonArray::fromStringList(parameter.names.mid(1)));
    if (parameter.isOption)
        json.insert(QStringLiteral("flag"), parameter.isFlag());
    if (!parameter.choices.isEmpty())
        json.insert(QStringLiteral("choices"), QJsonArray::fromStringList(parameter.words()));
    if (parameter.defaultWord)
        json.insert(QStringLiteral("default"), *parameter.defaultWord);
    if (!parameter.leastText().isEmpty()) {
        json.insert(QStringLiteral("minimum"), boundJson(parameter, parameter.leastText()));
        json.insert(QStringLiteral("maximum"), boundJson(parameter, parameter.mostText()));
    }
    return json;
}

QJsonObject commandJson(Node *node)
{
    ZELShellCommand *command = node->Command();
    const ZELCommandTraits traits = ZELShellCommandPrivate::get(command)->commandTraits();
    QJsonObject json{{QStringLiteral("path"), zelTypedPath(node)},
        {QStringLiteral("system"), node->CommandType() == Node::System_Execute},
        {QStringLiteral("help"), command->description()}, {QStringLiteral("usage"), zelUsageLine(node).mid(7)},
        {QStringLiteral("group"), traits.group}, {QStringLiteral("multiRun"), command->canMultRunning()}};
    if (!traits.replacement.isEmpty())
        json.insert(QStringLiteral("deprecated"), traits.replacement);
    const ZELTypedCommand *typed = typedOf(node);
    if (!typed)
        return json;
    QJsonArray arguments, options;
    for (const Parameter &parameter : typed->signature.parameters)
        (parameter.isOption ? options : arguments).append(parameterJson(parameter));
    json.insert(QStringLiteral("arguments"), arguments);
    json.insert(QStringLiteral("options"), options);
    return json;
}

void collectJson(Node *node, const ZELCommandAudience &audience, QJsonArray &commands, QJsonArray &directories)
{
    if (node->Command()) {
        commands.append(commandJson(node));
        return;
    }
    const QString path = zelTypedPath(node);
    if (!path.isEmpty())
        directories.append(QJsonObject{
            {QStringLiteral("path"), path}, {QStringLiteral("help"), ZELShellCommandTreePrivate::summary(node)}});
    for (const auto &pin : childrenOf(node, audience))
        collectJson(pin->node(), audience, commands, directories);
}

} // namespace

QString zelTypedPath(ZELShellCommandTree *node)
{
    return node->getPath().section(QLatin1Char('/'), 2);
}

QString zelUsageLine(ZELShellCommandTree *node)
{
    const ZELTypedCommand *typed = typedOf(node);
    const QString words = typed ? typed->signature.usage() : QStringLiteral("...");
    const QString text = QLatin1String("Usage: ") + zelTypedPath(node);
    return words.isEmpty() ? text : text + QLatin1Char(' ') + words;
}

QString zelCommandHelp(ZELShellCommandTree *node)
{
    const QString purpose = commandLine(node->Command()).trimmed();
    const ZELTypedCommand *typed = typedOf(node);
    QString text = zelUsageLine(node);
    if (!purpose.isEmpty())
        text += QLatin1String(lineEnd) + purpose;
    return typed ? text + parameterSections(typed->signature) : text;
}

QString zelDirectoryHelp(ZELShellCommandTree *node, const ZELCommandAudience &audience)
{
    Rows directories;
    QMap<QString, Rows> groups;
    for (const auto &pin : childrenOf(node, audience)) {
        const QString name = pin->node()->objectName();
        ZELShellCommand *command = pin->command();
        if (command)
            groups[ZELShellCommandPrivate::get(command)->commandTraits().group].append({name, commandLine(command)});
        else
            directories.append({name + QLatin1Char('/'), ZELShellCommandTreePrivate::summary(pin->node())});
    }
    QString text = ZELShellCommandTreePrivate::summary(node) + section(QStringLiteral("Directories"), directories);
    for (auto group = groups.cbegin(); group != groups.cend(); ++group)
        text += section(group.key().isEmpty() ? QStringLiteral("Commands") : group.key(), group.value());
    return text.startsWith(QLatin1Char('\r')) ? text.mid(4) : text;
}

QJsonObject zelHelpJson(const QVector<ZELShellCommandTree *> &nodes, const ZELCommandAudience &audience)
{
    QJsonArray commands, directories;
    for (ZELShellCommandTree *node : nodes)
        collectJson(node, audience, commands, directories);
    return {{QStringLiteral("commands"), commands}, {QStringLiteral("directories"), directories}};
}
