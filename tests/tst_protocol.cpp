// SPDX-License-Identifier: MIT
// docs/protocol.md is right: its transcripts are played, its Python program is run.
#include "remotehost.h"
#include "table.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QString page()
{
    QFile file(QStringLiteral(PROTOCOL_PAGE));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QStringList blocks(const QString &language)
{
    QStringList result;
    const QRegularExpression fence(
        QStringLiteral("```%1\\n(.*?)```").arg(language), QRegularExpression::DotMatchesEverythingOption);
    for (auto it = fence.globalMatch(page()); it.hasNext();)
        result += it.next().captured(1);
    return result;
}

QByteArray decoded(QByteArray text)
{
    const QByteArray host = ZELArguments().getProtoclHost().toUtf8();
    return text.replace("\\r", "\r").replace("\\n", "\n").replace("\\e", "\x1b").replace("{host}", host);
}

/// The bytes with the connection id, where one is expected, put back to its name.
QByteArray withoutId(QByteArray bytes)
{
    const QByteArray name = "ConnectId = ";
    const int at = bytes.indexOf(name + '{');
    return at < 0 ? bytes : bytes.replace(at + name.size(), 38, "{id}");
}

} // namespace

class tst_Protocol : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void transcripts_data()
    {
        Table<QString> row("transcript");
        const QStringList all = blocks(QStringLiteral("transcript"));
        QVERIFY(all.size() >= 3);
        for (int i = 0; i < all.size(); ++i)
            row(qPrintable(QStringLiteral("transcript %1").arg(i + 1)), all[i]);
    }

    void transcripts()
    {
        QFETCH(QString, transcript);
        QByteArray expected, received;
        QVERIFY(RemoteHost::instance().run([&] {
            RawPeer peer(RemoteHost::instance().port());
            for (const QByteArray &line : transcript.toUtf8().split('\n')) {
                if (line.startsWith("< "))
                    peer.send(decoded(line.mid(2)));
                if (!line.startsWith("> "))
                    continue;
                const QByteArray text = decoded(line.mid(2));
                expected += text;
                received += withoutId(peer.receive(text.contains("{id}") ? text.size() + 38 - 4 : text.size()));
            }
            received += peer.receive(1, 100);
        }));
        QCOMPARE(received, expected);
    }

    void pythonCaller()
    {
        const QStringList programs = blocks(QStringLiteral("python"));
        QCOMPARE(programs.size(), 1);
        QVERIFY(programs.first().count(QLatin1Char('\n')) <= 20);
        QTemporaryDir dir;
        QFile file(dir.filePath(QStringLiteral("caller.py")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(programs.first().toUtf8());
        file.close();
        const QString python = QStandardPaths::findExecutable(QStringLiteral("python3"));
        if (python.isEmpty())
            QSKIP("no python3 here");
        QByteArray output, errors;
        QVERIFY(RemoteHost::instance().run([&] {
            QProcess process;
            process.start(python,
                {file.fileName(), QStringLiteral("127.0.0.1"), QString::number(RemoteHost::instance().port()),
                    QStringLiteral("jobs/count#1"), QStringLiteral("3")});
            process.waitForFinished(20000);
            output = process.readAllStandardOutput();
            errors = process.readAllStandardError();
        }));
        QCOMPARE(errors, QByteArray());
        QCOMPARE(output, QByteArray("EXECUTE_RESULT\n1\r\n2\r\n3\r\n\nExecute jobs/count Complete!\r\n\n3\n"));
    }
};

QTEST_GUILESS_MAIN(tst_Protocol)
#include "tst_protocol.moc"
