// SPDX-License-Identifier: MIT
// The demonstration host: a board supervisor whose commands stand in the files beside this one.
#include "doors.h"
#include "families.h"
#include "options.h"

#include <QCoreApplication>
#include <QFile>
#include <QLoggingCategory>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zelcatch.h>
#include <zelshellserver.h>

/// Every session costs descriptors; the soft limit of 1,024 that most systems give would end at a few hundred.
static void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// The library logs every statement. On the terminal that would stand between the lines of the shell.
static bool openLog(const Options &options)
{
    if (!options.log.isEmpty()) {
        const QByteArray name = QFile::encodeName(options.log);
        const int file = open(name.constData(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        if (file < 0) {
            std::fprintf(stderr, "zelhost: %s: %s\n", name.constData(), strerror(errno));
            return false;
        }
        dup2(file, STDERR_FILENO);
        close(file);
        qputenv("QT_FORCE_STDERR_LOGGING", "1"); // without a terminal Qt may log to the system's journal
    }
    // By lines: a file would be written in blocks, the port's number among them, and an unbuffered stream takes a
    // buffer of 8 kB on the stack of each thread that logs.
    setvbuf(stderr, nullptr, _IOLBF, BUFSIZ);
    if (options.terminal && isatty(STDERR_FILENO))
        QLoggingCategory::setFilterRules("default.debug=false");
    return true;
}

static bool listen(ZELShellServer &server, quint16 port)
{
    server.startTcpServer(port);
    if (server.isListening())
        std::fprintf(stderr, "zelhost: remote shells on port %d\n", int(server.serverPort()));
    else
        std::fprintf(stderr, "zelhost: port %d cannot be listened on\n", int(port));
    return server.isListening();
}

/// Started with "&": the terminal is somebody else's, and touching it would stop the process, its remote shells
/// included.
static bool isInBackground()
{
    const pid_t foreground = tcgetpgrp(STDIN_FILENO);
    return foreground >= 0 && foreground != getpgrp();
}

static void leaveTerminal(Options &options)
{
    options.terminal = false;
    for (int sig : {SIGTTIN, SIGTTOU})
        signal(sig, SIG_IGN); // also where the terminal stops whoever writes to it
    std::fprintf(stderr, "zelhost: in the background, no session on this terminal\n");
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("zelhost");
    QCoreApplication::setApplicationVersion(ZELHOST_VERSION);
    Options options = Options::parse(app);
    if (options.terminal && options.tcp && isInBackground())
        leaveTerminal(options);
    if (!openLog(options))
        return 1;
    raiseDescriptorLimit();

    ZELShellServer server;
    addSystemCommands(server);
    addNetworkCommands(server);
    addStorageCommands(server);
    addTextCommands(server);
    addLogCommands(server);
    addJobCommands(server);
    addFaultCommands(server);
    if (!options.userDb.isEmpty()) {
        const QSqlDatabase database = openUsers(options.userDb);
        if (!database.isValid())
            return 1;
        server.setDatabase(database);
        addUserCommands(server, database);
    }

    server.registerHelpCommands();
    server.registerJobCommands();
    setLimits(server);
    if (options.plain)
        server.setEditing(ZELShellServer::Plain);
    if (options.local)
        server.setListenAddress(QHostAddress::LocalHost);
    if (options.secure)
        closeDoors(server);

    if (!options.reports.isEmpty())
        installErrorCatch(options.reports);
    if (options.tcp && !listen(server, options.port))
        return 1;
    if (options.terminal)
        server.startServer();
    const int status = app.exec();
    server.closeServer();
    return status;
}
