// SPDX-License-Identifier: MIT
#include "zelcommandbuilder.h"

#include "zelcommandsignature_p.h"

#include <QDebug>

namespace {

using Parameter = ZELCommandParameter;

/// Collects what is said once all is registered.
void warn(const ZELCommandDraft &draft, const QString &text)
{
    qWarning("ZELCommandBuilder: %s: %s", draft.name.constData(), qUtf8Printable(text));
}

/// The parameters are described in their order; those with a name have been.
Parameter *nextOf(ZELCommandDraft &draft)
{
    for (Parameter &parameter : draft.typed.signature.parameters)
        if (parameter.names.isEmpty())
            return &parameter;
    return nullptr;
}

Parameter *lastOf(ZELCommandDraft &draft)
{
    auto &parameters = draft.typed.signature.parameters;
    Parameter *next = nextOf(draft);
    Parameter *const end = next ? next : parameters.end();
    if (end != parameters.begin())
        return end - 1;
    warn(draft, QStringLiteral("nothing was declared yet"));
    return nullptr;
}

void declare(ZELCommandDraft &draft, const QStringList &names, const QString &help, bool isOption)
{
    Parameter *parameter = nextOf(draft);
    if (!parameter)
        return warn(draft, names.join(QLatin1Char(' ')) + QLatin1String(" has no parameter"));
    parameter->names = names;
    parameter->help = help;
    parameter->isOption = isOption;
}

/// Without the names that no line could hold or that are taken.
QStringList usableNames(const ZELCommandDraft &draft, const QString &names)
{
    QStringList usable;
    for (const QString &piece : names.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString name = piece.trimmed();
        const QStringList words = ZELArguments::CommandSplit(name, true, true);
        if (words == QStringList(name) && name.size() > 1 && name.startsWith(QLatin1Char('-'))
            && name != QLatin1String("--") && !draft.typed.signature.option(name))
            usable += name;
        else
            warn(draft, name + QLatin1String(" is no name for an option, or is taken"));
    }
    return usable;
}

} // namespace

ZELCommandBuilder::ZELCommandBuilder(const char *path, const char *name, ZELCommandFunction function, Planter planter)
    : d(new ZELCommandDraft)
    , m_planter(std::move(planter))
{
    d->path = path;
    d->name = name;
    for (const ZELCommandType &type : qAsConst(function.types)) {
        Parameter parameter;
        parameter.type = type;
        d->typed.signature.parameters.append(parameter);
    }
    d->typed.function = std::move(function);
}

ZELCommandBuilder::ZELCommandBuilder(ZELCommandBuilder &&other) noexcept = default;

ZELCommandBuilder::~ZELCommandBuilder()
{
    if (d && !add())
        qWarning("ZELCommandBuilder: a command was refused");
}

bool ZELCommandBuilder::add()
{
    const std::unique_ptr<ZELCommandDraft> draft = std::move(d);
    if (!draft)
        return false;
    for (const QString &problem : draft->typed.signature.complete())
        warn(*draft, problem);
    return m_planter(*draft);
}

ZELCommandBuilder &ZELCommandBuilder::help(const ZELCommandText &text)
{
    d->help = text;
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::multiRun(bool on)
{
    d->multiRun = on;
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::timeLimit(int ms)
{
    d->timeLimit = ms;
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::group(const ZELCommandText &name)
{
    d->traits.group = name;
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::hidden(bool on)
{
    d->traits.hidden = on;
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::deprecated(const ZELCommandText &replacement)
{
    d->traits.replacement = replacement;
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::role(const ZELCommandText &name)
{
    d->traits.role = name;
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::argument(const ZELCommandText &name, const ZELCommandText &help)
{
    declare(*d, {name}, help, false);
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::option(const ZELCommandText &names, const ZELCommandText &help)
{
    const QStringList usable = usableNames(*d, names);
    if (!usable.isEmpty())
        declare(*d, usable, help, true);
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::range(ZELCommandBound least, ZELCommandBound most)
{
    if (Parameter *parameter = lastOf(*d))
        parameter->range.emplace(least, most);
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::choices(std::initializer_list<ZELCommandChoice> list)
{
    if (Parameter *parameter = lastOf(*d))
        parameter->choices = list;
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::defaultValue(const ZELCommandText &word)
{
    if (Parameter *parameter = lastOf(*d))
        parameter->defaultWord = word;
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::completer(ZELCommandCompleter function)
{
    if (Parameter *parameter = lastOf(*d))
        parameter->completer = std::move(function);
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::completeTree()
{
    if (Parameter *parameter = lastOf(*d))
        parameter->completion = Parameter::Completion::Tree;
    return *this;
}

ZELCommandBuilder &ZELCommandBuilder::completeFiles()
{
    if (Parameter *parameter = lastOf(*d))
        parameter->completion = Parameter::Completion::Files;
    return *this;
}
