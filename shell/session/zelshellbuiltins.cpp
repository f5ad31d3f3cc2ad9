// SPDX-License-Identifier: MIT
#include "zelarguments_p.h"
#include "zelcatch.h"
#include "zelcommandhelp_p.h"
#include "zelshell_p.h"
#include "zelshellcommand.h"
#include "zelshellcommand_p.h"
#include "zelshellcommandtree_p.h"
#include "zelshellexpansion_p.h"
#include "zelshellfilters_p.h"
#include "zelshellreply_p.h"
#include "zelshellserverstate_p.h"
#include "zelshellsystem_p.h"

#include <QThread>
#include <cerrno>
#include <cstdio>

namespace {

const QString errorState = QStringLiteral("EXECUTE_ERROR");

QStringList wordsOf(const ZELArguments &args)
{
    return args;
}

/// One built-in's run.
struct Builtin
{
    ZELShellPrivate &session;
    ZELArguments &args;
    ZELReply &reply;

    void exit() { endProcess(QStringLiteral("Appcation while exit!"), CloseApplication); }
    void reinit() { endProcess(QStringLiteral("Appcation while restart!"), ReStartApplication); }

    void endProcess(const QString &message, void (*end)())
    {
        args.setExecPath(QStringLiteral("/"));
        reply.farewell(QStringLiteral("APPLICATION_EXIT"), message, message);
        session.stop(ZELShellPrivate::Stopped);
        // The message is on its way before the process ends.
        if (!session.isMain)
            session.output.closeDevice();
        end();
    }

    void quit()
    {
        args.setExecPath(QStringLiteral("/"));
        reply.farewell(QStringLiteral("ZEL_SHELL_DISCONNECT"), QString(), QStringLiteral("ZEL shell disconnect"));
        session.because("its peer said quit");
        session.stopState = ZELShellPrivate::Stopped;
        session.quitter = QThread::currentThreadId();
    }

    void ls()
    {
        QStringList words = wordsOf(args).mid(1);
        const bool hidden = words.removeAll(QStringLiteral("-a")) > 0;
        if (words.size() > 1)
            return reply.fail(QStringLiteral("'ls' input error\n"));
        if (words.isEmpty())
            return list(session.directories.current(), hidden);
        const auto place = session.directories.place(session.pathOf(words.first()));
        const auto pin = ZELShellCommandPin::walk(place.start, place.pieces);
        if (!pin)
            return reply.fail(QStringLiteral("No such file or directory '%1' found\n").arg(words.first()));
        list(pin.node(), hidden);
    }

    void list(ZELShellCommandTree *directory, bool hidden)
    {
        reply.text(session.namesFor(args, session.listing(directory, hidden)));
        reply.done();
    }

    void cd()
    {
        QStringList words = wordsOf(args).mid(1);
        if (!words.isEmpty())
            words.first() = session.pathOf(words.first());
        const QString failed = session.directories.change(words);
        session.updatePath();
        if (failed.isEmpty())
            reply.done();
        else
            reply.fail(
                QStringLiteral("-Shell: cd: %1: No such file or directory\n").arg(session.namesFor(args, failed)));
    }

    void terminal()
    {
        const QString word = args.Length() == 2 ? QString(args[1]).toLower() : QString();
        if (word == QLatin1String("yes") || word == QLatin1String("y"))
            session.terminalSwitch = true;
        else if (word == QLatin1String("no") || word == QLatin1String("n"))
            session.terminalSwitch = false;
        reply.done();
    }

