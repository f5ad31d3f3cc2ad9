// SPDX-License-Identifier: MIT
#include "noleakcheck.h"
#include "processinfo.h"
#include "table.h"
#include "threads.h"
#include "zelcatch.h"
#include "zelfault.h"
#include "zelthread.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>
#include <sys/resource.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr bool resolvesInTime = false; // the sanitizers' debug information takes longer than a report may
#else
static constexpr bool resolvesInTime = true;
#endif
#ifdef __SANITIZE_THREAD__
static constexpr bool heldSignals = true; // until the next call that the sanitizer intercepts
#else
static constexpr bool heldSignals = false;
#endif

[[gnu::noinline, gnu::no_sanitize("thread")]] void provokedFault()
{
    volatile int *volatile nowhere = nullptr;
    *nowhere = 1;
}

[[gnu::noinline, gnu::no_sanitize("address", "undefined", "thread")]] static int deep(int depth)
{
    volatile char room[4096];
    room[0] = char(depth);
    return depth < 0 ? 0 : deep(depth + 1) + room[0];
}

static std::atomic<int> handled{0};

static void countingHandler(QtMsgType, const QMessageLogContext &, const QString &)
{
    for (int i = 0; i < 300; ++i)
        ++handled;
}

static QByteArray reportIn(const QTemporaryDir &dir)
{
    const QString name = QStringLiteral("/error-%1.txt").arg(QDate::currentDate().toString(Qt::ISODate));
    QFile file(dir.path() + name);
    return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
}

/// The child of resolver(): crashes twice at one place and says how.
static int crashTwice(const QString &dir)
{
    alarm(60);
    installErrorCatch(dir);
    int state = 0;
    for (int i = 0; i < 2; ++i)
        state = ZELFault::call(provokedFault).state;
    return state;
}

