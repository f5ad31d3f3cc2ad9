// SPDX-License-Identifier: MIT
#include "../examples/host/procfs.h"

#include <QtTest>
#include <unistd.h>

static QByteArray statOf(const QByteArray &name)
{
    return "42 (" + name + ") S 1 42 42 0 -1 4194560 100 0 0 0 7 3 0 0 20 0 1 0 500 9000000 25 18446744073709551615\n";
}

class tst_Procfs : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // A name may imitate the rest of the line; what follows the last bracket counts.
    void processNames()
    {
        for (const QByteArray name : {"init", "two words", "odd) S 1 (", "((sd-pam))", ""}) {
            const procfs::Process process = procfs::process(statOf(name), 4096);
            QCOMPARE(process.pid, 42);
            QCOMPARE(process.name, QString(name));
            QCOMPARE(process.state, QChar('S'));
            QCOMPARE(process.residentBytes, qint64(25 * 4096));
        }
    }

    void truncatedStatIsNotUnderstood()
    {
        const QByteArray whole = statOf("x");
        for (int length = 0; length < whole.lastIndexOf(" 25 "); ++length)
            QCOMPARE(procfs::process(whole.left(length), 4096).pid, 0);
    }

    void figuresOfText()
    {
        const QByteArray text = "MemTotal:       2048 kB\nSwapCached:  1 kB\nCached:  16 kB\nOdd: none\n";
        QCOMPARE(procfs::bytesOf(text, "MemTotal"), qint64(2048 * 1024));
        QCOMPARE(procfs::bytesOf(text, "Cached"), qint64(16 * 1024));
        QCOMPARE(procfs::bytesOf(text, "Odd"), qint64(-1));
        QCOMPARE(procfs::bytesOf(text, "Missing"), qint64(-1));
        QCOMPARE(procfs::uptimeSeconds("350735.47 234388.90\n"), 350735.47);
        QVERIFY(procfs::uptimeSeconds("") < 0);
    }

    void durations()
    {
        QCOMPARE(procfs::duration(0.9), QString("00:00:00"));
        QCOMPARE(procfs::duration(86399.99), QString("23:59:59"));
        QCOMPARE(procfs::duration(86400), QString("1 day, 00:00:00"));
        QCOMPARE(procfs::duration(400 * 86400.0 + 3661), QString("400 days, 01:01:01"));
    }

    void thisProcessIsListed()
    {
        const auto all = procfs::processes();
        const auto self
            = std::find_if(all.begin(), all.end(), [](const auto &process) { return process.pid == getpid(); });
        QVERIFY(self != all.end());
        // The largest, since qemu makes up its own process's figures.
        QVERIFY(all.first().residentBytes > 0);
        QVERIFY(std::is_sorted(
            all.begin(), all.end(), [](const auto &a, const auto &b) { return a.residentBytes > b.residentBytes; }));
    }
};

QTEST_GUILESS_MAIN(tst_Procfs)
#include "tst_procfs.moc"