    void sys()
    {
        const QString text = systemText();
        const bool latin1 = !args.hasProtocl() && QString::fromLatin1(text.toLatin1()) == text;
        // On the heap and in the frame's hands: a kill ends the command too.
        auto *command = new ZELSystemCommand(latin1 ? text.toLatin1() : text.toUtf8(),
            session.isMain ? ZELSystemCommand::HostErrors : ZELSystemCommand::SentErrors);
        if (command->error()) {
            errno = command->error();
            perror("popen");
            delete command;
            return reply.fail(QStringLiteral("sh: %1: not found \n").arg(args.getAllInput()));
        }
        ZELFrame frame;
        frame->abandoned = [command] { delete command; };
        frame->timeoutMs = ZELShellCommandPrivate::defaultTimeLimit;
        const bool failed = zelGuard(frame.get(), [&] { pass(*command); }) != 0;
        delete command;
        if (failed)
            return reply.fail(QLatin1String("EXECUTE_ERROR :") + frame->exception->ToString() + QLatin1Char('\n'));
        reply.text(QStringLiteral("\n"));
        reply.done();
    }

    void pass(ZELSystemCommand &command)
    {
        ZELTextPieces pieces;
        while (command.isRunning() && (!session.output.stream() || session.output.isOpen())) {
            const QByteArray bytes = command.read(200);
            const QByteArray whole = args.hasProtocl() ? pieces.take(bytes, !command.isRunning()) : bytes;
            if (!whole.isEmpty())
                reply.bytes(whole);
        }
    }

    /// What stands behind the word "sys" and its index, as typed.
    QString systemText() const
    {
        const QString word = QStringLiteral("sys");
        const QString input = args.getAllInput();
        int from = input.indexOf(word) + word.size();
        if (from < input.size() && input.at(from) == QLatin1Char('#')) {
            while (from < input.size() && !input.at(from).isSpace())
                ++from;
        }
        return input.mid(from);
    }
};

struct Entry
{
    const char *name;
    bool onTerminal;
    bool inPackets;
    void (Builtin::*run)();
};

const Entry builtins[] = {
    {"exit", true, true, &Builtin::exit},
    {"reinit", true, true, &Builtin::reinit},
    {"terminal", false, true, &Builtin::terminal},
    {"quit", true, true, &Builtin::quit},
    {"ls", true, false, &Builtin::ls},
    {"cd", true, true, &Builtin::cd},
    {"sys", true, true, &Builtin::sys},
};

/// Whether a built-in may be used here; everybody may leave.
bool isOpen(ZELShellPrivate &session, ZELArguments &args)
{
    const QString name = args.getExecName();
    if (name == QLatin1String("quit"))
        return true;
    if (name == QLatin1String("sys") && !session.isMain && !session.server->settings()->remoteSys)
        return false;
    return session.isPermitted(args);
}

/// Runs the built-in or literal of the record; false when it names none.
bool runBuiltin(ZELShellPrivate &session, ZELArguments &args, ZELReply &reply, bool Entry::*offered)
{
    const QString name = args.getExecName();
    for (const Entry &entry : builtins) {
        if (entry.*offered && name == QLatin1String(entry.name)) {
            session.emitProcessReceived();
            if (!isOpen(session, args)) {
                ZELShellPrivate::refuse(args);
                return true;
            }
            (Builtin{session, args, reply}.*entry.run)();
            return true;
        }
    }
    if (args.Length() != 1 || !(zelIsNumber(name) || args.HasQuote(0)))
        return false;
    session.emitProcessReceived();
    reply.value(name);
    return true;
}

QString unknownText(const ZELArguments &args)
{
    return QLatin1String("Error : input '") + args.getAllInput() + QLatin1String("' can not execate");
}

void setCommandWord(ZELArguments &args)
{
    const ZELCommandWord word(args[0]);
    args.setExecName(word.name);
    args.setExecIndex(word.index);
}

} // namespace

void ZELShellPrivate::complete(const ZELArguments &args, const QString &state, const QString &text)
{
    if (const auto filter = ZELArgumentsPrivate::get(args)->filter)
        zelPrintFiltered(args, filter->finish());
    ZELCriticalSection section; // a kill comes before the answer, and gives its own, or after it
    ZELArgumentsPrivate *record = ZELArgumentsPrivate::get(args);
    args.setProtoclState(state);
    ZELArgumentsPrivate::completing = record;
    {
        const ZELWriteBehind behind; // what comes next is mostly the wait for the next line
        args.debug().noquote() << text;
    }
    ZELArgumentsPrivate::completing = nullptr;
    record->answered = true;
}

