// SPDX-License-Identifier: MIT
// The members of ZELShellPrivate that run scripts.
#include "zelshellscripts_p.h"

#include "zelarguments_p.h"
#include "zelscriptevaluator_p.h"
#include "zelshell_p.h"
#include "zelshellexecatestring_p.h"
#include "zelshellexpansion_p.h"

namespace {

constexpr int deepestCall = 256;

// For the blocks and expressions of a script or function; on a small stack, half of it.
constexpr quintptr scriptStack = 3 << 20;

class SessionHost : public ZELScriptHost
{
public:
    explicit SessionHost(ZELShellPrivate &session)
        : m_session(session)
    {
    }
    Result run(const QString &statement) override
    {
        if (statement.endsWith(QLatin1Char('&'))) {
            m_session.startJob(statement.chopped(1));
            return {};
        }
        const ZELArguments args = m_session.newRecord(statement);
        const QVariant value = m_session.execute(statement, args, false, false);
        return {value, args.hasError() || wasRefused(args), args.getErrorString(),
            ZELArgumentsPrivate::get(args)->errorSaysWhere};
    }
    QString variable(const QString &name) override { return m_session.environment.value(name); }
    void setVariable(const QString &name, const QString &value) override { m_session.environment.set(name, value); }
    void define(const ZELScriptStep &function) override { m_session.functions.define(function); }
    bool isEnding() override
    {
        zelSafePoint();
        return m_session.isStopping();
    }

private:
    /// Not run at all, which has states of its own.
    static bool wasRefused(const ZELArguments &args)
    {
        const QString state = args.getProtoclState();
        return state == QLatin1String("EXECUTE_PERMISSION_ERROR") || state == QLatin1String("EXECUTE_RUNNINGLOCK");
    }

    ZELShellPrivate &m_session;
};

void fail(const ZELArguments &args, const QString &error)
{
    args.setErrorString(error);
    args.setProtoclState(QStringLiteral("EXECUTE_ERROR"));
}

bool hasStackLeft()
{
    const quintptr low = zelThreadFaults.stackLow, here = quintptr(__builtin_frame_address(0));
    if (!low || here < low || here > zelThreadFaults.stackHigh)
        return true; // not known
    return here - low > qMin(scriptStack, (zelThreadFaults.stackHigh - low) / 2);
}

/// False, with the error, where calls or scripts that run each other have become too many or need too much.
bool mayGoDeeper(bool isTooDeep, const char *what, const ZELArguments &args)
{
    if (!isTooDeep && hasStackLeft())
        return true;
    fail(args,
        isTooDeep ? QLatin1String(what) + QStringLiteral(" each other more than %1 deep").arg(deepestCall)
                  : QStringLiteral("blocks and calls are nested too deep"));
    return false;
}

/// A script that others run names its file, instead of each of them the line in which it ran the next one.
void nameFile(const ZELArguments &args)
{
    ZELArgumentsPrivate *const record = ZELArgumentsPrivate::get(args);
    const QString file = args.getOptFromString(QStringLiteral("--file"));
    if (record->errorSaysWhere || file.isEmpty() || args.indexOfOptFromString(QStringLiteral("--string")) >= 1)
        return;
    args.setErrorString(file + QLatin1String(", ") + args.getErrorString());
    record->errorSaysWhere = true;
}

} // namespace

void ZELShellFunctions::define(const ZELScriptStep &function)
{
    const auto kept = std::make_shared<const ZELScriptStep>(function);
    ZELSessionLock lock(m_mutex);
    m_functions.insert(function.name, kept);
}

std::shared_ptr<const ZELScriptStep> ZELShellFunctions::find(const QString &name) const
{
    ZELSessionLock lock(m_mutex);
    return m_functions.value(name);
}

QStringList ZELShellFunctions::names() const
{
    ZELSessionLock lock(m_mutex);
    return m_functions.keys();
}

QStringList zelTypedStatements(const QString &line)
{
    const QLatin1Char separator(';');
    if (!line.contains(separator) || zelHasScriptBlock(line))
        return {line};
    ZELScriptError error;
    const bool bearsScript = line.contains(QLatin1String("dostring"));
    const ZELScriptBody parsed = bearsScript ? zelParseScript(line, &error) : nullptr;
    if (!parsed)
        return line.split(separator, Qt::SkipEmptyParts);
    QStringList statements;
    for (const ZELScriptStep &step : parsed->steps)
        statements += step.value.statement;
    return statements;
}

