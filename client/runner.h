// SPDX-License-Identifier: MIT
#ifndef RUNNER_H
#define RUNNER_H

#include "options.h"
#include "output.h"
#include "status.h"

#include <QList>
#include <memory>
#include <zelshellclient.h>

class QIODevice;

/// Runs statements one after another over a connected client and prints their packets as they come. Those sent to the
/// background go on meanwhile and are waited for at the end.
class Runner
{
public:
    Runner(ZELShellClient &client, const Options &options);
    ~Runner();

    /// The status of the first statement that failed, or success. A command goes on behind a failure as a shell does; a
    /// lost connection or a time-out ends it.
    Status runCommand(const QString &text);
    Status runScript(QIODevice &script);

private:
    struct Statement
    {
        std::shared_ptr<ZELShellProcess> process;
        QString text;
    };
    void runLine(const QString &line);
    void run(const QString &statement);
    void waitFor(const Statement &statement);
    Status statusOf(const Statement &statement);
    Status finish();
    void fail(Status status, const QString &message = QString());

    ZELShellClient &m_client;
    const Options &m_options;
    Output m_output;
    QList<Statement> m_background;
    Status m_status = Success;
    bool m_over = false;
};

#endif
