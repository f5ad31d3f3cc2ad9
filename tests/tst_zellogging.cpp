// SPDX-License-Identifier: MIT
#include "quiet.h"
#include "recorder.h"
#include "table.h"
#include "zelarguments.h"
#include "zeliodevice.h"
#include "zellogging.h"

#include <QtTest>
#include <pty.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

QVariant RecorderShell::ExecuteString(ZELArguments)
{
    return QVariant();
}

class tst_ZELLogging : public QObject
{
    Q_OBJECT
public:
    enum Fan { Off, Slow = 4, Fast };
    Q_ENUM(Fan)
    enum Alarm { Hot = 1, Cold = 2, Wet = 4 };
    Q_DECLARE_FLAGS(Alarms, Alarm)
    Q_FLAG(Alarms)
    enum Plain { One = 1, Four = 4 };
private Q_SLOTS:
    void types_data()
    {
        Table<int, QString> row("type", "prefix");
        const char *const prefixes[] = {"", "Warning: ", "Error: ", "Critical: ", "Fatal: ", "Info: ", ""};
        for (int i = 0; i < 7; ++i)
            row(QByteArray::number(i), i, prefixes[i]);
    }

    void types()
    {
        QFETCH(int, type);
        QFETCH(QString, prefix);
        ZELLogging(&m_stream, ZELLogging::LoggingMsgType(type), {}) << "a" << 1;
        QCOMPARE(m_stream.take(), prefix + "a 1\r\n");
        ZELLogging(&m_stream, ZELLogging::LoggingMsgType(type), {});
        QCOMPARE(m_stream.take(), prefix + "\r\n");
    }

    void items()
    {
        const QString text("x\"y");
        log() << "caf\xc3\xa9" << text << QStringView(text) << text.midRef(1) << QLatin1String("l");
        QCOMPARE(m_stream.take(), QString::fromUtf8("caf\xc3\xa9 \"x\"y\" \"x\"y\" \"\"y\" \"l\"\r\n"));
        log() << 'c' << QChar(0xe9) << true << short(-1) << ushort(2) << 3u << 4L << 5UL << 6LL << 7ULL << 1.5f << 2.5;
        QCOMPARE(m_stream.take(), QString::fromUtf8("c \xc3\xa9 true -1 2 3 4 5 6 7 1.5 2.5\r\n"));
        log() << QByteArray("b") << nullptr << static_cast<const char *>(nullptr) << QStringList{"a", "b"}
              << QStringList();
        QCOMPARE(m_stream.take(), QString("b (nullptr)  (\"a\", \"b\") ()\r\n"));
        log() << static_cast<const void *>(&m_stream);
        QCOMPARE(m_stream.take(), "0x" + QString::number(quintptr(&m_stream), 16) + "\r\n");
        log().deleteOne().noNewLine();
        QCOMPARE(m_stream.take(), QString("\b \b"));
    }

    void formatting()
    {
        log().nospace() << "a" << 1 << QString("q");
        QCOMPARE(m_stream.take(), QString("a1\"q\"\r\n"));
        log().noquote().noNewLine() << QString("q") << QString("r ");
        QCOMPARE(m_stream.take(), QString("q r "));
        log().nospace() << "a" << Qt::hex << 255 << qSetFieldWidth(4) << 1;
        QCOMPARE(m_stream.take(), QString("aff   1\r\n"));
        (log().nospace() << "a").space() << "b";
        QCOMPARE(m_stream.take(), QString("a b\r\n"));
    }

    void variants_data()
    {
        Table<QVariant, QString> row("value", "text");
        row("text", QVariant("a"), "\"a\"");
        row("number", QVariant(-5), "-5");
        row("real", QVariant(0.5), "0.5");
        row("list", QVariant(QVariantList{1, "a", QVariantList{true}}), "(1, \"a\", (true))");
        row("date", QVariant(QDate(2020, 2, 3)), "2020-02-03");
        row("none", {}, "QVariant(Invalid)");
        row("map", QVariant(QVariantMap()), "QVariant(QVariantMap)");
    }

    void variants()
    {
        QFETCH(QVariant, value);
        QFETCH(QString, text);
        log() << value << 1;
        QCOMPARE(m_stream.take(), text + " 1\r\n");
    }

    void onceWithTheLastCopy()
    {
        std::thread last;
        {
            ZELLogging first = log();
            first << "a";
            ZELLogging second(first);
            last = std::thread([third = second]() mutable { third << "b"; });
            last.join();
            QVERIFY(m_stream.writes().isEmpty());
        }
        QCOMPARE(m_stream.take(), QString("a b\r\n"));
        std::vector<std::thread> threads;
        {
            const ZELLogging shared = log();
            for (int i = 0; i < 8; ++i)
                threads.emplace_back([shared] { ZELLogging copy(shared); });
        }
        for (std::thread &thread : threads)
            thread.join();
        QCOMPARE(m_stream.take(), QString("\r\n"));
    }

    void flagsBelongToTheHandle()
    {
        {
            ZELLogging last = log();
            ZELLogging(last).noNewLine().nospace() << "a";
            last << "b"
                 << "c";
        }
        QCOMPARE(m_stream.take(), QString("ab c\r\n"));
    }

