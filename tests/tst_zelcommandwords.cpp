// SPDX-License-Identifier: MIT
// What words are as values of the types that a command's function may take.
#include "table.h"
#include "zelcommandsignature_p.h"

#include <QtTest>
#include <cmath>

using namespace std::chrono;

class Pump
{
    Q_GADGET
public:
    enum Mode { Slow = 1, Fast = 20, FAST = 21, Off = -3 };
    Q_ENUM(Mode)
};

struct Channel
{
    QChar letter;
};

template <>
struct ZELCommandConverter<Channel>
{
    static QString typeName() { return "channel"; }
    static std::optional<Channel> fromText(const QString &word)
    {
        return word.size() == 1 ? std::optional<Channel>({word[0]}) : std::nullopt;
    }
};

static QString text(double value)
{
    return QString::number(value, 'g', 17);
}
static QString text(const QString &value)
{
    return value;
}
static QString text(const QByteArray &value)
{
    return value.toHex();
}
static QString text(const QDateTime &value)
{
    return value.toUTC().toString(Qt::ISODateWithMs);
}
static QString text(const Channel &value)
{
    return value.letter;
}
static QString text(const QUuid &value)
{
    return value.toString();
}
static QString text(const QStringList &value)
{
    return value.join('|');
}
static QString text(const ZELByteSize &value)
{
    return QString::number(value.bytes);
}
template <class Count, class Period>
QString text(duration<Count, Period> value)
{
    return QString::number(value.count());
}
template <class T>
std::enable_if_t<std::is_integral_v<T> || std::is_enum_v<T>, QString> text(T value)
{
    if constexpr (std::is_unsigned_v<T>)
        return QString::number(qulonglong(value));
    else
        return QString::number(qlonglong(value));
}

/// What a function that takes a T makes of the word; "!" when it is refused.
template <class T>
QString made(const QString &word)
{
    ZELTypedCommand command;
    command.function = ZELCommandTypes::function([](const T &value) { return text(value); });
    ZELCommandParameter parameter;
    parameter.type = command.function.types.first();
    command.signature.parameters = {parameter};
    command.signature.complete();
    const ZELArguments args(nullptr, "cmd", QStringList{"cmd", word});
    const QVariant value = command.run(args);
    return args.hasError() ? QString("!") : value.toString();
}

static QString madeOf(const QByteArray &type, const QString &word)
{
    static const QHash<QByteArray, QString (*)(const QString &)> makers{{"bool", made<bool>}, {"i8", made<qint8>},
        {"u8", made<quint8>}, {"i16", made<qint16>}, {"u16", made<quint16>}, {"int", made<int>}, {"uint", made<uint>},
        {"i64", made<qint64>}, {"u64", made<quint64>}, {"double", made<double>}, {"float", made<float>},
        {"text", made<QString>}, {"bytes", made<QByteArray>}, {"moment", made<QDateTime>}, {"ms", made<milliseconds>},
        {"s", made<seconds>}, {"ns", made<nanoseconds>}, {"size", made<ZELByteSize>}, {"mode", made<Pump::Mode>},
        {"channel", made<Channel>}, {"uuid", made<QUuid>}, {"list", made<QStringList>}};
    return makers.value(type)(word);
}

