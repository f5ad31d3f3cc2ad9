// SPDX-License-Identifier: MIT
// The smallest remote caller: runs one command on a host and prints what it said and returned.
#include <QCoreApplication>
#include <QTextStream>
#include <zelshellclient.h>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QTextStream out(stdout);
    const QStringList arguments = application.arguments();
    if (arguments.size() < 4) {
        out << "usage: zelcaller HOST PORT COMMAND...\n";
        return 2;
    }
    ZELShellClient client;
    if (!client.connectToHost(arguments[1], arguments[2].toUShort(), 5000)) {
        out << client.errorString() << '\n';
        return 1;
    }
    const auto process = client.execute(arguments.mid(3).join(' '));
    if (!process || !process->wait(10000)) {
        out << "no answer\n";
        return 1;
    }
    out << process->getTextOutput(0) << process->getReturnValue(0) << '\n';
    return process->lastPacket().getProcessStatus() == ZELShellProcessHeader::ExecuteError;
}
