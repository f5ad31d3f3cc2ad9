// SPDX-License-Identifier: MIT
#include "zelshellexecatestring_p.h"

#include "zelarguments_p.h"
#include "zelshellexpansion_p.h"
#include "zelshellfilters_p.h"
#include "zelshelllog_p.h"
#include "zelshellpacket_p.h"
#include "zelshellquestions_p.h"
#include "zelshellreply_p.h"
#include "zelshellserverstate_p.h"
#include "zelthread_p.h"
#include "zelthreadpool.h"

#include <QFileInfo>

namespace {

const QString nullText = QStringLiteral("NULL");
const QString baseExec = QStringLiteral("baseExec");

// Characters by which variables may lengthen a statement: a few of them that name one another would take all memory.
const int largestExpansion = 4 << 20;

const int longestScript = 64 << 20;

QString coloured(const QString &accept, const QString &text)
{
    if (accept == QLatin1String("STDWARNING"))
        return QLatin1String("\033[30;43m") + text + QLatin1String("\033[0m");
    // Fatal output stays plain on purpose.
    if (accept == QLatin1String("STDERROR") || accept == QLatin1String("STDCRITICAL"))
        return QLatin1String("\033[30;41m") + text + QLatin1String("\033[0m");
    return text;
}

// The hooks hold the bare record: a handle would keep it alive for ever.

ZELLogging::Hook colourHook(const ZELArguments &args)
{
    return [record = ZELArgumentsPrivate::get(args)](
               const QString &text) { return coloured(record->protocol.accept, text); };
}

/// Devices write Latin-1, so the packet's UTF-8 bytes travel as Latin-1 characters.
ZELLogging::Hook packetHook(const ZELArguments &args, bool mayComplete)
{
    ZELArgumentsPrivate *const record = ZELArgumentsPrivate::get(args);
    record->answersInPackets = true;
    return [record, mayComplete](const QString &text) {
        if (!mayComplete)
            record->completing = nullptr;
        const QByteArray packet = zelWritePacket(ZELArgumentsPrivate::handle(record), text);
        return QString::fromLatin1(packet.constData(), packet.size());
    };
}

/// Not from pipes and devices, which may give nothing, or something for ever.
std::optional<QString> scriptFile(const QString &name, QString *error)
{
    QFile file(name);
    if (!file.exists())
        *error = QStringLiteral("No such file or directory '%1' found").arg(name);
    else if (!QFileInfo(file).isFile())
        *error = QStringLiteral("'%1' is no file").arg(name);
    else if (!file.open(QIODevice::ReadOnly))
        *error = QStringLiteral("'%1' can not be read: ").arg(name) + file.errorString();
    if (!error->isEmpty())
        return std::nullopt;
    const QByteArray bytes = file.read(longestScript + 1);
    if (bytes.size() <= longestScript)
        return zelTextOf(bytes);
    *error = QStringLiteral("'%1' is longer than %2 bytes").arg(name).arg(longestScript);
    return std::nullopt;
}

} // namespace

thread_local ZELStatementDepth::Nesting ZELStatementDepth::s_nesting;

ZELStatementDepth::ZELStatementDepth()
    : m_outer(s_nesting)
{
    s_nesting.depth = m_outer.depth + 1;
    if (!isOutermost())
        return;
    s_nesting = Nesting{1, std::nullopt, nullptr};
    ZELEnvironment::Scope::leaveAll(); // of a function that was jumped out of
}

ZELStatementDepth::~ZELStatementDepth()
{
    s_nesting = m_outer;
}

std::optional<QString> ZELStatementDepth::remoteKey(const ZELShellPrivate &session)
{
    return s_nesting.session == &session ? s_nesting.remoteKey : std::nullopt;
}

void ZELStatementDepth::setRemoteKey(const ZELShellPrivate &session, const QString &key)
{
    if (s_nesting.session == &session && s_nesting.remoteKey)
        return;
    s_nesting.remoteKey = key;
    s_nesting.session = &session;
}

