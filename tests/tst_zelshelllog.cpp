// SPDX-License-Identifier: MIT
#include "shellfixture.h"
#include "table.h"
#include "userdatabase.h"
#include "zelshell_p.h"
#include "zelshelllog_p.h"
#include "zeluser.h"

#include <QtTest>

namespace {

QStringList logged;
void keep(QtMsgType, const QMessageLogContext &, const QString &text)
{
    logged += text;
}

} // namespace

class tst_ZELShellLog : public ShellFixture
{
    Q_OBJECT
private Q_SLOTS:
    void texts()
    {
        QCOMPARE(zelHarmless("a\u00e4 \\"), QString("a\u00e4 \\"));
        QCOMPARE(zelHarmless(QString("a\033[31m\r\nb\x7f\t") + QChar(0x9b) + QChar(0x2028) + QChar(0)),
            QString("a\\x1b[31m\\x0d\\x0ab\\x7f\\x09\\x9b\\x2028\\x00"));
        QCOMPARE(zelWithoutPassword(QString("system/adduser bob s e")), QString("system/adduser ***"));
        QCOMPARE(zelWithoutPassword(QString("$c = tool --password=x y")), QString("$c = tool --password ***"));
        QCOMPARE(zelWithoutPassword(QString("cd system; PASSWD")), QString("cd system; PASSWD"));
        QCOMPARE(zelWithoutPassword(QString("passwords compass")), QString("passwords compass"));
    }

    void handshakes_data()
    {
        Table<QByteArray, QString> row("handshake", "line");
        row("two words", "--nt --password a a", "ZELShell --nt --password *** ***");
        row("then a user", "--password = a b --user bob --nt", "ZELShell --password = *** *** --user bob --nt");
        row("control bytes", "--user \"\033[2J\x9b\r\"", "ZELShell --user \"\\x1b[2J\\x9b\\x0d\"");
    }

    void handshakes()
    {
        QFETCH(QByteArray, handshake);
        QFETCH(QString, line);
        QVERIFY(session(handshake + '\n').contains("================ get input =[" + line + ']'));
    }

    void failedLogins()
    {
        UserDatabase users;
        ZELUser("ann", "secret", users.database).logout();
        shell->setDatabase(users.database);
        QVERIFY(session("--nt --user ann --password wrong\n")
                    .contains("[board:10.0.0.7] failed login of user ann : Error : password error"));
        shell->setDatabase(QSqlDatabase());
    }

    void noName()
    {
        UserDatabase users;
        shell->setDatabase(users.database);
        QVERIFY(session("--nt --user --password x\n").contains("[board:10.0.0.7] failed login of user : no name"));
        QVERIFY(!ZELUser::loginAs("--password", "x", users.database, QUuid(), false).isLogin());
        shell->setDatabase(QSqlDatabase());
    }

    void statements()
    {
        const QStringList lines = session("--nt\nsystem/adduser bob secret\ndemo/value \x9b\a\n");
        QVERIFY(lines.contains("[board:10.0.0.7] input command [system/adduser ***]"));
        QVERIFY2(
            lines.contains("[board:10.0.0.7] input command [demo/value \\x9b\\x07]"), qPrintable(lines.join("\n")));
        run("passwd old new");
        QCOMPARE(shell->history(), QStringList("passwd ***"));
    }

private:
    /// The lines that are logged of a session that receives these bytes.
    QStringList session(const QByteArray &bytes)
    {
        server->setPasswordHidden(true);
        shell->setConnectionDescription("Stream=TcpStream;PeerName=board;PeerAddress=10.0.0.7;PeerPort=1;");
        device->type(bytes);
        device->end();
        logged.clear();
        const QtMessageHandler before = qInstallMessageHandler(keep);
        ZELShellPrivate::get(shell.get())->runCore();
        qInstallMessageHandler(before);
        ZELShellPrivate::get(shell.get())->noTerminal = false;
        return logged;
    }
    void registerCommands() override
    {
        server->registerCmd("demo", "value", board.get(), SLOT(value(ZELArguments)), true);
    }
};

QTEST_GUILESS_MAIN(tst_ZELShellLog)
#include "tst_zelshelllog.moc"