    void assignment()
    {
        {
            ZELLogging a = log();
            a << "a";
            const ZELLogging b = ZELLogging::warning(&m_stream);
            a = b;
            QCOMPARE(m_stream.take(), QString("a\r\n"));
            a = *&a;
            a << "b";
        }
        QCOMPARE(m_stream.take(), QString("Warning: b\r\n"));
    }

    void hook()
    {
        const auto upper = [](const QString &text) { return text.toUpper(); };
        ZELLogging(&m_stream, ZELLogging::Info, upper) << "a";
        QCOMPARE(m_stream.take(), QString("INFO: A\r\n"));
        m_stream.open = false;
        ZELLogging(&m_stream, ZELLogging::Info, upper) << "a";
        m_stream.open = true;
        QCOMPARE(m_stream.take(), QString("Info: a\r\n"));
    }

    void streamDiesFirst()
    {
        auto stream = std::make_unique<Recorder>();
        ZELLogging late = ZELLogging::debug(stream.get());
        late << "late";
        QTest::ignoreMessage(QtDebugMsg, "Stream is closed, Out [ \"late\\r\\n\" ]");
        stream.reset();
    }

    void streamDiesMeanwhile()
    {
        for (int i = 0; i < 100; ++i) {
            auto stream = std::make_unique<Recorder>();
            std::atomic<bool> go{false};
            std::vector<std::thread> writers;
            for (int j = 0; j < 4; ++j) {
                writers.emplace_back([&go, log = ZELLogging::debug(stream.get())]() mutable {
                    while (!go)
                        std::this_thread::yield();
                    log << "x";
                });
            }
            const Quiet quiet;
            go = true;
            stream.reset();
            for (std::thread &writer : writers)
                writer.join();
        }
    }

    void ownTerminal()
    {
        int master = -1, slave = -1;
        QCOMPARE(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        const int standardInput = dup(STDIN_FILENO);
        dup2(slave, STDIN_FILENO);
        termios found, raw, restored;
        tcgetattr(slave, &found);
        const int before = ZELIODevice::Device_Table().size();
        ZELLogging(nullptr, ZELLogging::Error, {}) << "a";
        ZELLogging::debug(nullptr).noNewLine() << "b";
        tcgetattr(slave, &raw);
        const auto devices = ZELIODevice::Device_Table().mid(before);
        auto *last = dynamic_cast<ZELStdDevice *>(devices.last());
        if (last)
            last->CloseRawInputMode();
        tcgetattr(slave, &restored);
        dup2(standardInput, STDIN_FILENO);
        QByteArray text(12, '\0'); // the kernel may hand it over in pieces
        for (ssize_t at = 0, got = 1; at < text.size() && got > 0; at += got) {
            got = read(master, text.data() + at, size_t(text.size() - at));
            QVERIFY(got > 0);
        }
        QCOMPARE(text, QByteArray("Error: a\r\r\n") + "b");
        for (int fd : {master, slave, standardInput})
            close(fd);
        // A device and a stream each, which stay.
        QCOMPARE(devices.size(), 2);
        QVERIFY(last && last->descriptor() == STDIN_FILENO);
        QVERIFY(devices.at(0)->boundStream() && devices.at(1)->boundStream());
        QVERIFY(devices.at(0)->boundStream() != devices.at(1)->boundStream());
        QCOMPARE(raw.c_lflag & tcflag_t(ICANON | ECHO | ISIG), tcflag_t(0));
        QCOMPARE(restored.c_lflag, found.c_lflag);
    }

    void saver()
    {
        {
            ZELLogging log = this->log();
            {
                ZELLoggingSaver saver(log);
                QCOMPARE(saver.Logging(), &log);
                log.nospace().noquote().noNewLine() << QString("a") << "b";
            }
            log << QString("c") << "d";
        }
        QCOMPARE(m_stream.take(), QString("ab\"c\" d\r\n"));
    }

    void enumerations()
    {
        log() << Slow << Fan(7) << Off;
        QCOMPARE(m_stream.take(), QString("Slow 7 Off\r\n"));
        log() << (Alarms(Hot) | Wet) << Alarms() << "x";
        QCOMPARE(
            m_stream.take(), QString("QFlags<tst_ZELLogging::Alarms>(Hot|Wet) QFlags<tst_ZELLogging::Alarms>() x\r\n"));
    }

    void flagsByBits()
    {
        {
            ZELLogging log = this->log();
            zel_QMetaEnum_flagDebugOperator(log, 4, 5);
            log << 10 << "a";
        }
        QCOMPARE(m_stream.take(), QString("QFlags(0x1|0x4)0xaa\r\n"));
        log() << QFlags<Plain>(Four);
        QCOMPARE(m_stream.take(), QString("QFlags(0x4)\r\n"));
    }

private:
    Recorder m_stream;
    ZELLogging log() { return ZELLogging::debug(&m_stream); }
};

QTEST_GUILESS_MAIN(tst_ZELLogging)
#include "tst_zellogging.moc"