ZELStatement::ZELStatement(ZELShellPrivate &session, const ZELArguments &args)
    : m_session(session)
    , m_args(args)
{
}

QVariant ZELStatement::run(const ZELStatementDepth &depth)
{
    chooseAnswer();
    if (const auto filter = ZELArgumentsPrivate::get(m_args)->filter)
        m_args.setMessagePrintHook(ZELStatementFilter::before(filter, m_args, m_args.getMessagePrintHook()));
    switch (zelStatementKind(m_args)) {
    case ZELStatementKind::Query:
        query(depth.isOutermost());
        break;
    case ZELStatementKind::Assignment:
        assign();
        break;
    case ZELStatementKind::Indirect:
        m_args[0] = m_session.environment.value(m_args[0]);
        execute(ZELShellPrivate::Unknown::IsError);
        break;
    case ZELStatementKind::Command:
        if (expand())
            execute(ZELShellPrivate::Unknown::IsError);
        break;
    }
    if (m_args.hasError())
        m_session.failed = true;
    return m_args.getReturnValue();
}

void ZELStatement::chooseAnswer()
{
    const int at = m_args.indexOfOptFromString(zelProtocolTag());
    m_tagged = at >= 1;
    if (m_tagged)
        takeTag(at);
    const std::optional<QString> scriptKey = ZELStatementDepth::remoteKey(m_session);
    const std::optional<QString> base = scriptKey ? scriptKey : m_session.environment.find(baseExec);
    if (!m_tagged && !base) {
        if (!m_session.noTerminal)
            m_args.setMessagePrintHook(colourHook(m_args));
        return;
    }
    m_args.setProtocl(true);
    if (m_tagged || scriptKey)
        m_args.enableEncode();
    if (base && *base != nullText)
        m_args.setBaseCommand(*base);
    m_args.setMessagePrintHook(packetHook(m_args, m_tagged && !scriptKey));
}

void ZELStatement::takeTag(int at)
{
    takeWord(at, zelProtocolTag());
    const int answers = m_args.indexOfOptFromString(zelAnswersTag());
    ZELArgumentsPrivate::get(m_args)->takesQuestions = answers >= 1;
    if (answers >= 1)
        takeWord(answers, zelAnswersTag());
}

void ZELStatement::takeWord(int at, const QString &tag)
{
    ZELArgumentsPrivate *const record = ZELArgumentsPrivate::get(m_args);
    record->allInput = zelWithoutTag(record->allInput, tag);
    record->arguments.removeAt(at);
    // A client that pads its base64 sends up to two "=", which the splitter made words.
    for (int padding = 0; padding < 2 && at < m_args.Length() && m_args[at] == QLatin1String("="); ++padding)
        record->arguments.removeAt(at);
}

bool ZELStatement::execute(ZELShellPrivate::Unknown unknown)
{
    if (m_args.Length() == 0)
        return false;
    if (m_tagged) // whatever its command runs in turn
        ZELStatementDepth::setRemoteKey(m_session, ZELCommandWord(m_args[0]).typed());
    return m_tagged ? m_session.executePro(m_args, unknown) : m_session.executeStd(m_args, unknown);
}

bool ZELStatement::expand()
{
    const auto lookup = [this](const QString &name) { return m_session.environment.value(name); };
    int room = m_args.getAllInput().size() + largestExpansion;
    for (int i = 0; i < m_args.Length() && room >= 0; ++i) {
        m_args[i] = zelExpandWord(m_args[i], lookup, room);
        room -= m_args[i].size();
    }
    if (room >= 0)
        return true;
    const ZELCommandWord word(m_args.getAllInput().section(QLatin1Char(' '), 0, 0));
    m_args.setExecName(word.name);
    m_args.setExecIndex(word.index);
    const QString message = QStringLiteral("Error : the variables make the statement too long\n");
    if (m_tagged)
        ZELPacketReply(m_session, m_args).fail(message);
    else
        ZELTerminalReply(m_session, m_args).fail(message);
    return false;
}

