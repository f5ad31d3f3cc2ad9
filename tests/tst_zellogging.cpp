// SPDX-License-Identifier: MIT
#include "ptypair.h"
#include "quiet.h"
#include "recorder.h"
#include "threads.h"
#include "zelarguments.h"
#include "zeliodevice.h"
#include "zellogging.h"

#include <QtTest>
#include <new>
#include <optional>

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
    void types()
    {
        const char *const prefixes[] = {"", "Warning: ", "Error: ", "Critical: ", "Fatal: ", "Info: ", ""};
        for (int type = 0; type < 7; ++type) {
            ZELLogging(&m_stream, ZELLogging::LoggingMsgType(type), {}) << "a" << 1;
            QCOMPARE(m_stream.take(), QString(prefixes[type]) + "a 1\r\n");
            ZELLogging(&m_stream, ZELLogging::LoggingMsgType(type), {});
            QCOMPARE(m_stream.take(), QString(prefixes[type]) + "\r\n");
        }
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

    void variants()
    {
        const QVariantList list{1, "a", QVariantList{true}};
        log() << QVariant("a") << QVariant(-5) << QVariant(0.5) << QVariant(list) << QVariant(QDate(2020, 2, 3));
        QCOMPARE(m_stream.take(), QString("\"a\" -5 0.5 (1, \"a\", (true)) 2020-02-03\r\n"));
        log() << QVariant() << QVariant(QVariantMap()) << 1;
        QCOMPARE(m_stream.take(), QString("QVariant(Invalid) QVariant(QVariantMap) 1\r\n"));
    }

    void onceWithTheLastCopy()
    {
        {
            ZELLogging first = log();
            first << "a";
            ZELLogging second(first);
            std::thread([third = second]() mutable { third.nospace() << "b"; }).join(); // flags are the handle's own
            QVERIFY(m_stream.writes().isEmpty());
            second << "c";
            const ZELLogging other = ZELLogging::warning(&m_stream);
            first = other;
            QVERIFY(m_stream.writes().isEmpty());
            second = second = other;
            QCOMPARE(m_stream.take(), QString("a bc\r\n"));
            second << "d";
        }
        QCOMPARE(m_stream.take(), QString("Warning: d\r\n"));
        auto shared = std::make_unique<const ZELLogging>(log());
        Threads threads(8, [copy = *shared] {});
        shared.reset();
        threads.join();
        QCOMPARE(m_stream.take(), QString("\r\n"));
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

    /// It is the destructor that prints: what it cannot get memory for must not end the process.
    void noMemory()
    {
        const auto exhausted = [](const QString &) -> QString { throw std::bad_alloc(); };
        ZELLogging(&m_stream, ZELLogging::Debug, exhausted) << "lost";
        QCOMPARE(m_stream.take(), QString("?")); // nothing
        log() << "well";
        QCOMPARE(m_stream.take(), QString("well\r\n"));
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
            std::optional<ZELLogging> logs[4]; // a message each: one of them is not for several threads
            for (auto &log : logs)
                log.emplace(ZELLogging::debug(stream.get()));
            Threads writers(4, [&](int j) {
                while (!go)
                    std::this_thread::yield();
                *logs[j] << "x";
                logs[j].reset();
            });
            const Quiet quiet;
            go = true;
            stream.reset();
            writers.join();
        }
    }

    void ownTerminal()
    {
        Pty pty;
        const termios found = pty.settings();
        auto input = std::make_unique<StandardInput>(pty.slave);
        const int before = ZELIODevice::Device_Table().size();
        ZELLogging(nullptr, ZELLogging::Error, {}) << "a";
        ZELLogging::debug(nullptr).noNewLine() << "b";
        QVERIFY(pty.isRaw());
        const auto devices = ZELIODevice::Device_Table().mid(before);
        auto *last = dynamic_cast<ZELStdDevice *>(devices.last());
        if (last)
            last->CloseRawInputMode();
        input.reset();
        QCOMPARE(pty.shown(12), QByteArray("Error: a\r\r\n") + "b");
        // A device and a stream each, which stay.
        QCOMPARE(devices.size(), 2);
        QVERIFY(last && last->descriptor() == STDIN_FILENO);
        QVERIFY(devices.at(0)->boundStream() && devices.at(1)->boundStream());
        QVERIFY(devices.at(0)->boundStream() != devices.at(1)->boundStream());
        QVERIFY(pty.is(found));
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
        const QString flags = "QFlags<tst_ZELLogging::Alarms>";
        // Unnamed flags leave the handle without blanks and with hexadecimal numbers.
        log() << (Alarms(Hot) | Wet) << Alarms() << QFlags<Plain>(Four) << 10 << "x";
        QCOMPARE(m_stream.take(), flags + "(Hot|Wet) " + flags + "() QFlags(0x4)0xax\r\n");
    }

private:
    Recorder m_stream;
    ZELLogging log() { return ZELLogging::debug(&m_stream); }
};

QTEST_GUILESS_MAIN(tst_ZELLogging)
#include "tst_zellogging.moc"
