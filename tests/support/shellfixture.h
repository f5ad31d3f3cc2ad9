// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_SHELLFIXTURE_H
#define TESTS_SUPPORT_SHELLFIXTURE_H

#include "fakedevice.h"
#include "zelarguments.h"
#include "zelcatch.h"
#include "zelshell.h"
#include "zelshellpacket_p.h"
#include "zelshellserver.h"
#include "zelstream.h"

#include <QSemaphore>
#include <QThread>
#include <memory>

const QString tag = QStringLiteral("UFJPVE9DT0w9WkVMX1NIRUxM");
const QString prompt = QStringLiteral("\033[32mZELShell@ZEL:~\033[0m\033[34m/Main\033[0m\033[33m $ \033[0m");

/// The packets in what was written, in order.
inline QVector<ZELShellProcessHeader> packetsIn(const QString &written)
{
    ZELShellPacketCutter cutter;
    QVector<ZELShellProcessHeader> packets;
    for (const QByteArray &packet : cutter.feed("\r\n" + written.toLatin1()))
        packets += zelParsePacket(packet);
    return packets;
}

/// Commands to run, as a host would register them.
class Board : public QObject
{
    Q_OBJECT
public:
    QSemaphore entered, proceed;
    QStringList words;
    ZELStream *elsewhere = nullptr; ///< another session's

public Q_SLOTS:
    void wait(ZELArguments)
    {
        entered.release();
        proceed.tryAcquire(1, 20000);
    }
    void sleep(ZELArguments)
    {
        entered.release();
        for (int i = 0; i < 200; ++i)
            QThread::msleep(100);
    }
    void crash(ZELArguments) { *static_cast<volatile int *>(nullptr) = 1; }
    void fail(ZELArguments) { throw new Exception("board", "broken", "f", 1); }
    QVariant value(ZELArguments) { return 7; }
    QVariant text(ZELArguments) { return QStringLiteral("a \"b\""); }
    void echo(ZELArguments args)
    {
        words = args;
        args.debug().noquote() << args.ToString(QStringLiteral(" "));
    }
    void claim(ZELArguments args)
    {
        args.setProtoclState(QStringLiteral("EXECUTE_COMPLETE"));
        args.warning() << "still at it";
    }
    void execl(ZELArguments args) { args.Execl(QStringLiteral("demo/echo in; ls; nothing; $x")); }
    void execute(ZELArguments args)
    {
        for (const char *line : {"demo/echo in", "ls", "demo/script --string 'demo/echo a; ls'", "nothing"})
            static_cast<ZELShell *>(args.Sender())->Execute(QLatin1String(line), false);
        ZELShell(elsewhere).Execute(QStringLiteral("demo/echo another session's"), false);
    }
    QVariant script(ZELArguments args) { return qobject_cast<ZELShellBase *>(args.Sender())->ExecuteString(args); }
};

/// A server with commands of the board and a session on it that no thread serves: each test calls it itself.
class ShellFixture : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        server.reset(new ZELShellServer);
        board.reset(new Board);
        registerCommands();
        device.reset(new FakeDevice);
        stream.reset(new ZELStream(device.get(), false));
        shell.reset(new ZELShell(stream.get()));
    }
    void cleanup()
    {
        shell.reset();
        stream.reset();
        device.reset();
        board.reset();
        server.reset();
    }

protected:
    virtual void registerCommands() = 0;
    QVariant run(const QString &line) { return shell->Execute(line, false); }
    /// What the session writes to it.
    QString answer(const QString &line)
    {
        device->take();
        run(line);
        return device->take();
    }

    std::unique_ptr<ZELShellServer> server;
    std::unique_ptr<Board> board;
    std::unique_ptr<FakeDevice> device;
    std::unique_ptr<ZELStream> stream;
    std::unique_ptr<ZELShell> shell;
};

#endif
