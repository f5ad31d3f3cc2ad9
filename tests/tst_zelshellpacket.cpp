// SPDX-License-Identifier: MIT
#include "plaincutter.h"
#include "table.h"
#include "zelarguments.h"
#include "zelshellpacket_p.h"

#include <QRandomGenerator>
#include <QtTest>

namespace {

const QByteArray S = startMarker, E = endMarker;

QByteArray packet(const QByteArray &key, const QByteArray &body)
{
    return S + ' ' + key + "\r\nAccept: STDOUT\r\nState: EXECUTE_COMPLETE\r\nContent-Length: 3\r\nHost: 10.0.0.1\r\n"
        + "PATH: /Main/a\r\nEncode: false\r\n\r\n" + body + E + "\r\n";
}

ZELArguments record(const QVariant &value)
{
    ZELArguments args;
    args.setReturnValue(value);
    args.setProtoclState(QStringLiteral("S"));
    args.setProtoclHost(QStringLiteral("10.0.0.1"));
    args.setExecPath(QStringLiteral("/Main/a"));
    return args;
}

QString fetched(const char *column)
{
    return *static_cast<QString *>(QTest::qData(column, QMetaType::QString));
}

} // namespace

class tst_ZELShellPacket : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void writes_data()
    {
        Table<QString, QString, QString, QVariant, bool, QString, QByteArray, QByteArray> row(
            "name", "base", "index", "value", "encode", "text", "key", "rest"); // from "State: " on
        const QByteArray head = "\r\nHost: 10.0.0.1\r\nPATH: /Main/a\r\nEncode: ";
        const QByteArray plain = head + "false\r\n", tail = "ZEL_SHELL_PACKET_END\r\n";
        row("short", "run", "", "", {}, false, "text", "run", "S\r\nContent-Length: 4" + plain + "\r\ntext" + tail);
        row("index", "run", "", "4", {}, true, "1\r\n", "run#4",
            "S\r\nContent-Length: 4" + head + "true\r\n\r\nMQ0K" + tail);
        row("base command", "run", "base", "4", QVariant(2), false, "", "base#4",
            "S\r\nContent-Length: 0" + plain + "ReturnType: 2\r\nReturn: Mg==\r\n\r\n" + tail);
        row("characters, not bytes", "run", "", "", QVariant(QString(QChar(0xe9))), false, QString(QChar(0xe9)), "run",
            "S\r\nContent-Length: 1" + plain + "ReturnType: 10\r\nReturn: "
                + QString(QChar(0xe9)).toLocal8Bit().toBase64() + "\r\n\r\n\xc3\xa9" + tail);
        row("body with placeholders", "run", "", "", {}, false, "%1 %10 %L2", "run",
            "S\r\nContent-Length: 10" + plain + "\r\n%1 %10 %L2" + tail);
        row("placeholder in the key", "%3", "", "", {}, true, "%1", "S",
            "S\r\nContent-Length: 4" + head + "true\r\n\r\nJTE=" + tail);
        row("value without text", "run", "", "", QVariant(QStringList{"a", "b"}), false, "", "run",
            "S\r\nContent-Length: 0" + plain + "ReturnType: 11\r\nReturn: \r\n\r\n" + tail);
    }

    void writes()
    {
        QFETCH(QVariant, value);
        QFETCH(bool, encode);
        QFETCH(QString, text);
        QFETCH(QByteArray, key);
        QFETCH(QByteArray, rest);
        const ZELArguments args = record(value);
        args.setExecName(fetched("name"));
        args.setBaseCommand(fetched("base"));
        args.setExecIndex(fetched("index"));
        if (encode)
            args.enableEncode();
        QCOMPARE(zelWritePacket(args, text), S + ' ' + key + "\r\nAccept: STDOUT\r\nState: " + rest);
    }

    void readsWhatWasWritten()
    {
        const ZELArguments args = record(QStringLiteral("v:1"));
        args.enableEncode();
        args.setExecName(QStringLiteral("dir/run"));
        args.setProtoclAccept(QStringLiteral("STDFATAL"));
        args.setProtoclState(QStringLiteral("EXECUTE_RESULT"));
        const QString text = QStringLiteral("ZEL_SHELL_PACKET_END\r\nState: x\r\n%3");
        const QByteArrayList packets = ZELShellPacketCutter().feed(zelWritePacket(args, text));
        QCOMPARE(packets.size(), 1);
        const ZELShellProcessHeader header = zelParsePacket(packets.first());
        QCOMPARE(header.getRequestMethod(), QStringLiteral("dir/run"));
        QCOMPARE(header.getRequestBody(), text);
        QCOMPARE(header.getReturn(), QStringLiteral("v:1"));
        QCOMPARE(header.getAccept(), int(ZELShellProcessHeader::StdFatal));
        QCOMPARE(header.getProcessStatus(), int(ZELShellProcessHeader::Result));
    }

    void cutsAsDescribed_data()
    {
        Table<QByteArrayList, QList<int>> row("arrivals", "delivered");
        const QByteArray p = S + " k\r\n\r\nx" + E + "\r\n";
        row("the first at position 0 ends its pass", {p + p, "", p}, {1, 1, 1});
        row("a line end in front", {"\r\n" + p + p + p}, {3});
        row("a position 0 that was garbage", {"garbage", p + p}, {0, 2});
        row("torn in the markers", {p.left(5), p.mid(5, 30), p.mid(35)}, {0, 0, 1});
        row("stray end first", {"a" + E + p, ""}, {0, 1});
        row("one stray end an arrival", {E + E, p, "", "", ""}, {0, 0, 0, 1, 0});
        row("stray end right before a start", {E, p + p, "", ""}, {0, 0, 1, 1});
    }

    void cutsAsDescribed()
    {
        QFETCH(QByteArrayList, arrivals);
        QFETCH(QList<int>, delivered);
        ZELShellPacketCutter cutter;
        PlainCutter plain;
        QList<int> counts;
        for (const QByteArray &bytes : arrivals) {
            const QByteArrayList packets = cutter.feed(bytes);
            QCOMPARE(packets, plain.feed(bytes));
            counts += packets.size();
        }
        while (counts.size() > delivered.size())
            counts.removeLast();
        QCOMPARE(counts, delivered);
    }

    void cutsTornStreamsLikeTheRules()
    {
        QRandomGenerator random(7);
        const QByteArrayList pieces{S, E, E + "\r\n", "x", "\r\n", S.left(9), E.mid(3), packet("k#1", "body")};
        for (int round = 0; round < 400; ++round) {
            QByteArray stream;
            for (int i = 0; i < 40; ++i)
                stream += pieces[random.bounded(pieces.size())];
            ZELShellPacketCutter cutter;
            PlainCutter plain;
            const int most = 1 + random.bounded(200);
            while (!stream.isEmpty()) {
                const QByteArray bytes = stream.left(1 + random.bounded(most));
                stream.remove(0, bytes.size());
                QCOMPARE(cutter.feed(bytes), plain.feed(bytes));
            }
        }
    }

    void parses_data()
    {
        Table<QByteArray, QString, QByteArray, QByteArray> row("text", "key", "headers", "body"); // name=value, sorted
        const QByteArray k = S + " k\r\n";
        row("plain", k + "A: 1\r\nB:   2 \r\n\r\nbody:x\r\n", "k", "A=1;B=2 ;", "body:x\r\n");
        row("utf-8 key", S + " caf\xc3\xa9\r\n\r\n", QString::fromUtf8("caf\xc3\xa9"), "", "");
        row("no key", S + "\r\nA: 1\r\n\r\nb", "", "", S + "\r\nA: 1\r\n\r\nb");
        row("empty key: the next line starts", S + " \r\nA: 1\r\nB: 2\r\n\r\nb", "1", "B=2;", "b");
        row("empty key, empty line", S + " \r\n\r\nb", "", "", "\r\nb");
        row("port in a value", k + "A: 1\r\nHost: a:80\r\nB: 2\r\n\r\nb", "k", "A=1;", "Host: a:80\r\nB: 2\r\n\r\nb");
        row("line without colon", k + "rest\r\nA: 1\r\n\r\nb", "k", "", "rest\r\nA: 1\r\n\r\nb");
        row("empty parts dropped", k + "::A:: 1:\r\n\r\nb", "k", "A=1;", "b");
        row("blank value", k + "A:  \r\n\r\nb", "k", "A=;", "b");
        row("repeated", k + "A: 1\r\nA: 2\r\na: 3\r\n\r\nb", "k", "A=2;a=3;", "b");
        row("no empty line", k + "A: 1\r\nB: 2", "k", "A=1;", "B: 2");
    }

    void parses()
    {
        QFETCH(QByteArray, text);
        const ZELShellProcessHeader header = zelParsePacket(text);
        QByteArrayList lines;
        for (auto it = header.headers.begin(); it != header.headers.end(); ++it)
            lines += it.key().toUtf8() + '=' + it.value() + ';';
        std::sort(lines.begin(), lines.end());
        QTEST(header.getRequestMethod(), "key");
        QTEST(lines.join(), "headers");
        QTEST(header.body, "body");
    }

    void readsNumbersAndTexts()
    {
        ZELShellProcessHeader header;
        QVERIFY(!header.isComplete() && !header.isInsideProcess());
        QCOMPARE(header.getProcessStatus(), 9);
        QCOMPARE(header.getAccept(), 0);
        QCOMPARE(header.getReturn(), QString());

        header = zelParsePacket(
            S + " k\r\nAccept: OBJECT\r\nState: EXECUTE_PROCESS\r\nEncode: true\r\nReturn: MQAy\r\n\r\nYQBi");
        QVERIFY(!header.isComplete() && header.isInsideProcess());
        QCOMPARE(header.getProcessStatus(), 0);
        QCOMPARE(header.getAccept(), 7);
        QCOMPARE(header.getReturn(), QStringLiteral("1"));
        QCOMPARE(header.getRequestBodyBuffer(), QByteArray("a\0b", 3));
        QCOMPARE(header.getRequestBody(), QStringLiteral("a"));

        header.headers[QStringLiteral("Encode")] = "TRUE";
        header.headers[QStringLiteral("State")] = "execute_process";
        header.headers[QStringLiteral("Accept")] = "stdinfo";
        QVERIFY(header.isComplete() && !header.isInsideProcess());
        QCOMPARE(header.getProcessStatus(), 9);
        QCOMPARE(header.getAccept(), 0);
        QCOMPARE(header.getRequestBody(), QStringLiteral("YQBi"));
        header.headers[QStringLiteral("State")] = "EXECUTE_PERMISSION_ERROR";
        QCOMPARE(header.getProcessStatus(), 8);
    }

    void isLinear()
    {
        // Quadratic work would need minutes for each of these.
        const QByteArray large = "\r\n" + packet("k", QByteArray(8 << 20, 'x'));
        ZELShellPacketCutter cutter;
        QVERIFY(cutter.feed(QByteArray(1 << 20, 'g')).isEmpty() && cutter.buffered() < S.size()); // keeps no garbage
        int packets = 0;
        for (int i = 0; i < large.size(); i += 64)
            packets += cutter.feed(large.mid(i, 64)).size();
        const QByteArray many = packet("k", "b").repeated(200000);
        const QByteArrayList cut = ZELShellPacketCutter().feed("\r\n" + many);
        QCOMPARE(packets, 1);
        QCOMPARE(cut.size(), 200000);
        QCOMPARE(zelParsePacket(S + " k\r\n" + QByteArray("A: 1\r\n").repeated(1 << 20)).headers.size(), 1);
        QCOMPARE(zelParsePacket((S + " \r\n").repeated(1 << 18)).headers.size(), 0);
        for (const QByteArray &one : cut)
            packets += zelParsePacket(one).isComplete();
        QCOMPARE(packets, 200001);
    }
};

QTEST_GUILESS_MAIN(tst_ZELShellPacket)
#include "tst_zelshellpacket.moc"