bool zelHasScriptBlock(const QString &line)
{
    if (!line.contains(QLatin1Char('{')) && !line.contains(QLatin1Char('(')))
        return false;
    for (const QString &piece : line.split(QLatin1Char(';')))
        if (zelBeginsScriptBlock(piece))
            return true;
    return false;
}

QVariant ZELShellPrivate::runScript(const QString &code, const ZELArguments &args, bool *hasReturned)
{
    ZELScriptError problem;
    const ZELScriptBody script = zelParseScript(code, &problem);
    if (!script) {
        fail(args, problem.toString());
        return QVariant();
    }
    SessionHost host(*this);
    ZELScriptEvaluator evaluator(host);
    const QVariant value = evaluator.run(*script);
    if (!evaluator.error().isEmpty())
        fail(args, evaluator.error());
    ZELArgumentsPrivate *const record = ZELArgumentsPrivate::get(args);
    record->errorSaysWhere = record->errorIsShown = evaluator.isPassedOn();
    if (hasReturned)
        *hasReturned = evaluator.hasReturned();
    return value;
}

QVariant ZELShellPrivate::executeString(const ZELArguments &args, bool *hasReturned)
{
    QString error;
    const std::optional<QString> code = zelScriptCode(args, &error);
    if (!error.isEmpty())
        fail(args, error);
    else if (!code && hasReturned) // not of a command, which may do so without code
        fail(args, QStringLiteral("dostring: expected --string CODE or --file PATH"));
    if (!code)
        return QVariant();
    const ZELStatementDepth depth;
    // Of each script its statement and itself count.
    if (!mayGoDeeper(depth.depth() > 2 * deepestCall, "scripts run", args))
        return QVariant();
    if (args.hasProtocl()) {
        ZELCommandWord word(args.getExecName());
        word.index = args.getExecIndex();
        ZELStatementDepth::setRemoteKey(*this, word.typed());
    }
    const QVariant value = runScript(*code, args, hasReturned);
    if (args.hasError() && depth.depth() > 2)
        nameFile(args);
    return value;
}

/// What scripts brought: their runner, and the functions of the session.
ZELShellPrivate::Outcome ZELShellPrivate::runScripted(ZELArguments &args)
{
    const auto function = functions.find(args.getExecName());
    if (!function && args.getExecName() != QLatin1String("dostring"))
        return Outcome::NotFound;
    if (!isPermitted(args)) {
        refuse(args);
        return Outcome::Answered;
    }
    if (function) {
        callFunction(*function, args);
        return Outcome::Ran;
    }
    // On a terminal the last statement has shown its value itself.
    bool hasReturned = false;
    const QVariant value = executeString(args, &hasReturned);
    if (value.isValid() && (hasReturned || args.hasProtocl()))
        args.setReturnValue(value);
    return Outcome::Ran;
}

void ZELShellPrivate::callFunction(const ZELScriptStep &function, ZELArguments &args)
{
    QStringList words;
    for (int i = 1; i < args.Length(); ++i)
        words += args.HasQuote(i) ? zelUnquoted(args[i]) : args[i];
    QHash<QString, QString> parameters{{QStringLiteral("$*"), words.join(QLatin1Char(' '))}};
    parameters.insert(QStringLiteral("$@"), parameters.value(QStringLiteral("$*")));
    for (int i = 0; i < function.words.size(); ++i)
        parameters.insert(function.words.at(i), words.value(i));
    const ZELEnvironment::Scope scope(environment, parameters);
    if (!mayGoDeeper(scope.depth() > deepestCall, "functions call", args))
        return;
    SessionHost host(*this);
    ZELScriptEvaluator evaluator(host);
    const QVariant value = evaluator.run(*function.body);
    ZELArgumentsPrivate *const record = ZELArgumentsPrivate::get(args);
    record->errorSaysWhere = !evaluator.error().isEmpty();
    record->errorIsShown = evaluator.isPassedOn();
    if (evaluator.isPassedOn())
        fail(args, evaluator.error());
    else if (!evaluator.error().isEmpty())
        fail(args, function.name + QLatin1String(", ") + evaluator.error());
    else if (evaluator.hasReturned())
        args.setReturnValue(value);
}
