// SPDX-License-Identifier: MIT
#include "runner.h"

#include <QIODevice>
#include <climits>
#include <cstdio>

Runner::Runner(ZELShellClient &client, const Options &options)
    : m_client(client)
    , m_options(options)
    , m_output(options.json)
{
    m_client.setRequestHook([this](const ZELShellProcessHeader &packet) { m_output.write(packet); });
}

Runner::~Runner()
{
    m_client.close();
    m_client.setRequestHook({});
}

Status Runner::runCommand(const QString &text)
{
    runLine(text);
    return finish();
}

Status Runner::runScript(QIODevice &script)
{
    while (!m_over) {
        const QByteArray line = script.readLine();
        if (line.isEmpty())
            break;
        if (!line.trimmed().startsWith('#'))
            runLine(QString::fromUtf8(line));
    }
    return finish();
}

// The host separates statements at every ";", in quotes too, and so does this.
void Runner::runLine(const QString &line)
{
    for (const QString &statement : line.split(QRegExp("[;\n]"), Qt::SkipEmptyParts))
        if (!m_over && !statement.trimmed().isEmpty())
            run(statement);
}

void Runner::run(const QString &text)
{
    const Statement statement{m_client.createProcess(text), text.trimmed()};
    if (!statement.process)
        return fail(Usage, m_client.errorString() + ": " + statement.text);
    statement.process->send();
    if (statement.process->isBackground())
        m_background.append(statement);
    else
        waitFor(statement);
}

void Runner::waitFor(const Statement &statement)
{
    const unsigned long ms = m_options.timeoutMs < 0 ? ULONG_MAX : static_cast<unsigned long>(m_options.timeoutMs);
    if (statement.process->wait(ms))
        return fail(statusOf(statement));
    m_over = true;
    fail(TimedOut,
        QString("no end of %1 after %2 s").arg(statement.text, QString::number(m_options.timeoutMs / 1000.0)));
}

Status Runner::statusOf(const Statement &statement)
{
    switch (statement.process->lastPacket().getProcessStatus()) {
    case ZELShellProcessHeader::ApplicationExit:
    case ZELShellProcessHeader::Disconnect:
        m_over = true;
        return Success;
    case ZELShellProcessHeader::Complete:
    case ZELShellProcessHeader::Result:
        return Success;
    case ZELShellProcessHeader::NotFound:
        return NotFound;
    case ZELShellProcessHeader::RunningLock:
    case ZELShellProcessHeader::PermissionError:
        return NotAllowed;
    case ZELShellProcessHeader::ExecuteError:
        return Failed;
    default:
        m_over = true;
        fail(NoConnection, "connection lost during " + statement.text);
        return NoConnection;
    }
}

void Runner::fail(Status status, const QString &message)
{
    if (!message.isEmpty())
        std::fprintf(stderr, "zelsh: %s\n", qPrintable(message));
    if (m_status == Success)
        m_status = status;
}

Status Runner::finish()
{
    while (!m_background.isEmpty() && !m_over)
        waitFor(m_background.takeFirst());
    // Nothing may be printed behind the check.
    m_client.close();
    if (!m_output.isGood())
        fail(Failed, "standard output takes no more");
    return m_status;
}