class tst_ZELFault : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { ZELFault::setReportRate(0); }

    void outcomes()
    {
        ZELFault::setReport(SIGSEGV, false);
        ZELFault::setReport(SIGALRM, false);
        QVERIFY(ZELFault::call([] {}));
        const auto before = ZELFault::counters();
        QCOMPARE(ZELFault::call(provokedFault).text, QStringLiteral("Segmentation fault (core dumped)"));
        const auto thrown = ZELFault::call([] { throw std::runtime_error("why"); }); // an error like others, no fault
        QCOMPARE(thrown.state, 6);
        QCOMPARE(thrown.where, QStringLiteral("why"));
        QCOMPARE(ZELFault::counters().faults, before.faults + 1);
        QCOMPARE(ZELFault::last().state, int(SIGSEGV));
        QCOMPARE(ZELFault::last().threadId, QThread::currentThreadId());
        QVERIFY(!ZELFault::last().suspicious);
        void *volatile nowhere = nullptr;
        ZELFault::call([&] { memset(nowhere, 0, 100000); });
        QVERIFY(ZELFault::last().suspicious); // in the middle of somebody else's code
        const auto late = ZELFault::call(
            [] {
                for (;;) {
                    if (heldSignals)
                        usleep(1);
                }
            },
            20);
        QCOMPARE(late.text, QStringLiteral("Application Timerout,Max time is 20"));
    }

    void sectionHoldsTheLimitBack()
    {
        bool ended = false;
        const auto outcome = ZELFault::call(
            [&] {
                ZELFaultSection section;
                QTest::qSleep(60);
                ended = true;
            },
            10);
        QCOMPARE(outcome.state, int(SIGALRM));
        QVERIFY(ended);
    }

    void sleepingInCriticalCodeOfTheHost()
    {
        // A blocked read() under a stdio lock: the walk sees who called it, and only force gets it out.
        if (heldSignals)
            QSKIP("jumps are not deferred here");
        ZELFault::setGraceTime(50);
        int ends[2];
        QVERIFY(pipe(ends) == 0);
        FILE *file = fdopen(ends[0], "r");
        const auto before = ZELFault::counters();
        QTest::ignoreMessage(
            QtWarningMsg, "ZELFault: a thread was stopped in the middle of library code; the process may be damaged");
        const auto outcome = ZELFault::call([&] { fgetc(file); }, 20);
        ZELFault::setGraceTime(3000);
        QCOMPARE(outcome.state, int(SIGALRM));
        QCOMPARE(ZELFault::counters().forced, before.forced + 1);
        QVERIFY(ZELFault::counters().deferred > before.deferred);
        close(ends[1]);
    }

    void messageHandlerSurvivesKills()
    {
        if (heldSignals)
            QSKIP("no limit arrives inside of the handler here");
        const auto previous = qInstallMessageHandler(countingHandler);
        int alive = 0;
        for (int i = 0; i < 50; ++i) {
            ZELFault::call(
                [] {
                    for (;;)
                        qDebug() << "message";
                },
                1);
            const int before = handled;
            qDebug() << "again";
            alive += handled == before + 300;
        }
        qInstallMessageHandler(previous);
        QCOMPARE(alive, 50);
    }

    void restartPolicy()
    {
        ZELFault::setRestartPolicy(int(ZELFault::counters().faults) + 2, false);
        QTest::ignoreMessage(QtWarningMsg, "ZELFault: the restart policy asks for a restart after a fault");
        QTest::ignoreMessage(QtDebugMsg, "System will restart now...");
        ZELFault::call(provokedFault);
        ZELFault::call(provokedFault);
        ZELFault::call(provokedFault); // asked once
        QTimer::singleShot(5000, [] { QCoreApplication::exit(1); });
        QCOMPARE(QCoreApplication::exec(), 8888);
        ZELFault::setRestartPolicy(0, false);
    }

    void report()
    {
        QTemporaryDir dir;
        installErrorCatch(dir.path());
        installErrorCatch(QStringLiteral("/nonexistent/dir")); // changes nothing
        ZELFault::setReport(SIGSEGV, true);
        ZELFault::call(provokedFault);
        disable_error_dump();
        ZELFault::call(provokedFault);
        enable_error_dump();
        ZELFault::setReport(SIGSEGV, false);
        ZELFault::call(provokedFault);
        const QByteArray text = reportIn(dir);
        const QByteArray stars(54, '*');
        QVERIFY(text.startsWith(
            "\r\n\r\n" + stars + "\r\n                Dump Application Stack                \r\n   time :20"));
        QCOMPARE(text.count("LibInfo :\r\nName | Address Start | Address End | Length\r\n"), 1);
        QVERIFY(QRegularExpression(QStringLiteral("libQt5Core.so.5 [0-9a-f]+ [0-9a-f]+ [0-9a-f]+\r\n"))
                    .match(QString::fromLatin1(text))
                    .hasMatch());
        const QByteArray first = text.mid(text.indexOf("[0]\t\r\nSymbol   :"));
        QVERIFY2(first.left(first.indexOf("[1]")).contains("Address  :0x"), first.constData());
        if (resolvesInTime && !QStandardPaths::findExecutable(QStringLiteral("addr2line")).isEmpty()) {
            QVERIFY2(first.left(first.indexOf("[1]")).contains("Function : in function :'provokedFault()'"),
                first.constData());
            QVERIFY(first.left(first.indexOf("[1]")).contains("tst_zelfault.cpp:"));
        }
        QVERIFY(text.contains("Function :Extern Symbol\r\nLocation :Extern Symbol\r\n"));
        QVERIFY(text.endsWith("\r\n"));
    }

    void reportOfSignals()
    {
        {
            QTemporaryDir dir;
            installErrorCatch(dir.path());
            ZELFault::call([] { raise(SIGFPE); });
            QVERIFY(reportIn(dir).isEmpty());
            ZELFault::setReport(SIGFPE, true);
            ZELFault::call([] { raise(SIGFPE); });
            QCOMPARE(reportIn(dir).count("LibInfo :"), 1);
            ZELFault::setReport(SIGALRM, true);
            ZELFault::call([] { pause(); }, 10);
            QCOMPARE(reportIn(dir).count("LibInfo :"), 2);
        }
        QCOMPARE(ZELFault::call([] { raise(SIGFPE); }).state, int(SIGFPE)); // the directory is gone: harmless
        ZELFault::setReport(SIGFPE, false);
    }

    void reportFile()
    {
        ZELFault::setReport(SIGSEGV, true);
        QTemporaryDir dir, elsewhere;
        installErrorCatch(dir.path());
        const QString name
            = dir.filePath(QStringLiteral("error-%1.txt").arg(QDate::currentDate().toString(Qt::ISODate)));
        const QString victim = elsewhere.filePath(QStringLiteral("victim"));
        QVERIFY(QFile::link(victim, name));
        ZELFault::call(provokedFault);
        QVERIFY(!QFile::exists(victim)); // somebody's link leads nowhere
        QFile::remove(name);
        ZELFault::call(provokedFault);
        const auto owner = QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser;
        QVERIFY(QFile::permissions(name) & QFile::ExeOwner);
        ZELFault::setReportMode(0600);
        ZELFault::call(provokedFault);
        ZELFault::setReportMode(-1);
        QCOMPARE(QFile::permissions(name), owner);
        QVERIFY(!reportIn(dir).contains("[0xfffffff"));
        ZELFault::setReport(SIGSEGV, false);
    }

    void fileSizeLimit()
    {
        if (heldSignals)
            QSKIP("the signal arrives after the report here");
        ZELFault::setReport(SIGSEGV, true);
        QTemporaryDir dir;
        installErrorCatch(dir.path());
        rlimit before{};
        getrlimit(RLIMIT_FSIZE, &before);
        const rlimit small{1000, before.rlim_max};
        const int descriptors = processinfo::descriptors();
        setrlimit(RLIMIT_FSIZE, &small);
        const int state = ZELFault::call(provokedFault).state;
        setrlimit(RLIMIT_FSIZE, &before);
        ZELFault::setReport(SIGSEGV, false);
        QCOMPARE(state, int(SIGSEGV));
        QCOMPARE(processinfo::descriptors(), descriptors);
        QCOMPARE(reportIn(dir).size(), 1000);
    }

    void timeOfTheMoment()
    {
        ZELFault::setReport(SIGSEGV, true);
        const QByteArray zone = qgetenv("TZ");
        QTemporaryDir dir;
        installErrorCatch(dir.path());
        for (const char *other : {"EAST-11", "WEST+11"}) {
            qputenv("TZ", other);
            QTest::qSleep(1100); // looked up once a second
            ZELFault::call(provokedFault);
            const QDateTime now = QDateTime::currentDateTime();
            const QString name = dir.filePath(QStringLiteral("error-%1.txt").arg(now.date().toString(Qt::ISODate)));
            QFile file(name);
            QVERIFY2(file.open(QFile::ReadOnly), qPrintable(name));
            const QByteArray all = file.readAll(), text = all.mid(all.lastIndexOf("time :") + 6, 19);
            const auto time = QDateTime::fromString(QString::fromLatin1(text), QStringLiteral("yyyy-MM-dd hh-mm-ss"));
            QVERIFY2(qAbs(time.secsTo(now)) < 30, text.constData());
        }
        zone.isEmpty() ? qunsetenv("TZ") : qputenv("TZ", zone);
        QTest::qSleep(1100);
        ZELFault::setReport(SIGSEGV, false);
    }

    void storm()
    {
        QThread::msleep(1100); // what was reported before in the same second counts
        ZELFault::call([] {}); // the zone of the test before is forgotten at the next frame, by one thread for all
        ZELFault::setReport(SIGSEGV, true);
        ZELFault::setReportRate(4);
        QTemporaryDir dir;
        installErrorCatch(dir.path());
        std::atomic<int> faults{0};
        QElapsedTimer timer;
        timer.start();
        {
            Threads threads(20, [&] {
                for (int i = 0; i < 10; ++i)
                    faults += ZELFault::call(provokedFault).state == SIGSEGV;
            });
        }
        const auto seconds = int(timer.elapsed() / 1000);
        ZELFault::setReportRate(0);
        ZELFault::setReport(SIGSEGV, false);
        QCOMPARE(faults.load(), 200);
        const QByteArray text = reportIn(dir);
        QVERIFY(text.count("LibInfo :") >= 1);
        QVERIFY2(text.count("LibInfo :") <= 4 * (seconds + 2), qPrintable(QString::number(text.count("LibInfo :"))));
        QVERIFY(text.contains("Pelmora is in exiting process, sig 11, no full report: fault 5 of this second\r\n"));
    }

    void overflowGivesItsStackBack()
    {
        if (!resolvesInTime)
            QSKIP("a sanitizer's memory is its own affair");
        std::atomic<int> grown{0};
        std::thread([&] {
            const int before = processinfo::resident();
            for (int i = 0; i < 3; ++i)
                ZELFault::call([] { deep(0); });
            grown = processinfo::resident() - before;
        }).join();
        QVERIFY2(grown < 2000, qPrintable(QString::number(grown)));
    }

    void resolver_data()
    {
        Table<QByteArray> row("script");
        row("missing", "");
        row("never ending", "#!/bin/sh\nexec /bin/sleep 100\n");
        row("nonsense", "#!/bin/sh\nwhile :; do echo nonsense; done\n");
    }

    void resolver()
    {
        QFETCH(QByteArray, script);
        QTemporaryDir dir;
        QFile file(dir.filePath(QStringLiteral("addr2line")));
        if (!script.isEmpty()) {
            QVERIFY(file.open(QFile::WriteOnly));
            file.write(script);
            file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
            file.close();
        }
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PATH"), dir.path());
        child.setProcessEnvironment(environment);
        QStringList arguments{QCoreApplication::applicationFilePath(), QStringLiteral("--crash"), dir.path()};
        const QString emulator = qEnvironmentVariable("ZEL_TEST_EMULATOR");
        if (!emulator.isEmpty())
            arguments.prepend(emulator);
        child.start(arguments.takeFirst(), arguments);
        QVERIFY(child.waitForFinished(40000));
        QCOMPARE(child.exitCode(), 11);
        const QByteArray text = reportIn(dir);
        QCOMPARE(text.count("LibInfo :"), 2);
        QVERIFY(text.count("Symbol   :") > 2 && text.endsWith("\r\n"));
        QVERIFY(child.readAllStandardError().contains("Pelmora is in exiting process, sig 11\r\n[0]\r\n  Symbol:   "));
    }
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() == 3 && arguments[1] == QLatin1String("--crash"))
        return crashTwice(arguments[2]);
    tst_ZELFault test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_zelfault.moc"