void ZELStatement::query(bool outermost)
{
    const QString name = m_args[0];
    m_args.removeAt(0);
    m_args.setExecName(name);
    const std::optional<QString> value = m_session.environment.find(name);
    if (value)
        m_args.setReturnValue(*value);
    else
        m_session.environment.set(name, nullText);
    ZELShellPrivate::complete(m_args, QStringLiteral("EXECUTE_RESULT"), value.value_or(nullText));
    if (!m_args.hasProtocl() && outermost)
        m_session.printPrompt();
}

void ZELStatement::assign()
{
    const QString name = m_args[0];
    const QString input = m_args.getAllInput();
    m_args.removeAt(0);
    m_args.removeAt(0);
    m_args.setAllInput(input.mid(input.indexOf(QLatin1Char('=')) + 1).trimmed());
    if (m_args.Length() == 0) {
        m_session.environment.set(name, nullText);
        m_args.setExecName(name);
        if (m_tagged)
            ZELPacketReply(m_session, m_args).done();
        return;
    }
    if (!expand())
        return m_session.environment.set(name, QStringLiteral("ERROR"));
    const bool ran = execute(ZELShellPrivate::Unknown::IsText);
    m_session.environment.set(name, assignedValue(ran));
}

QString ZELStatement::assignedValue(bool ran) const
{
    if (!ran) {
        QString text = m_args.ToString(QStringLiteral(" "));
        // Clients number what may be a command; here it turned out to be text, to which the number does not belong.
        const ZELCommandWord word(m_args[0]);
        bool isNumber = false;
        word.index.toULongLong(&isNumber);
        if (m_tagged && isNumber)
            text.remove(word.name.size(), word.index.size() + 1);
        return text;
    }
    return m_args.hasError() ? QStringLiteral("ERROR") : m_args.getReturnValue().toString();
}

QVariant ZELShellPrivate::execute(const QString &line, bool background)
{
    return execute(line, newRecord(line), background);
}

QVariant ZELShellPrivate::execute(const QString &line, ZELArguments args, bool background, bool mayBeScript)
{
    const ZELStatementDepth depth;
    args.setIsBackground(background);
    args.setUuid(sessionUuid());
    if (args.Length() == 0)
        return QVariant();
    if (depth.isOutermost() && keepHistory && !noTerminal && !hasPrompt) {
        ZELCriticalSection section;
        history.add(server->settings()->passwordHidden ? zelWithoutPassword(line) : line);
    }
    if (mayBeScript && zelHasScriptBlock(line) && args.indexOfOptFromString(zelProtocolTag()) < 0)
        return runBlocks(line, args);
    const QString problem = zelTakeFilters(*this, line, args);
    if (!problem.isEmpty()) {
        refuseLine(line, args.indexOfOptFromString(zelProtocolTag()) >= 1, problem);
        return QVariant();
    }
    return ZELStatement(*this, args).run(depth);
}

/// Blocks as they are typed; what went wrong is said behind their output.
QVariant ZELShellPrivate::runBlocks(const QString &line, const ZELArguments &args)
{
    const QVariant value = runScript(line, args);
    if (!args.hasError())
        return value;
    failed = true;
    output.write(QLatin1String("Error : script, ") + args.getErrorString() + QLatin1Char('\n'));
    return QVariant();
}

ZELArguments ZELShellPrivate::newRecord(const QString &line)
{
    ZELCriticalSection section;
    const auto use = life.ref().use();
    return ZELArguments(use.get(), line);
}

void ZELShellPrivate::refuseLine(const QString &line, bool tagged, const QString &message)
{
    ZELArguments args = newRecord(line);
    failed = true;
    const std::optional<QString> scriptKey = ZELStatementDepth::remoteKey(*this);
    if (args.Length() == 0 || !(tagged || scriptKey))
        return output.write(message + QLatin1Char('\n'));
    if (scriptKey)
        args.setBaseCommand(*scriptKey);
    const bool assigns = zelStatementKind(args) == ZELStatementKind::Assignment && args.Length() > 2;
    const ZELCommandWord word(args[assigns ? 2 : 0]);
    args.setExecName(word.name);
    args.setExecIndex(word.index);
    args.setProtocl(true);
    args.enableEncode();
    args.setMessagePrintHook(packetHook(args, !scriptKey));
    complete(args, QStringLiteral("EXECUTE_ERROR"), message);
}

