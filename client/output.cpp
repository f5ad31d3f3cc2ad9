// SPDX-License-Identifier: MIT
#include "output.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <cstdio>

namespace {

QString header(const ZELShellProcessHeader &packet, const char *name)
{
    return QString::fromUtf8(packet.headers.value(name));
}

/// "Execute <name> Complete!", which says no more than the exit status does.
bool isReport(const QByteArray &text)
{
    return text.startsWith("Execute ") && text.trimmed().endsWith(" Complete!")
        && text.indexOf('\n') >= text.size() - 1;
}

/// The text of a packet with line ends of this system; without the number that the client gave the command, of which
/// the person knows nothing.
QByteArray textOf(const ZELShellProcessHeader &packet)
{
    QByteArray text = packet.getRequestBodyBuffer();
    text.replace("\r\n", "\n");
    const QByteArray key = packet.getRequestMethod().toUtf8();
    const int number = key.indexOf('#');
    if (number >= 0 && packet.isComplete())
        text.replace(key, key.left(number));
    return text;
}

bool isSuccess(int status)
{
    return status == ZELShellProcessHeader::Complete || status == ZELShellProcessHeader::Result
        || status == ZELShellProcessHeader::ApplicationExit || status == ZELShellProcessHeader::Disconnect;
}

} // namespace

Output::Output(bool json)
    : m_json(json)
{
}

void Output::write(const ZELShellProcessHeader &packet)
{
    if (m_json)
        writeJson(packet);
    else
        writeText(packet);
}

void Output::writeText(const ZELShellProcessHeader &packet)
{
    const int status = packet.getProcessStatus();
    QByteArray text = textOf(packet);
    const int channel = packet.getAccept();
    const bool printed = channel == ZELShellProcessHeader::StdOut || channel == ZELShellProcessHeader::StdInfo;
    const bool last = packet.isComplete();
    const bool report = last && isSuccess(status) && isReport(text);
    if (!report) {
        if (last && !text.isEmpty() && !text.endsWith('\n'))
            text += '\n';
        put(!printed || (last && !isSuccess(status)), text);
    }
    if (status == ZELShellProcessHeader::Result && (text.isEmpty() || report))
        put(false, packet.getReturn().toUtf8() + '\n');
}

void Output::writeJson(const ZELShellProcessHeader &packet)
{
    QJsonObject object{{"key", packet.getRequestMethod()}, {"accept", header(packet, "Accept")},
        {"state", header(packet, "State")}, {"host", header(packet, "Host")}, {"path", header(packet, "PATH")},
        {"text", QString::fromUtf8(packet.getRequestBodyBuffer())}};
    if (packet.headers.contains("Return")) {
        object.insert("return", packet.getReturn());
        object.insert("returnType", header(packet, "ReturnType").toInt());
    }
    put(false, QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
}

void Output::put(bool toError, const QByteArray &bytes)
{
    FILE *file = toError ? stderr : stdout;
    const bool written = std::fwrite(bytes.constData(), 1, size_t(bytes.size()), file) == size_t(bytes.size())
        && std::fflush(file) == 0;
    m_good = m_good && (toError || written);
}
