// SPDX-License-Identifier: MIT
#include "options.h"

#include <QCommandLineParser>
#include <QFileInfo>
#include <cstdio>

[[noreturn]] static void giveUp(const QString &why)
{
    std::fprintf(stderr, "zelhost: %s\n", qPrintable(why));
    std::exit(2);
}

static quint16 portNumber(const QString &text)
{
    bool ok = false;
    const quint16 port = text.toUShort(&ok);
    if (!ok)
        giveUp(text + " is no port number");
    return port;
}

Options Options::parse(const QCoreApplication &app)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("A board supervisor with a command shell.");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOption({"tcp", "Serve remote shells on <port> (0: any free one).", "port"});
    parser.addOption({"local", "Serve this machine only."});
    parser.addOption({"no-terminal", "Leave the terminal alone; needs --tcp."});
    parser.addOption({"plain", "Edit lines with the keys of a VT100 only."});
    parser.addOption({"user-db", "Keep user accounts in the SQLite <file>.", "file"});
    parser.addOption({"secure", "Serve only this machine and only users with an account; needs --user-db."});
    parser.addOption({"log", "Append the log to <file> instead of standard error.", "file"});
    parser.addOption({"reports", "Write a crash report into <directory> whenever a command faults.", "directory"});
    parser.process(app);
    if (!parser.positionalArguments().isEmpty())
        giveUp("unexpected argument " + parser.positionalArguments().first());

    Options options;
    options.tcp = parser.isSet("tcp");
    options.terminal = !parser.isSet("no-terminal");
    if (options.tcp)
        options.port = portNumber(parser.value("tcp"));
    if (!options.tcp && !options.terminal)
        giveUp("--no-terminal without --tcp would leave no way in");
    options.plain = parser.isSet("plain");
    options.local = parser.isSet("local");
    options.userDb = parser.value("user-db");
    options.secure = parser.isSet("secure");
    if (options.secure && options.userDb.isEmpty())
        giveUp("--secure needs the accounts of --user-db");
    options.log = parser.value("log");
    options.reports = parser.value("reports");
    if (!options.reports.isEmpty() && !QFileInfo(options.reports).isDir())
        giveUp(options.reports + " is not a directory");
    return options;
}
