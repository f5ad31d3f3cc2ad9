// SPDX-License-Identifier: MIT
// The examples of docs/commands.md, compiled and typed at.
#include "quiet.h"
#include "shellfixture.h"
#include "table.h"
#include "zeluserroles.h"

#include <QtTest>
#include <chrono>
#include <numeric>

#include "documentedcommands.inc"

class tst_DocumentedCommands : public ShellFixture
{
    Q_OBJECT
    std::unique_ptr<Pumps> pumps;
    int warnings = 0;

    void registerCommands() override
    {
        pumps = std::make_unique<Pumps>();
        const Quiet quiet;
        registerDocumented(*server, *pumps);
        warnings = quiet.count();
    }

private Q_SLOTS:
    void lines_data()
    {
        Table<QString, QString> row("line", "answer");
        row("board/pump/start 3 fsat",
            "board/pump/start: speed must be slow or fast, not 'fsat'; did you mean 'fast'?\r\n"
            "Usage: board/pump/start number [speed] [--note TEXT]\r\n");
        row("board/pump/start 3 fast --note=\"after the check\"", "241\r\n");
        row("board/reset --hard", "Info: reset, hard\r\n");
        row("uptime", "90\r\n");
        row("board/log @0 1h --most 2kB", "1970-01-01T00:00:00Z 3600000 2000\r\n");
        row("board/sum 1 2.5", "3.5\r\n");
        row("board/tune c7", "7\r\n");
        row("help board/pump",
            "The pumps of the board\r\n\r\nCommands\r\n  start  Starts a pump\r\n\r\n"
            "Ending\r\n  stop  Stops a pump\r\n");
        row("board/pump/stop -h",
            "Usage: board/pump/stop number\r\nStops a pump\r\n\r\n"
            "Arguments\r\n  number  a whole number from 1 to 8\r\n");
        row("board/calibrate", "board/calibrate is not permitted!\r\n");
        row("board/erase", "board/erase: nobody can be asked here\r\n");
        row("board/gone", "Error : input 'board/gone' can not execate\n");
    }

    void lines()
    {
        QFETCH(QString, line);
        QFETCH(QString, answer);
        QCOMPARE(warnings, 0);
        QCOMPARE(this->answer(line), answer);
    }
};

QTEST_MAIN(tst_DocumentedCommands)
#include "tst_documentedcommands.moc"
