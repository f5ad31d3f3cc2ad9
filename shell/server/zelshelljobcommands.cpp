// SPDX-License-Identifier: MIT
// The system commands "jobs" and "kill" that a host may switch on.
#include "zelarguments_p.h"
#include "zelshell_p.h"
#include "zelshellserver_p.h"

namespace {

/// The session that a command runs for; null for none, or one that has ended.
std::shared_ptr<ZELShellPrivate> sessionOf(const ZELArguments &args)
{
    const ZELCriticalSection section;
    const auto use = ZELArgumentsPrivate::get(args)->shell.use();
    auto *shell = qobject_cast<ZELShell *>(use.get());
    return shell ? ZELShellPrivate::get(shell)->shared_from_this() : nullptr;
}

QVector<std::shared_ptr<ZELShellJob>> jobsOf(const ZELArguments &args)
{
    const auto session = sessionOf(args);
    return session ? session->jobs.running() : QVector<std::shared_ptr<ZELShellJob>>();
}

void fail(const ZELArguments &args, const QString &text)
{
    args.setProtoclState(QStringLiteral("EXECUTE_ERROR"));
    args.setErrorString(text);
}

} // namespace

class ZELShellJobCommands : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    /// One line a job, "NUMBER  STATEMENT".
    void jobs(ZELArguments args)
    {
        for (const auto &job : jobsOf(args))
            args.debug().noquote().nospace() << job->number << "  " << job->statement;
    }

    void kill(ZELArguments args)
    {
        bool isNumber = false;
        const int number = args.Length() == 2 ? args[1].toInt(&isNumber) : 0;
        if (!isNumber)
            return fail(args, QStringLiteral("kill: a job's number is needed, see jobs"));
        for (const auto &job : jobsOf(args)) {
            if (job->number == number && job->kill())
                return;
        }
        fail(args, QStringLiteral("kill: %1: no such job").arg(number));
    }
};

bool ZELShellServer::registerJobCommands()
{
    auto commands = std::make_unique<ZELShellJobCommands>();
    const bool done = registerSysCmd("jobs", commands.get(), SLOT(jobs(ZELArguments)))
        && registerSysCmd("kill", commands.get(), SLOT(kill(ZELArguments)));
    if (!done)
        return false; // what was registered goes with its receiver
    setDescription(QString(), QStringLiteral("jobs"), QStringLiteral("Lists the background jobs of this session"));
    setDescription(QString(), QStringLiteral("kill"), QStringLiteral("kill NUMBER: ends a background job"));
    d->jobCommands = std::move(commands);
    return true;
}

#include "zelshelljobcommands.moc"
