// SPDX-License-Identifier: MIT
#ifndef ZELSHELLSYSTEM_P_H
#define ZELSHELLSYSTEM_P_H

#include <QByteArray>
#include <sys/types.h>

/**
 * A command of the system's shell, and what it prints on its standard output.
 *
 * It reads nothing from the host's terminal, which is not its own, and starts with the default action of SIGPIPE. Used
 * by one thread; the destructor ends a command that still runs, with all that it started.
 *
 *     ZELSystemCommand command("ls /", ZELSystemCommand::SentErrors);
 *     while (command.isRunning())
 *         show(command.read(200));
 */
class ZELSystemCommand
{
public:
    enum Errors {
        HostErrors, ///< go where the host's go
        SentErrors ///< are read with the output
    };
    ZELSystemCommand(const QByteArray &command, Errors errors);
    ~ZELSystemCommand();
    ZELSystemCommand(const ZELSystemCommand &) = delete;
    ZELSystemCommand &operator=(const ZELSystemCommand &) = delete;

    /// 0, or the error number of what kept it from starting.
    int error() const { return m_error; }
    /// False once its output and the command itself have ended.
    bool isRunning() const { return m_output >= 0 || m_pid > 0; }
    /// What it has printed, after at most that time; empty when there was nothing.
    QByteArray read(int timeoutMs);

private:
    void closeOutput();
    void start(const char *command, int output, Errors errors);
    /// True when it has ended, or does so in that time.
    bool waitForEnd(int timeoutMs);

    int m_error = 0;
    int m_output = -1;
    pid_t m_pid = -1;
};

#endif