void ZELShellPrivate::answerUnanswered(const QString &line, const ZELArguments &args)
{
    if (ZELArgumentsPrivate::get(args)->answered)
        return;
    ZELStatementDepth::reset(); // the jump has left the thread inside of the statement
    // Of the line, since the record's tag is taken out when it is parsed.
    if (newRecord(line).indexOfOptFromString(zelProtocolTag()) >= 1)
        refuseLine(line, true, QStringLiteral("EXECUTE_ERROR :Thread or Process is forced exit!"));
}

QVariant ZELShellPrivate::runForeground(const QString &statement)
{
    {
        ZELCriticalSection section;
        underway.emplace(statement, newRecord(statement));
    }
    const QVariant value = execute(statement, underway->second, false);
    ZELCriticalSection section;
    underway.reset();
    return value;
}

QVariant ZELShellPrivate::runStatement(const QString &statement)
{
    if (!statement.endsWith(QLatin1Char('&')))
        return execute(statement, false);
    startJob(statement.chopped(1));
    return QVariant();
}

void ZELShellPrivate::startJob(const QString &statement)
{
    const auto job = std::make_shared<ZELShellJob>(statement);
    const ZELArguments args = newRecord(statement);
    auto run = [session = shared_from_this(), job, statement, args, key = ZELStatementDepth::remoteKey(*this),
                   scope = ZELEnvironment::Scope::current()] {
        std::optional<ZELStatementDepth> script;
        if (scope) {
            script.emplace();
            ZELEnvironment::Scope::enter(scope);
        }
        if (key) {
            if (!script)
                script.emplace();
            ZELStatementDepth::setRemoteKey(*session, *key);
        }
        session->execute(statement, args, true);
        // The session itself waits for input and would not notice that a job wants it to end.
        if (session->quitter == QThread::currentThreadId())
            session->output.closeDevice();
    };
    // Whatever ends the thread, and wherever it was then.
    const auto ended
        = [session = shared_from_this(), job, statement, args, inScript = bool(ZELStatementDepth::remoteKey(*this))] {
              if (!inScript)
                  session->answerUnanswered(statement, args);
              job->end();
          };
    const auto callback = [job, run = std::move(run)](ZELThreadInfo *) {
        job->begin();
        run();
    };
    jobs.append(job);
    ZELThread *thread = ZELThreadPool::Pool()->run(callback, QVariant());
    if (zelHasStarted(*thread))
        return job->open(thread, ended);
    ZELThreadPool::Pool()->Clear(false);
    job->end();
    refuseLine(statement, statement.contains(zelProtocolTag()), QStringLiteral("Error : no thread left for the job"));
}

std::optional<QString> zelScriptCode(const ZELArguments &args, QString *error)
{
    const QString stringOption = QStringLiteral("--string");
    const int at = args.indexOfOptFromString(stringOption);
    if (at >= 1) {
        const int valueAt = at + 1;
        if (valueAt < args.Length() && args.HasQuote(valueAt))
            return zelUnquoted(args[valueAt]);
        const QString input = args.getAllInput();
        const int from = input.indexOf(stringOption);
        if (from >= 0)
            return input.mid(from + stringOption.size());
        return args.getOptFromString(stringOption);
    }
    const QString fileName = args.getOptFromString(QStringLiteral("--file"));
    if (fileName.isEmpty())
        return std::nullopt;
    return scriptFile(fileName, error);
}

QVariant ZELShell::Execute(QString line, bool background)
{
    const auto session = d;
    return session->execute(line, background);
}

QVariant ZELShell::ExecuteString(ZELArguments args)
{
    const auto session = d;
    return session->executeString(args);
}
