// SPDX-License-Identifier: MIT
#include "zelshellpacket_p.h"

#include "zelarguments_p.h"

#include <QStringBuilder>
#include <QVarLengthArray>
#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>

namespace {

const QByteArray startMarker = QByteArrayLiteral("ZEL_SHELL_PACKET_START");
const QByteArray endMarker = QByteArrayLiteral("ZEL_SHELL_PACKET_END");
const int shortValues = 7; ///< of a packet without a return value
const QByteArray lineEnd = QByteArrayLiteral("\r\n");
const QString stateName = QStringLiteral("State");
const QByteArray processState = QByteArrayLiteral("EXECUTE_PROCESS");

template <int N>
int indexIn(const char *const (&names)[N], const QByteArray &name, int otherwise)
{
    const auto found = std::find(std::begin(names), std::end(names), name);
    return found == std::end(names) ? otherwise : int(found - std::begin(names));
}

QString textUpToNul(const QByteArray &bytes)
{
    const int nul = bytes.indexOf('\0');
    return QString::fromUtf8(nul < 0 ? bytes : bytes.left(nul));
}

QString packetTemplate(bool withReturn)
{
    const QString head = QStringLiteral("ZEL_SHELL_PACKET_START %1\r\nAccept: %2\r\nState: %3\r\nContent-Length: %4\r\n"
                                        "Host: %5\r\nPATH: %6\r\nEncode: %7\r\n");
    const QString value = QStringLiteral("ReturnType: %8\r\nReturn: %9\r\n");
    const QString body = QStringLiteral("\r\n%10ZEL_SHELL_PACKET_END\r\n");
    return withReturn ? head + value + body : head + body;
}

QString processKey(const ZELArguments &args)
{
    const QString base = args.baseCommand();
    const QString name = base.isEmpty() ? args.getExecName() : base;
    const QString index = args.getExecIndex();
    return index.isEmpty() ? name : name + QLatin1Char('#') + index;
}

/// What a packet's lines say, in their order.
using Values = QVarLengthArray<QString, 9>;

/// The packet in the way that its templates promise: each value fills the lowest placeholder that is left, be it one
/// that an earlier value brought in.
QByteArray filled(const Values &values, const QString &body)
{
    QString packet = packetTemplate(values.size() > shortValues);
    for (const QString &value : values)
        packet = packet.arg(value);
    return packet.arg(body).toUtf8();
}

/// The same for values without placeholders, in one buffer.
QByteArray joined(const Values &v, const QString &body)
{
    using Text = QLatin1String;
    QString packet;
    packet.reserve(384 + body.size());
    packet += Text("ZEL_SHELL_PACKET_START ") % v[0] % Text("\r\nAccept: ") % v[1] % Text("\r\nState: ") % v[2]
        % Text("\r\nContent-Length: ") % v[3] % Text("\r\nHost: ") % v[4] % Text("\r\nPATH: ") % v[5]
        % Text("\r\nEncode: ") % v[6];
    if (v.size() > shortValues)
        packet += Text("\r\nReturnType: ") % v[7] % Text("\r\nReturn: ") % v[8];
    packet += Text("\r\n\r\n") % body % Text("ZEL_SHELL_PACKET_END\r\n");
    return packet.toUtf8();
}

// QString::number() makes a detour through the digits of the locale.
QString decimal(int number)
{
    char digits[12];
    return QString::fromLatin1(digits, int(std::to_chars(digits, std::end(digits), number).ptr - digits));
}

/// What is still unread of a packet while its head is taken apart.
struct Reader
{
    const QByteArray &packet;
    int pos = 0;
    int lastColon = 0;

    int nextLine(ZELShellProcessHeader &into)
    {
        const int end = packet.indexOf(lineEnd, pos);
        if (end < 0)
            return -1;
        return into.requestMethod.isEmpty() ? startLine(end, into) : headerLine(end, into);
    }

private:
    // Both answer where the next line begins, or -1 when the head is over.
    int startLine(int end, ZELShellProcessHeader &into)
    {
        const int blank = packet.indexOf(' ', pos);
        if (end == pos || blank < 0 || blank >= end)
            return -1;
        int keyEnd = packet.indexOf(' ', blank + 1);
        keyEnd = keyEnd < 0 ? end : std::min(keyEnd, end);
        into.requestMethod = QString::fromUtf8(packet.constData() + blank + 1, keyEnd - blank - 1);
        return end + lineEnd.size();
    }

    int headerLine(int end, ZELShellProcessHeader &into)
    {
        if (end == pos) {
            pos += lineEnd.size();
            return -1;
        }
        if (lastColon < pos)
            return -1;
        const char *const line = packet.constData();
        Span parts[2];
        if (splitAtColons(end, parts) != 2)
            return -1;
        while (parts[1].from < parts[1].to && line[parts[1].from] == ' ')
            ++parts[1].from;
        into.headers.insert(QString::fromUtf8(line + parts[0].from, parts[0].size()),
            QByteArray(line + parts[1].from, parts[1].size()));
        return end + lineEnd.size();
    }

    struct Span
    {
        int from = 0;
        int to = 0;
        int size() const { return to - from; }
    };