ZELShellCommandPin ZELShellPrivate::resolve(const QString &word) const
{
    const auto place = directories.place(decoded(word));
    auto pin = ZELShellCommandPin::walk(place.start, place.pieces);
    const bool bare = !word.contains(QLatin1Char('/')) && !word.contains(QLatin1Char('\\'));
    if (bare && !pin.command()) { // a directory may carry a system command's name
        auto system = ZELShellCommandPin::find(server->systemRoot(), word);
        if (system || !pin)
            return system;
    }
    return pin;
}

ZELShellPrivate::Outcome ZELShellPrivate::runCommand(ZELArguments &args)
{
    if (args.Length() == 0)
        return Outcome::NotFound;
    setCommandWord(args);
    ZELShellCommandPin pin = resolve(args.getExecName());
    if (!pin || pin.node()->CommandType() == ZELShellCommandTree::Directory || !pin.command())
        return runScripted(args);
    emitProcessReceived();
    args.setExecPath(pin.node()->getPath());
    if (!hasRoleFor(pin.command()) || !isPermitted(args)) {
        refuse(args);
        return Outcome::Answered;
    }
    if (answerHelp(args, pin))
        return Outcome::Ran;
    if (runPinned(pin, args))
        return Outcome::Ran;
    args.setErrorString(args.getExecPath().section(QLatin1Char('/'), -1) + QStringLiteral(" is already in running!"));
    complete(args, QStringLiteral("EXECUTE_RUNNINGLOCK"), args.getErrorString());
    return Outcome::Answered;
}

/// Keeps the session's list of running commands. Weak: what a kill leaves behind on the stack must not keep the
/// session, whose owner is further out.
class ZELShellPrivate::CommandWatcher : public ZELCommandWatcher
{
public:
    CommandWatcher(std::weak_ptr<ZELShellPrivate> session, const ZELArguments &args)
        : m_session(std::move(session))
        , m_args(args)
    {
    }
    void started() override { m_running = m_session.lock()->running.take(m_args.getExecPath()); }
    void ended() override { m_session.lock()->running.drop(m_running); }
    void abandoned() override { m_session.lock()->answerKilled(m_args); }

private:
    const std::weak_ptr<ZELShellPrivate> m_session;
    const ZELArguments m_args;
    ZELRunningNames::Entry m_running;
};

bool ZELShellPrivate::runPinned(ZELShellCommandPin &pin, const ZELArguments &args)
{
    return pin.execute(args, std::make_shared<CommandWatcher>(weak_from_this(), args));
}

bool ZELShellPrivate::isPermitted(ZELArguments &args)
{
    const auto settings = server->settings();
    if (isMain || !settings->permission)
        return true;
    bool permitted = false;
    callGuarded([&](const ZELArguments &record) { permitted = settings->permission(record); }, args);
    return permitted;
}

void ZELShellPrivate::refuse(const ZELArguments &args)
{
    args.setErrorString(args.getExecName() + QStringLiteral(" is not permitted!"));
    complete(args, QStringLiteral("EXECUTE_PERMISSION_ERROR"), args.getErrorString());
}

bool ZELShellPrivate::answerHelp(ZELArguments &args, ZELShellCommandPin &pin)
{
    const auto settings = server->settings();
    if (!settings->help)
        return explain(args, pin);
    if (args.containsOpt(QStringLiteral("-h")) || args.containsOpt(QStringLiteral("--help")))
        callGuarded(settings->help, args);
    else if (!args.containsOpt(QStringLiteral("--weakup")))
        return false;
    else if (settings->weakup)
        callGuarded(settings->weakup, args);
    return true;
}

