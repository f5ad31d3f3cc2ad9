// SPDX-License-Identifier: MIT
#include "options.h"
#include "status.h"
#include "terminal.h"

#include <QCommandLineParser>
#include <QFile>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr quint16 defaultPort = 6200;

[[noreturn]] void giveUp(const QString &reason)
{
    std::fprintf(stderr, "zelsh: %s\n", qPrintable(reason));
    std::exit(Usage);
}

void declare(QCommandLineParser &parser)
{
    parser.setApplicationDescription("Runs commands on a host over its remote shell, or opens a session there.");
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    parser.addOption({{"h", "help"}, "Show this help."});
    parser.addVersionOption();
    parser.addOption({"file", "Send the lines of <script>, \"-\" for standard input.", "script"});
    parser.addOption({"json", "Print every packet as one JSON object on standard output."});
    parser.addOption({"key", "The id of an earlier login to join, or to be known by after this one.", "uuid"});
    parser.addOption({"listen", "Wait for a host that dials out, at the address HOST[:PORT] of this machine."});
    parser.addOption({"password-file", "The password is the first line of <file>, \"-\" for standard input.", "file"});
    parser.addOption({"timeout", "Give up a command after <seconds>.", "seconds"});
    parser.addOption({"user", "Log in as <name>.", "name"});
    parser.addPositionalArgument(
        "HOST", QString("Where the shell listens, port %1 unless said otherwise.").arg(defaultPort), "HOST[:PORT]");
    parser.addPositionalArgument("COMMAND", "What to run; without it a session on this terminal.", "[COMMAND...]");
}

/// "name", "name:port", "[v6]:port", and a bare v6 address.
void setAddress(Options &options, const QString &text)
{
    const int colon = text.lastIndexOf(':');
    const bool hasPort = colon >= 0 && (text.indexOf(':') == colon || text.at(qMax(colon - 1, 0)) == ']');
    options.host = hasPort ? text.left(colon) : text;
    if (options.host.startsWith('[') && options.host.endsWith(']'))
        options.host = options.host.mid(1, options.host.size() - 2);
    bool ok = true;
    options.port = hasPort ? text.mid(colon + 1).toUShort(&ok) : defaultPort;
    if (!ok || options.host.isEmpty() || (options.port == 0 && !options.listen))
        giveUp(text + " is no address");
}

QString passwordFrom(const QString &name)
{
    QFile file(name);
    const bool open = name == "-" ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
    if (!open)
        giveUp(name + ": " + file.errorString());
    QByteArray line = file.readLine();
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    return QString::fromUtf8(line);
}

int milliseconds(const QString &text)
{
    bool ok = false;
    const double seconds = text.toDouble(&ok);
    if (!ok || !(seconds > 0 && seconds <= 2000000))
        giveUp(text + " is no number of seconds");
    return qMax(1, int(seconds * 1000));
}

void readValues(Options &options, const QCommandLineParser &parser)
{
    options.json = parser.isSet("json");
    options.listen = parser.isSet("listen");
    options.scriptFile = parser.value("file");
    options.user = parser.value("user");
    if (parser.isSet("timeout"))
        options.timeoutMs = milliseconds(parser.value("timeout"));
    if (parser.isSet("key")) {
        options.key = QUuid(parser.value("key"));
        if (options.key.isNull())
            giveUp(parser.value("key") + " is no uuid");
    }
    if (parser.isSet("password-file"))
        options.password = passwordFrom(parser.value("password-file"));
    else if (!options.user.isEmpty() && isatty(STDIN_FILENO))
        options.password = askPassword();
}

} // namespace

Options Options::parse(const QStringList &arguments)
{
    QCommandLineParser parser;
    declare(parser);
    if (!parser.parse(arguments))
        giveUp(parser.errorText());
    if (parser.isSet("help")) {
        std::printf("%s", qPrintable(parser.helpText()));
        std::exit(Success);
    }
    if (parser.isSet("version")) {
        std::printf("zelsh %s\n", ZELSH_VERSION);
        std::exit(Success);
    }
    QStringList words = parser.positionalArguments();
    if (words.isEmpty())
        giveUp("no host given; see zelsh --help");
    Options options;
    options.listen = parser.isSet("listen");
    setAddress(options, words.takeFirst());
    options.command = words.join(' ');
    readValues(options, parser);
    if (!options.command.isEmpty() && !options.scriptFile.isEmpty())
        giveUp("both a command and a script");
    if (parser.value("password-file") == "-" && options.command.isEmpty()
        && (options.scriptFile.isEmpty() || options.scriptFile == "-"))
        giveUp("standard input cannot hold both the password and the script");
    return options;
}

QString Options::address() const
{
    return (host.contains(':') ? '[' + host + ']' : host) + ':' + QString::number(port);
}
