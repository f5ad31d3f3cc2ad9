// SPDX-License-Identifier: MIT
#include "zelshellsystem_p.h"

#include "zelguard_p.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

ZELSystemCommand::ZELSystemCommand(const QByteArray &command)
{
    ZELCriticalSection section;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        m_error = errno;
        return;
    }
    start(command.constData(), ends[1]);
    close(ends[1]);
    m_output = ends[0];
    if (m_error)
        closeOutput();
}

void ZELSystemCommand::start(const char *command, int output)
{
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);

    // The library ignores SIGPIPE, and its threads may block signals; neither is for the command.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigaddset(&signals, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

    const char *const words[] = {"sh", "-c", command, nullptr};
    m_error = posix_spawn(&m_pid, "/bin/sh", &files, &attributes, const_cast<char *const *>(words), environ);
    if (m_error)
        m_pid = -1;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
}

QByteArray ZELSystemCommand::read(int timeoutMs)
{
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

void ZELSystemCommand::closeOutput()
{
    ZELCriticalSection section;
    close(m_output);
    m_output = -1;
}

ZELSystemCommand::~ZELSystemCommand()
{
    ZELCriticalSection section;
    if (m_output >= 0) {
        closeOutput();
        kill(m_pid, SIGKILL);
    }
    if (m_pid > 0) {
        while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) { }
    }
}