    // Counts the parts that are not empty; more than two are not told apart.
    int splitAtColons(int end, Span (&parts)[2]) const
    {
        int count = 0;
        for (int from = pos; from < end && count < 3;) {
            const void *colon = memchr(packet.constData() + from, ':', size_t(end - from));
            const int to = colon ? int(static_cast<const char *>(colon) - packet.constData()) : end;
            if (to > from && ++count <= 2)
                parts[count - 1] = {from, to};
            from = to + 1;
        }
        return count;
    }
};

} // namespace

QByteArray zelWritePacket(const ZELArguments &args, const QString &text)
{
    const bool encode = args.isEncode();
    const QString body = encode ? QString::fromLatin1(text.toUtf8().toBase64()) : text;
    Values values;
    values << processKey(args) << args.getProtoclAccept() << ZELArgumentsPrivate::get(args)->packetState()
           << decimal(body.size()) << args.getProtoclHost() << args.getExecPath()
           << (encode ? QStringLiteral("true") : QStringLiteral("false"));
    if (args.hasRetrunValue()) {
        const QVariant value = args.getReturnValue();
        const QByteArray returned = value.isValid() ? value.toString().toLocal8Bit() : QByteArrayLiteral("NULL");
        values << decimal(int(value.type())) << QString::fromLatin1(returned.toBase64());
    }
    const bool nested = std::any_of(
        values.cbegin(), values.cend(), [](const QString &value) { return value.contains(QLatin1Char('%')); });
    return nested ? filled(values, body) : joined(values, body);
}

ZELShellProcessHeader zelParsePacket(const QByteArray &packet)
{
    ZELShellProcessHeader result;
    result.headers.reserve(8);
    Reader reader{packet, 0, packet.lastIndexOf(':')};
    for (int next = reader.nextLine(result); next >= 0; next = reader.nextLine(result))
        reader.pos = next;
    result.body = packet.mid(reader.pos);
    return result;
}

ZELShellPacketCutter::ZELShellPacketCutter()
{
    m_start.matcher.setPattern(startMarker);
    m_end.matcher.setPattern(endMarker);
}

QByteArrayList ZELShellPacketCutter::feed(const QByteArray &bytes)
{
    QByteArrayList packets;
    m_buffer += bytes;
    for (bool more = true; more;) {
        const int start = find(m_start);
        const int end = find(m_end);
        if (start < 0 || end < 0)
            break;
        more = end > start && (start > m_head || m_skipped);
        if (end > start)
            packets.append(m_buffer.mid(start, end - start));
        dropThrough(end + endMarker.size());
    }
    dropGarbage();
    compact();
    return packets;
}

int ZELShellPacketCutter::find(Marker &marker)
{
    if (marker.at >= m_head)
        return marker.at;
    const int from = std::max(m_head, marker.scanned);
    marker.at = marker.matcher.indexIn(m_buffer, from);
    const int rest = m_buffer.size() - marker.matcher.pattern().size() + 1;
    marker.scanned = marker.at >= 0 ? marker.at : std::max(from, rest);
    return marker.at;
}

void ZELShellPacketCutter::dropThrough(int end)
{
    m_head = end;
    m_skipped = false;
}

void ZELShellPacketCutter::dropGarbage()
{
    const int keep
        = std::min(find(m_start) < 0 ? m_start.scanned : m_start.at, find(m_end) < 0 ? m_end.scanned : m_end.at);
    m_skipped |= keep > m_head;
    m_head = keep;
}

void ZELShellPacketCutter::compact()
{
    // Moving less than what is thrown away keeps the work linear.
    if (m_head < m_buffer.size() - m_head)
        return;
    m_buffer.remove(0, m_head);
    for (Marker *marker : {&m_start, &m_end}) {
        marker->at = std::max(-1, marker->at - m_head);
        marker->scanned = std::max(0, marker->scanned - m_head);
    }
    m_head = 0;
}

bool ZELShellProcessHeader::isComplete() const
{
    const auto state = headers.constFind(stateName);
    return state != headers.constEnd() && *state != processState;
}

bool ZELShellProcessHeader::isInsideProcess() const
{
    return headers.value(stateName) == processState;
}

int ZELShellProcessHeader::getAccept() const
{
    static const char *const names[]
        = {"STDOUT", "STDINFO", "STDWARNING", "STDERROR", "STDCRITICAL", "STDFATAL", "STREAM", "OBJECT"};
    return indexIn(names, headers.value(QStringLiteral("Accept")), StdOut);
}

int ZELShellProcessHeader::getProcessStatus() const
{
    static const char *const names[] = {"EXECUTE_PROCESS", "APPLICATION_EXIT", "ZEL_SHELL_DISCONNECT", "EXECUTE_ERROR",
        "EXECUTE_COMPLETE", "EXECUTE_RESULT", "EXECUTE_NOTFOUND", "EXECUTE_RUNNINGLOCK", "EXECUTE_PERMISSION_ERROR"};
    return indexIn(names, headers.value(stateName), Unknown);
}

QByteArray ZELShellProcessHeader::getRequestBodyBuffer() const
{
    return headers.value(QStringLiteral("Encode")) == "true" ? QByteArray::fromBase64(body) : body;
}

QString ZELShellProcessHeader::getRequestBody() const
{
    return textUpToNul(getRequestBodyBuffer());
}

QString ZELShellProcessHeader::getReturn() const
{
    return textUpToNul(QByteArray::fromBase64(headers.value(QStringLiteral("Return"))));
}
