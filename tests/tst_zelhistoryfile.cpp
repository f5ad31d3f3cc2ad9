// SPDX-License-Identifier: MIT
#include "table.h"
#include "zelhistoryevents_p.h"
#include "zelhistoryfile_p.h"
#include "zeltelnetfilter_p.h"

#include <QTemporaryDir>
#include <QtTest>
#include <sys/stat.h>
#include <thread>

class tst_ZELHistoryFile : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void keepsLines();
    void isPrivate();
    void survivesBadFiles();
    void isSharedByMany();
    void events_data();
    void events();
    void telnet_data();
    void telnet();

private:
    QTemporaryDir m_folder;
    QString path(const char *name) const { return m_folder.filePath(QLatin1String(name)); }
};

void tst_ZELHistoryFile::keepsLines()
{
    const ZELHistoryFile file(path("sub/keeps"), 5);
    const QStringList lines{QStringLiteral("one; two &"), QStringLiteral("a\nb\\n"), QString::fromLatin1("\xc3\xa4"),
        QStringLiteral("x"), QStringLiteral("y")};
    QVERIFY(file.load().isEmpty());
    for (const QString &line : lines)
        QVERIFY(file.add(line));
    QCOMPARE(file.load(), lines);
    QVERIFY(file.add(lines.first()));
    QCOMPARE(file.load(), lines.mid(1) + lines.mid(0, 1));
    for (int i = 0; i < 50; ++i)
        QVERIFY(file.add(QString::number(i)));
    QCOMPARE(file.load(),
        QStringList({QStringLiteral("45"), QStringLiteral("46"), QStringLiteral("47"), QStringLiteral("48"),
            QStringLiteral("49")}));
    QVERIFY(QFileInfo(path("sub/keeps")).size() < 40);
    QVERIFY(file.clear());
    QVERIFY(file.load().isEmpty());
    QVERIFY(!ZELHistoryFile().add(QStringLiteral("nowhere")));
}

void tst_ZELHistoryFile::isPrivate()
{
    const mode_t mask = umask(0);
    QVERIFY(ZELHistoryFile(path("own/file"), 2).add(QStringLiteral("secret")));
    for (int i = 0; i < 9; ++i)
        QVERIFY(ZELHistoryFile(path("own/file"), 2).add(QString::number(i)));
    umask(mask);
    struct stat status;
    QVERIFY(stat(qPrintable(path("own/file")), &status) == 0);
    QCOMPARE(status.st_mode & 07777, mode_t(0600));
    QVERIFY(stat(qPrintable(path("own")), &status) == 0);
    QCOMPARE(status.st_mode & 07777, mode_t(0700));
    const QString hostile = ZELHistoryFile::pathFor(QStringLiteral("/c"), QStringLiteral("../../etc/x\n"));
    QVERIFY2(
        hostile.startsWith(QLatin1String("/c/history-")) && hostile.count(QLatin1Char('/')) == 2, qPrintable(hostile));
}

void tst_ZELHistoryFile::survivesBadFiles()
{
    QFile file(path("bad"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("torn by a full disk");
    file.close();
    const ZELHistoryFile history(path("bad"));
    QVERIFY(history.add(QStringLiteral("next")));
    QCOMPARE(history.load(), QStringList({QStringLiteral("torn by a full disk"), QStringLiteral("next")}));
    QVERIFY(QFile::link(path("bad"), path("link")));
    QVERIFY(!ZELHistoryFile(path("link")).add(QStringLiteral("through a link")));
    QCOMPARE(mkfifo(qPrintable(path("pipe")), 0600), 0);
    QVERIFY(!ZELHistoryFile(path("pipe")).add(QStringLiteral("into a pipe")));
    QVERIFY(ZELHistoryFile(path("pipe")).load().isEmpty());
    QVERIFY(!ZELHistoryFile(QStringLiteral("/proc/nowhere/file")).add(QStringLiteral("x")));
}

void tst_ZELHistoryFile::isSharedByMany()
{
    // Locks belong to opened folders, not to processes: threads are as good as those.
    std::vector<std::thread> writers;
    for (int i = 0; i < 4; ++i)
        writers.emplace_back([this, i] {
            for (int j = 0; j < 150; ++j)
                while (!ZELHistoryFile(path("many"), 200).add(QStringLiteral("%1 %2").arg(i).arg(j % 50))) { }
        });
    for (std::thread &writer : writers)
        writer.join();
    const QStringList all = ZELHistoryFile(path("many"), 200).load();
    QCOMPARE(all.size(), 200);
}

void tst_ZELHistoryFile::events_data()
{
    Table<QString, QString> row("line", "meant");
    const auto add
        = [&row](const char *line, const char *meant) { row(line, QLatin1String(line), QLatin1String(meant)); };
    add("ls", "ls");
    add("!!", "cd demo");
    add("!! x", "cd demo x");
    add("!1", "ls -l");
    add("!2 &", "text/echo a b &");
    add("!-1", "cd demo");
    add("!-3", "ls -l");
    add("!text", "text/echo a b");
    add("!c/d", "(none)");
    add("!4", "(none)");
    add("!0", "(none)");
    add("!-4", "(none)");
    add("!", "!");
    add("! x", "! x");
    add("!= x", "!= x");
    add("a !!", "a !!");
}

void tst_ZELHistoryFile::events()
{
    QFETCH(QString, line);
    const QStringList entries{QStringLiteral("ls -l"), QStringLiteral("text/echo a b"), QStringLiteral("cd demo")};
    QTEST(zelHistoryEvent(line, entries).value_or(QStringLiteral("(none)")), "meant");
}

void tst_ZELHistoryFile::telnet_data()
{
    Table<QByteArray, QByteArray, QByteArray> row("received", "data", "answer");
    const QByteArray offer = "\xff\xfb\x01\xff\xfb\x03\xff\xfd\x1f";
    row("plain", "ls\r\n", "ls\r\n", "");
    row("agrees", "\xff\xfd\x03x", "x", offer);
    row("other options", "\xff\xfb\x18\xff\xfd\x27", "", offer + "\xff\xfe\x18\xff\xfc\x27");
    row("window", QByteArray("\xff\xfb\x1f\xff\xfa\x1f\x00\x50\x00\x18\xff\xf0z", 13), "\033[8;24;80tz", offer);
    row("255 columns", QByteArray("\xff\xfa\x1f\x00\xff\xff\x00\x18\xff\xf0", 10), "\033[8;24;255t", "");
    row("255 itself", "\xff\xff", "\xff", "");
    row("are you there, break",
        "a\xff\xf6\xff\xf3"
        "b",
        "ab", "");
}

void tst_ZELHistoryFile::telnet()
{
    QFETCH(QByteArray, received);
    ZELTelnetFilter whole;
    QTEST(whole.filter(received), "data");
    QTEST(whole.takeAnswer(), "answer");
    ZELTelnetFilter torn;
    QByteArray data;
    for (const char byte : received)
        data += torn.filter(QByteArray(1, byte));
    QTEST(data, "data");
    QTEST(torn.takeAnswer(), "answer");
}

QTEST_APPLESS_MAIN(tst_ZELHistoryFile)
#include "tst_zelhistoryfile.moc"
