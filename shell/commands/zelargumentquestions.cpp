// SPDX-License-Identifier: MIT
// The members of ZELArguments that ask the user.
#include "zelarguments_p.h"

std::optional<QString> (*ZELArgumentsPrivate::asker)(const ZELArguments &, const ZELQuestion &, QString *) = nullptr;

namespace {

std::optional<QString> askUser(const ZELArguments &args, const ZELQuestion &question)
{
    QString problem = QStringLiteral("nobody can be asked here");
    const auto asker = ZELArgumentsPrivate::asker;
    std::optional<QString> answer = asker ? asker(args, question, &problem) : std::nullopt;
    if (!answer) {
        args.setProtoclState(QStringLiteral("EXECUTE_ERROR"));
        args.setErrorString(QStringLiteral("%1: %2").arg(args.getExecName(), problem));
    }
    return answer;
}

} // namespace

std::optional<QString> ZELArguments::ask(const QString &question, int timeoutMs) const
{
    return askUser(*this, {question + QLatin1Char(' '), false, timeoutMs});
}

std::optional<QString> ZELArguments::askHidden(const QString &question, int timeoutMs) const
{
    return askUser(*this, {question + QLatin1Char(' '), true, timeoutMs});
}

bool ZELArguments::confirm(const QString &question, int timeoutMs) const
{
    const QStringList yes{QStringLiteral("y"), QStringLiteral("yes")};
    const auto answer = askUser(*this, {question + QLatin1String(" [y/N] "), false, timeoutMs});
    return answer && yes.contains(answer->trimmed(), Qt::CaseInsensitive);
}
