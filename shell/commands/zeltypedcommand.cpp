// SPDX-License-Identifier: MIT
#include "zelarguments_p.h"
#include "zelcommandsignature_p.h"

QVariant ZELTypedCommand::run(const ZELArguments &args) const
{
    if (function.hasReceiver && !function.receiver)
        return QVariant();
    ZELArgumentsPrivate *const record = ZELArgumentsPrivate::get(args);
    ZELCommandValues values;
    const QString problem = signature.bind(record->arguments, values);
    if (problem.isEmpty())
        return function.call(args, values.data());
    const QString name = record->execName.isEmpty() ? record->arguments.value(0) : record->execName;
    args.setProtoclState(QStringLiteral("EXECUTE_ERROR"));
    args.setErrorString(name + QLatin1String(": ") + problem);
    record->usage = QLatin1String("Usage: ") + name + QLatin1Char(' ') + signature.usage();
    return QVariant();
}
