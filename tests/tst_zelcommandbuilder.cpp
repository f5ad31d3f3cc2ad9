// SPDX-License-Identifier: MIT
#include "quiet.h"
#include "shellfixture.h"
#include "table.h"
#include "zelshellcommandtree_p.h"

#include <QtTest>
#include <chrono>

using namespace std::chrono_literals;

enum class Mode { Slow = 1, Fast = 2 };

class Pumps : public QObject
{
    Q_OBJECT
public:
    int start(int number, const QString &note) { return number + note.size(); }
    QString name(ZELArguments args) const { return args[0]; }
};

static QString joined(const QString &a, const QString &b)
{
    return a + '+' + b;
}

class tst_ZELCommandBuilder : public ShellFixture
{
    Q_OBJECT
    std::unique_ptr<Pumps> pumps;

    void registerCommands() override
    {
        pumps = std::make_unique<Pumps>();
        server
            ->command("", "start",
                [](int number, Mode mode, std::optional<QString> note, bool dry) {
                    return QStringLiteral("%1 %2 %3%4")
                        .arg(number)
                        .arg(int(mode))
                        .arg(note.value_or("-"), dry ? " dry" : "");
                })
            .help("Starts a pump")
            .argument("number", "Which pump")
            .range(1, 8)
            .argument("mode", "How fast")
            .choices({{"slow", Mode::Slow}, {"fast", Mode::Fast}})
            .defaultValue("slow")
            .option("--note, -n", "Kept in the log")
            .option("--dry");
        server
            ->command("", "wait",
                [](std::chrono::milliseconds time, ZELByteSize size, double factor) {
                    return QString::number(double(time.count() + size) * factor);
                })
            .argument("time")
            .range(1ms, 10s)
            .option("--size")
            .range(0, 4096)
            .defaultValue("1k")
            .option("--factor")
            .defaultValue(0.5);
        server->command("", "say", [](const ZELArguments &args, const QStringList &words) {
            args.info() << words.size();
            return words.join('|');
        });
        server
            ->command("", "set",
                [](const QByteArray &key, const QVector<int> &numbers, const QStringList &tags) {
                    int sum = 0;
                    for (int number : numbers)
                        sum += number;
                    return key.toHex() + ' ' + QByteArray::number(sum) + ' ' + tags.join('|').toUtf8();
                })
            .argument("key")
            .argument("numbers")
            .range(1, 3)
            .option("--tag");
        server->command("", "join", joined);
        server->command("", "fail", [](int) -> int { throw std::runtime_error("no"); });
        server->systemCommand("who", pumps.get(), &Pumps::name);
        server->command("pumps", "start", pumps.get(), &Pumps::start)
            .argument("number")
            .argument("note")
            .defaultValue("");
    }

private Q_SLOTS:
    void lines_data()
    {
        Table<QString, QString> row("line", "answer");
        row("start 3 fast", "3 2 -");
        row("start 3", "3 1 -");
        row("start 3 FAST --dry", "3 2 - dry");
        row("start --note \"a b\" 3", "3 1 a b");
        row("start 3 --note=abc", "3 1 abc");
        row("start 3 -n = --dry", "3 1 --dry");
        row("start 3 --dry=no -n x", "3 1 x");
        row("start 3 --note -5", "3 1 -5");
        row("start -- 3 slow", "3 1 -");
        row("start",
            "start: number is missing: a whole number from 1 to 8\r\n"
            "Usage: start number [mode] [--note TEXT] [--dry]");
        const QString usage = "\r\nUsage: start number [mode] [--note TEXT] [--dry]";
        row("start 9", "start: number must be a whole number from 1 to 8, not '9'" + usage);
        row("start x", "start: number must be a whole number from 1 to 8, not 'x'" + usage);
        row("start 3 fsat", "start: mode must be slow or fast, not 'fsat'; did you mean 'fast'?" + usage);
        row("start 3 zzzz", "start: mode must be slow or fast, not 'zzzz'" + usage);
        row("start 3 fast 4", "start: takes no more arguments, '4' is one too many" + usage);
        row("start 3 --nte x", "start: there is no option '--nte'; did you mean '--note'?" + usage);
        row("start 3 --note", "start: --note must be followed by a text" + usage);
        row("start 3 --note --dry", "start: --note must be followed by a text" + usage);
        row("start 3 --note a -n b", "start: -n is given twice" + usage);
        row("start 3 --dry=maybe", "start: --dry must be yes or no, not 'maybe'" + usage);
        row("wait 20ms", "522");
        row("wait 20ms --factor 2 --size 10", "60");
        row("wait 11s",
            "wait: time must be a time with its unit from 1ms to 10s in steps of 1ms, not '11s'\r\n"
            "Usage: wait time [--size SIZE] [--factor NUMBER]");
        row("say a -b --c \"d e\"", "Info: 4\r\na|-b|--c|d e");
        row("say", "Info: 0\r\n");
        row("set base64:AP8= 1 2", "00ff 3 ");
        row("set base64:AP8= 1 2 3 --tag a --tag=b", "00ff 6 a|b");
        row("set k",
            "set: numbers is missing: a whole number\r\n"
            "Usage: set key numbers... [--tag TEXT...]");
        row("set k 1 2 3 4", "set: numbers takes 1 to 3 words, not 4\r\nUsage: set key numbers... [--tag TEXT...]");
        row("join a b", "a+b");
        row("join a", "join: arg2 is missing: a text\r\nUsage: join arg1 arg2");
        row("who", "who");
        row("pumps/start 3", "3");
        row("pumps/start 3 abc", "6");
        row("fail 1", "EXECUTE_ERROR :Aborted (core dumped)");
    }