bool ZELShellPrivate::explain(const ZELArguments &args, ZELShellCommandPin &pin) const
{
    const auto typed = ZELShellCommandPrivate::get(pin.command())->typed;
    if (!typed && !server->settings()->helpCommands)
        return false;
    QStringList words = wordsOf(args).mid(1);
    if (typed) // behind it everything is an argument
        words = words.mid(0, words.indexOf(QStringLiteral("--")));
    for (const QString &name : {QStringLiteral("-h"), QStringLiteral("--help")}) {
        if (words.contains(name) && !(typed && typed->signature.option(name))) {
            args.debug().noquote() << zelCommandHelp(pin.node());
            return true;
        }
    }
    return false;
}

void ZELShellPrivate::callGuarded(const std::function<void(ZELArguments)> &function, ZELArguments &args)
{
    ZELFrame frame;
    frame->abandoned = [this, args] { answerKilled(args); };
    frame->timeoutMs = ZELShellCommandPrivate::defaultTimeLimit;
    if (zelGuard(frame.get(), [&] { function(args); })) {
        args.setProtoclState(errorState);
        args.setErrorString(QLatin1String("EXECUTE_ERROR :") + frame->exception->ToString());
    }
}

void ZELShellPrivate::answerKilled(const ZELArguments &args)
{
    if (foreground.isInterrupted() && !args.IsBackground()) {
        args.setProtoclState(errorState);
        args.setErrorString(QStringLiteral("EXECUTE_ERROR :Interrupted")); // the key loop says so
        return;
    }
    args.setErrorString(QStringLiteral("EXECUTE_ERROR :Thread or Process is forced exit!"));
    complete(args, errorState, args.getErrorString());
    failed = true;
}

void ZELShellPrivate::printError(const ZELArguments &args)
{
    zelFinishFilters(*this, args);
    if (ZELArgumentsPrivate::get(args)->errorIsShown)
        return;
    args.debug().noquote() << args.getErrorString();
    const QString usage = ZELArgumentsPrivate::get(args)->usage;
    if (!usage.isEmpty() && !noTerminal && !args.hasProtocl())
        args.debug().noquote() << usage;
}

bool ZELShellPrivate::executeStd(ZELArguments &args, Unknown unknown)
{
    ZELTerminalReply reply(*this, args);
    const Outcome outcome = runCommand(args);
    bool handled = outcome != Outcome::NotFound;
    if (outcome == Outcome::Ran) {
        if (args.hasError())
            printError(args);
        else if (args.hasRetrunValue() && showReturnValue)
            args.debug().noquote() << args.getReturnValue().toString();
    } else if (!handled) {
        handled = args.Length() > 0 && runBuiltin(*this, args, reply, &Entry::onTerminal);
    }
    if (!handled && unknown == Unknown::IsError) {
        reply.unknown(unknownText(args));
        return false;
    }
    zelFinishFilters(*this, args);
    if (handled && interactive && !args.hasProtocl())
        printPrompt();
    return handled;
}

bool ZELShellPrivate::executePro(ZELArguments &args, Unknown unknown)
{
    args.enableEncode();
    ZELPacketReply reply(*this, args);
    const Outcome outcome = runCommand(args);
    if (outcome == Outcome::Ran) {
        if (args.hasError())
            complete(args, errorState, args.getErrorString());
        else
            reply.done();
    }
    if (outcome != Outcome::NotFound || (args.Length() > 0 && runBuiltin(*this, args, reply, &Entry::inPackets)))
        return true;
    if (unknown == Unknown::IsError)
        reply.unknown(unknownText(args));
    else
        reply.done();
    return false;
}

bool ZELShell::doCmd(ZELArguments &args)
{
    const auto session = d;
    return session->runCommand(args) != ZELShellPrivate::Outcome::NotFound;
}

bool ZELShell::doExecuteStd(ZELArguments &args)
{
    const auto session = d;
    return session->executeStd(args, ZELShellPrivate::Unknown::IsError);
}

bool ZELShell::doExecutePro(ZELArguments &args)
{
    const auto session = d;
    return session->executePro(args, ZELShellPrivate::Unknown::IsError);
}

bool ZELShell::isCommandRunning(QString name)
{
    return d->running.contains(name);
}

QStringList ZELShell::runningNames()
{
    return d->running.all();
}
