// SPDX-License-Identifier: MIT
// Commands that take from their process what everybody in it needs: in a host of its own, which is this program again.
#include "noleakcheck.h"
#include "remotehost.h"

#include <QProcess>
#include <QtTest>
#include <unistd.h>

namespace {

class Misdeeds : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    void closeAll(ZELArguments)
    {
        for (int fd = 3; fd < 1024; ++fd)
            ::close(fd);
    }
};

/// The host: says its port, serves until it is ended.
int serve(QCoreApplication &app)
{
    RemoteHost &host = RemoteHost::instance();
    static Misdeeds misdeeds;
    host.server.registerCmd("bad", "close", &misdeeds, SLOT(closeAll(ZELArguments)), true);
    printf("%d\n", int(host.port()));
    fflush(stdout);
    QTimer::singleShot(60000, &app, &QCoreApplication::quit);
    return app.exec();
}

class Host : public QProcess
{
public:
    Host()
    {
        QStringList arguments{QCoreApplication::applicationFilePath(), QStringLiteral("--serve")};
        const QString emulator = qEnvironmentVariable("ZEL_TEST_EMULATOR");
        if (!emulator.isEmpty())
            arguments.prepend(emulator);
        start(arguments.takeFirst(), arguments);
        while (!canReadLine() && waitForReadyRead(20000)) { }
        port = readLine().trimmed().toUShort();
    }
    ~Host() override
    {
        kill();
        waitForFinished();
    }
    quint16 port = 0;
};

} // namespace

class tst_Misdeeds : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void closedDescriptors()
    {
        Host host;
        RawPeer peer(host.port);
        peer.send("--nt\nbad/close\ntext/ping\n");
        peer.atEnd();
        QVERIFY(host.state() == QProcess::NotRunning || host.waitForFinished(10000));
        QCOMPARE(host.exitStatus(), QProcess::CrashExit);
        const QByteArray said = host.readAllStandardError();
        QVERIFY2(said.contains("descriptor"), said.constData());
    }
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (app.arguments().value(1) == QLatin1String("--serve"))
        return serve(app);
    tst_Misdeeds test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_misdeeds.moc"
