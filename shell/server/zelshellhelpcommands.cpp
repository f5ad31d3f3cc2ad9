// SPDX-License-Identifier: MIT
// The system command "help" that a host may switch on.
#include "zelarguments_p.h"
#include "zelcommandhelp_p.h"
#include "zelshell_p.h"
#include "zelshellserver_p.h"

#include <QJsonDocument>
#include <QRegularExpression>

namespace {

const char builtIns[] = "Built in\r\n"
                        "  cd [PATH], ls [PATH], sys WORDS, $NAME = VALUE, $NAME, quit, exit, reinit\r\n"
                        "  a; b runs two statements, a & runs one in the background, COMMAND -h tells more of one";

/// The session that a command runs for; null for none, or one that has ended.
std::shared_ptr<ZELShellPrivate> sessionOf(const ZELArguments &args)
{
    const ZELCriticalSection section;
    const auto use = ZELArgumentsPrivate::get(args)->shell.use();
    auto *shell = qobject_cast<ZELShell *>(use.get());
    return shell ? ZELShellPrivate::get(shell)->shared_from_this() : nullptr;
}

/// One answer of "help", for the host itself when there is no session.
class Help
{
public:
    Help(const ZELArguments &args, std::shared_ptr<ZELShellServerState> server)
        : m_args(args)
        , m_server(std::move(server))
        , m_session(sessionOf(args))
        , m_audience(m_session ? m_session->audience() : ZELCommandAudience())
    {
    }

    void answer(const std::optional<QString> &path, bool json)
    {
        const ZELCriticalSection section; // a jump over the pin would keep its node for ever
        const ZELShellCommandPin pin = path ? find(*path) : ZELShellCommandPin();
        const ZELShellCommandPin directory = path ? directoryOf(*path, pin) : ZELShellCommandPin();
        QVector<ZELShellCommandTree *> nodes{pin.node(), directory.node()};
        nodes.removeAll(nullptr);
        if (path && (nodes.isEmpty() || !mayKnow(pin.command())))
            return fail(QStringLiteral("help: there is nothing called '%1'").arg(*path));
        if (json)
            return print(jsonText(nodes), m_args.object());
        print(nodes.isEmpty() ? overview() : textOf(nodes), m_args.debug());
    }

private:
    ZELShellCommandPin find(const QString &path) const
    {
        if (m_session)
            return m_session->resolve(path);
        auto pin = ZELShellCommandPin::walk(m_server->mainRoot(), path.split(QLatin1Char('/'), Qt::SkipEmptyParts));
        return pin ? std::move(pin) : zelLocateCommand(*m_server, QString(), path);
    }

    /// The directory that bears the name of a system command.
    ZELShellCommandPin directoryOf(const QString &path, const ZELShellCommandPin &found) const
    {
        if (!m_session || !found.command())
            return {};
        const auto place = m_session->directories.place(path);
        auto pin = ZELShellCommandPin::walk(place.start, place.pieces);
        return pin.command() ? ZELShellCommandPin() : std::move(pin);
    }

    bool mayKnow(ZELShellCommand *command) const { return !command || !m_session || m_session->hasRoleFor(command); }

    QString textOf(const QVector<ZELShellCommandTree *> &nodes) const
    {
        QStringList texts;
        for (ZELShellCommandTree *node : nodes)
            texts += node->Command() ? zelCommandHelp(node) : zelDirectoryHelp(node, m_audience);
        return texts.join(QLatin1String("\r\n\r\n"));
    }

    QString overview() const
    {
        const QString blank = QStringLiteral("\r\n\r\n");
        QString system = zelDirectoryHelp(m_server->systemRoot(), m_audience);
        system.replace(QRegularExpression(QStringLiteral("^Commands")), QStringLiteral("Everywhere"));
        QStringList parts{zelDirectoryHelp(m_server->mainRoot(), m_audience), system, QLatin1String(builtIns)};
        parts.removeAll(QString());
        return parts.join(blank);
    }

    QString jsonText(QVector<ZELShellCommandTree *> nodes) const
    {
        if (nodes.isEmpty())
            nodes = {m_server->systemRoot(), m_server->mainRoot()};
        const QJsonDocument document(zelHelpJson(nodes, m_audience));
        return QString::fromUtf8(document.toJson(QJsonDocument::Compact)) + QLatin1String("\r\n");
    }

    static void print(const QString &text, ZELLogging log) { log.noquote() << text; }

    void fail(const QString &text) const
    {
        m_args.setProtoclState(QStringLiteral("EXECUTE_ERROR"));
        m_args.setErrorString(text);
    }

    const ZELArguments &m_args;
    const std::shared_ptr<ZELShellServerState> m_server;
    const std::shared_ptr<ZELShellPrivate> m_session;
    const ZELCommandAudience m_audience;
};

} // namespace

bool ZELShellServer::registerHelpCommands()
{
    const std::weak_ptr<ZELShellServerState> weak = d->state;
    const auto help = [weak](const ZELArguments &args, const std::optional<QString> &path, bool json) {
        if (auto state = weak.lock())
            Help(args, std::move(state)).answer(path, json);
    };
    const bool done = systemCommand("help", help)
                          .help("Lists the commands, or explains one")
                          .multiRun()
                          .argument("path", "A command or directory")
                          .completeTree()
                          .option("--json", "For programs, with everything below")
                          .add();
    if (done)
        d->state->change([](ZELShellSettings &settings) { settings.helpCommands = true; });
    return done;
}
