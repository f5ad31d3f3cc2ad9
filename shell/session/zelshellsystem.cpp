// SPDX-License-Identifier: MIT
#include "zelshellsystem_p.h"

#include "zelguard_p.h"

#include <QDeadlineTimer>
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

ZELSystemCommand::ZELSystemCommand(const QByteArray &command, Errors errors)
{
    ZELCriticalSection section;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        m_error = errno;
        return;
    }
    start(command.constData(), ends[1], errors);
    close(ends[1]);
    m_output = ends[0];
    if (m_error)
        closeOutput();
}

void ZELSystemCommand::start(const char *command, int output, Errors errors)
{
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
    if (errors == SentErrors)
        posix_spawn_file_actions_adddup2(&files, output, STDERR_FILENO);

    // The library ignores SIGPIPE, and its threads may block signals; neither is for the command.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigaddset(&signals, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    // A session of its own: a process group to be ended as a whole, and no way to the terminal of the operator.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);

    const char *const words[] = {"sh", "-c", command, nullptr};
    m_error = posix_spawn(&m_pid, "/bin/sh", &files, &attributes, const_cast<char *const *>(words), environ);
    if (m_error)
        m_pid = -1;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
}

QByteArray ZELSystemCommand::read(int timeoutMs)
{
    if (m_output < 0) {
        waitForEnd(timeoutMs);
        return QByteArray();
    }
    pollfd ready = {m_output, POLLIN, 0};
    if (poll(&ready, 1, timeoutMs) <= 0)
        return QByteArray();
    QByteArray bytes(64 * 1024, Qt::Uninitialized);
    const ssize_t length = ::read(m_output, bytes.data(), size_t(bytes.size()));
    if (length == 0 || (length < 0 && errno != EINTR))
        closeOutput();
    bytes.truncate(int(qMax<ssize_t>(0, length)));
    return bytes;
}

bool ZELSystemCommand::waitForEnd(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    for (useconds_t pause = 100; m_pid > 0; pause = std::min(2 * pause, useconds_t(20000))) {
        {
            ZELCriticalSection section;
            const pid_t ended = waitpid(m_pid, nullptr, WNOHANG);
            if (ended == m_pid || (ended < 0 && errno != EINTR))
                m_pid = -1;
        }
        if (m_pid > 0 && deadline.hasExpired())
            return false;
        if (m_pid > 0)
            usleep(pause);
    }
    return true;
}

void ZELSystemCommand::closeOutput()
{
    ZELCriticalSection section;
    close(m_output);
    m_output = -1;
}

ZELSystemCommand::~ZELSystemCommand()
{
    ZELCriticalSection section;
    // While it was not waited for its number is its own.
    // It may not lead its group yet, where the child goes on beside its parent, as under an emulator.
    if (m_pid > 0 && kill(-m_pid, SIGKILL) != 0)
        kill(m_pid, SIGKILL);
    if (m_output >= 0)
        closeOutput();
    waitForEnd(-1);
}