class tst_ZELCommandWords : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void values_data()
    {
        static const struct
        {
            const char *type, *word, *value;
        } rows[] = {
            // whole numbers: limits and one beyond, on both sides
            {"i8", "127", "127"},
            {"i8", "128", "!"},
            {"i8", "-128", "-128"},
            {"i8", "-129", "!"},
            {"u8", "255", "255"},
            {"u8", "256", "!"},
            {"u8", "-1", "!"},
            {"u8", "-0", "0"},
            {"i16", "32767", "32767"},
            {"i16", "32768", "!"},
            {"i16", "-32768", "-32768"},
            {"u16", "65535", "65535"},
            {"u16", "65536", "!"},
            {"int", "2147483647", "2147483647"},
            {"int", "2147483648", "!"},
            {"int", "-2147483648", "-2147483648"},
            {"int", "-2147483649", "!"},
            {"uint", "4294967295", "4294967295"},
            {"uint", "4294967296", "!"},
            {"i64", "9223372036854775807", "9223372036854775807"},
            {"i64", "9223372036854775808", "!"},
            {"i64", "-9223372036854775808", "-9223372036854775808"},
            {"i64", "-9223372036854775809", "!"},
            {"u64", "18446744073709551615", "18446744073709551615"},
            {"u64", "18446744073709551616", "!"},
            {"u64", "99999999999999999999999999", "!"},
            {"i64", "-99999999999999999999999999", "!"},
            // their spellings
            {"int", "0", "0"},
            {"int", "+5", "5"},
            {"int", "007", "7"},
            {"int", "010", "10"},
            {"int", "0x1F", "31"},
            {"int", "0Xff", "255"},
            {"int", "-0x10", "-16"},
            {"int", "0x", "!"},
            {"int", "x10", "!"},
            {"int", "0x1G", "!"},
            {"u64", "0xFFFFFFFFFFFFFFFF", "18446744073709551615"},
            {"u64", "0x1FFFFFFFFFFFFFFFF", "!"},
            {"int", "", "!"},
            {"int", "+", "!"},
            {"int", "-", "!"},
            {"int", "--5", "!"},
            {"int", "+-5", "!"},
            {"int", " 5", "!"},
            {"int", "5 ", "!"},
            {"int", "1 000", "!"},
            {"int", "1.0", "!"},
            {"int", "1e3", "!"},
            {"int", "1.000", "!"},
            {"int", "1,000", "!"},
            {"int", "1'000", "!"},
            {"int", "1_000", "!"},
            {"int", "5a", "!"},
            {"int", "five", "!"},
            {"int", "\u0665", "!"},
            {"int", "\uff15", "!"},
            {"int", "\u00b2", "!"},
            {"int", "1\u00a0", "!"},
            {"int", "0b1", "!"},
            // numbers
            {"double", "0", "0"},
            {"double", "1.5", "1.5"},
            {"double", "-1.5", "-1.5"},
            {"double", "+.5", "0.5"},
            {"double", "5.", "5"},
            {"double", ".", "!"},
            {"double", "1e3", "1000"},
            {"double", "1E-3", "0.001"},
            {"double", "1e", "!"},
            {"double", "1e+", "!"},
            {"double", "e5", "!"},
            {"double", "1,5", "!"},
            {"double", "1.2.3", "!"},
            {"double", "nan", "!"},
            {"double", "NaN", "!"},
            {"double", "inf", "!"},
            {"double", "-Infinity", "!"},
            {"double", "0x10", "!"},
            {"double", "1e308", "1e+308"},
            {"double", "1e309", "!"},
            {"double", "-1e999", "!"},
            {"double", "1e-400", "0"},
            {"double", "01e999", "!"},
            {"double", "", "!"},
            {"double", "1.0f", "!"},
            {"double", " 1", "!"},
            {"double", "\u0661.5", "!"},
            {"double", "0.1", "0.10000000000000001"},
            {"float", "0.5", "0.5"},
            {"double", "--1", "!"},
            // booleans
            {"bool", "yes", "1"},
            {"bool", "NO", "0"},
            {"bool", "True", "1"},
            {"bool", "false", "0"},
            {"bool", "on", "1"},
            {"bool", "off", "0"},
            {"bool", "1", "1"},
            {"bool", "0", "0"},
            {"bool", "2", "!"},
            {"bool", "y", "!"},
            {"bool", "", "!"},
            {"bool", "yes ", "!"},
            // texts
            {"text", "plain", "plain"},
            {"text", "\"a b\"", "a b"},
            {"text", "'a'", "a"},
            {"text", "(x, y)", "x, y"},
            {"text", "\"\u00e4\u20ac\"", "\u00e4\u20ac"},
            {"text", "a\"", "a\""},
            {"list", "one", "one"},
            // byte arrays
            {"bytes", "abc", "616263"},
            {"bytes", "hex:00FFa0", "00ffa0"},
            {"bytes", "hex:", ""},
            {"bytes", "hex:0", "!"},
            {"bytes", "hex:0g", "!"},
            {"bytes", "base64:AP8=", "00ff"},
            {"bytes", "base64:AP8", "00ff"},
            {"bytes", "base64:A*", "!"},
            {"bytes", "text:hex:00", "6865783a3030"},
            {"bytes", "\"\u00e4\"", "c3a4"},
            // moments
            {"moment", "2026-02-28T12:00:00Z", "2026-02-28T12:00:00.000Z"},
            {"moment", "2026-02-28T12:00:00.250Z", "2026-02-28T12:00:00.250Z"},
            {"moment", "\"2026-02-28 12:00:00+02:00\"", "2026-02-28T10:00:00.000Z"},
            {"moment", "2026-02-29T12:00:00Z", "!"},
            {"moment", "2026-02-28T25:00:00Z", "!"},
            {"moment", "2026-02-28", "2026-02-28T00:00:00.000Z"},
            {"moment", "28.02.2026", "!"},
            {"moment", "@0", "1970-01-01T00:00:00.000Z"},
            {"moment", "@-1", "1969-12-31T23:59:59.000Z"},
            {"moment", "@99999999999999999", "!"},
            {"moment", "@", "!"},
            {"moment", "", "!"},
            {"moment", "tomorrow", "!"},
            {"moment", "\u0662026-02-28", "!"},
            // durations
            {"ms", "250ms", "250"},
            {"ms", "1.5s", "1500"},
            {"ms", "1h30m", "5400000"},
            {"ms", "2min", "120000"},
            {"ms", "1d", "86400000"},
            {"ms", "0", "0"},
            {"ms", "-2s", "-2000"},
            {"ms", "5", "!"},
            {"ms", "1s0", "!"},
            {"ms", "1us", "!"},
            {"s", "1.5s", "!"},
            {"s", "1500ms", "!"},
            {"s", "2000ms", "2"},
            {"ns", "1us", "1000"},
            {"ms", "1M", "!"},
            {"ms", "s", "!"},
            {"ms", "", "!"},
            {"ms", "1 s", "!"},
            {"ms", "1.s", "1000"},
            {"ms", "300000d", "!"},
            {"ms", "106751d", "9223286400000"},
            {"ms", "1..5s", "!"},
            {"ms", "1ss", "!"},
            {"ns", "9223372036854775807ns", "9223372036854775807"},
            {"ns", "9223372036854775807ns1ns", "!"},
            // sizes
            {"size", "512", "512"},
            {"size", "4k", "4096"},
            {"size", "4K", "4096"},
            {"size", "4KiB", "4096"},
            {"size", "4kB", "4000"},
            {"size", "1.5M", "1572864"},
            {"size", "2G", "2147483648"},
            {"size", "1T", "1099511627776"},
            {"size", "0", "0"},
            {"size", "10B", "10"},
            {"size", "-1", "!"},
            {"size", "4x", "!"},
            {"size", "k", "!"},
            {"size", "9223372036854775807", "9223372036854775807"},
            {"size", "9999999T", "!"},
            {"size", "", "!"},
            {"size", "9223372036854775808", "!"},
            // enums and types of the host's own
            {"mode", "Slow", "1"},
            {"mode", "slow", "1"},
            {"mode", "Fast", "20"},
            {"mode", "FAST", "21"},
            {"mode", "fast", "!"},
            {"mode", "Off", "-3"},
            {"mode", "1", "!"},
            {"mode", "", "!"},
            {"mode", "Slow|Off", "!"},
            {"channel", "b", "b"},
            {"channel", "bb", "!"},
            {"uuid", "{11111111-2222-3333-4444-555555555555}", "{11111111-2222-3333-4444-555555555555}"},
        };
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<QString>("word");
        QTest::addColumn<QString>("value");
        for (const auto &row : rows)
            QTest::addRow("%s %s", row.type, row.word)
                << QByteArray(row.type) << QString::fromUtf8(row.word) << QString::fromUtf8(row.value);
    }

    void values()
    {
        QFETCH(QByteArray, type);
        QFETCH(QString, word);
        QTEST(madeOf(type, word), "value");
    }

    /// Numbers are the same whatever language the board speaks.
    void locale()
    {
        const auto before = QLocale();
        QLocale::setDefault(QLocale::German);
        const QByteArray old = setlocale(LC_ALL, nullptr);
        setlocale(LC_ALL, "de_DE.UTF-8");
        QCOMPARE(madeOf("double", "1.5"), QString("1.5"));
        QCOMPARE(madeOf("double", "1,5"), QString("!"));
        QCOMPARE(madeOf("size", "1.5k"), QString("1536"));
        QCOMPARE(madeOf("ms", "1.5s"), QString("1500"));
        setlocale(LC_ALL, old);
        QLocale::setDefault(before);
    }
};

QTEST_MAIN(tst_ZELCommandWords)
#include "tst_zelcommandwords.moc"