    void lines()
    {
        QFETCH(QString, line);
        QFETCH(QString, answer);
        QCOMPARE(this->answer(line), answer + "\r\n");
    }

    /// Programs get one line, and the state.
    void packets()
    {
        const QByteArray packet = answer("start 9 " + tag).toLatin1();
        QVERIFY2(packet.contains("State: EXECUTE_ERROR\r\n"), packet);
        const int from = packet.indexOf("\r\n\r\n") + 4;
        const QByteArray body
            = QByteArray::fromBase64(packet.mid(from, packet.indexOf("ZEL_SHELL_PACKET_END", from) - from));
        QCOMPARE(body, QByteArray("start: number must be a whole number from 1 to 8, not '9'\r\n"));
        run("$x = start 3 fast");
        QCOMPARE(answer("$x"), "3 2 -\r\n" + prompt);
    }

    void receiverGoes()
    {
        pumps.reset();
        QVERIFY(!server->FindCommand("pumps", "start"));
        QVERIFY(!server->FindCommand("", "who"));
        QVERIFY(answer("pumps/start 3").contains("can not execate"));
        QVERIFY(!server->command("", "again", pumps.get(), &Pumps::start).add());
    }

    void unregistering()
    {
        QVERIFY(server->unregisterCommand("pumps", "start"));
        QVERIFY(!server->unregisterCommand("pumps", "start"));
        QVERIFY(!server->unregisterCommand("/Main", "pumps"));
        QVERIFY(server->unregisterCommand("", "who"));
        QVERIFY(answer("who").contains("can not execate"));
        QVERIFY(server->command("pumps", "start", [] { return 1; }).add());
        QCOMPARE(answer("pumps/start"), QString("1\r\n"));
        pumps.reset(); // the receiver of one that is gone takes nothing with it
        QCOMPARE(answer("pumps/start"), QString("1\r\n"));
    }

    void refused()
    {
        const Quiet quiet;
        QVERIFY(!server->command("pumps", "start", [] {}).add());
        QVERIFY(!server->command("/Other", "x", [] {}).add());
        QVERIFY(!server->systemCommand("who", [] {}).add());
        server->command("pumps", "start", [] {});
        QCOMPARE(quiet.count(), 4);
    }

    /// What cannot be meant is said, and the command is there all the same.
    void misuse()
    {
        const Quiet quiet;
        const auto take = [](std::optional<int> a, int, Mode) { return a.value_or(7); };
        QVERIFY(server->command("", "odd", take)
                    .range(1, 2)
                    .argument("a")
                    .defaultValue("x")
                    .option("name")
                    .argument("b")
                    .add());
        QVERIFY(quiet.count() >= 5);
        QVERIFY(server->FindCommand("Main", "odd") || server->FindCommand("/Main", "odd"));
    }

    void warnsOfDeprecated()
    {
        server->command("", "old", [] { return 1; }).deprecated("board/new");
        QCOMPARE(answer("old"), QString("\033[30;43mWarning: old is deprecated, use board/new\r\n\033[0m1\r\n"));
    }
};

QTEST_MAIN(tst_ZELCommandBuilder)
#include "tst_zelcommandbuilder.moc"
