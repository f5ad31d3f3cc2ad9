// SPDX-License-Identifier: MIT
#include "zelcommandwords_p.h"

#include <QVector>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

namespace {

bool isDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

/// Cuts the sign off; true for minus.
bool takeSign(QStringView &text)
{
    const bool negative = text.startsWith(QLatin1Char('-'));
    if (negative || text.startsWith(QLatin1Char('+')))
        text = text.mid(1);
    return negative;
}

int digitOf(QChar c, int base)
{
    const ushort unicode = c.unicode() | 0x20;
    const int digit = isDigit(c) ? c.unicode() - '0' : unicode >= 'a' && unicode <= 'f' ? unicode - 'a' + 10 : base;
    return c.unicode() < 0x80 && digit < base ? digit : -1;
}

/// The end of a decimal number without exponent at the beginning of the text: digits with at most one point, at least
/// one digit.
int endOfNumber(QStringView text)
{
    int at = 0;
    int digits = 0;
    bool point = false;
    for (; at < text.size() && (isDigit(text[at]) || (text[at] == QLatin1Char('.') && !point)); ++at) {
        point = point || !isDigit(text[at]);
        digits += isDigit(text[at]);
    }
    return digits > 0 ? at : 0;
}

bool isExponent(QStringView text)
{
    if (text.isEmpty())
        return true;
    if (text[0] != QLatin1Char('e') && text[0] != QLatin1Char('E'))
        return false;
    text = text.mid(1);
    takeSign(text);
    return !text.isEmpty() && std::all_of(text.begin(), text.end(), isDigit);
}

/// Of a number that no double holds: whether that is because it is so near to zero.
bool isTiny(const QByteArray &number)
{
    const int exponent = number.indexOf('e');
    return exponent >= 0 ? number.at(exponent + 1) == '-' : number.startsWith('0') || number.startsWith('.');
}

/// A factor by the name of its unit.
struct Unit
{
    const char *name;
    double factor;
};

const Unit timeUnits[]
    = {{"ns", 1}, {"us", 1e3}, {"ms", 1e6}, {"s", 1e9}, {"m", 60e9}, {"min", 60e9}, {"h", 3600e9}, {"d", 86400e9}};
const Unit sizeUnits[] = {{"", 1}, {"b", 1}, {"k", 1024.}, {"kib", 1024.}, {"kb", 1e3}, {"m", 1048576.},
    {"mib", 1048576.}, {"mb", 1e6}, {"g", 1073741824.}, {"gib", 1073741824.}, {"gb", 1e9}, {"t", 1099511627776.},
    {"tib", 1099511627776.}, {"tb", 1e12}};

template <int N>
double factorOf(const Unit (&units)[N], QStringView name, Qt::CaseSensitivity sensitivity)
{
    for (const Unit &unit : units)
        if (name.compare(QLatin1String(unit.name), sensitivity) == 0)
            return unit.factor;
    return 0;
}

/// The number times the factor, in steps of whole numbers where it is one: doubles are not exact beyond 2^53.
std::optional<qint64> scaled(QStringView number, double factor)
{
    bool isWhole = false;
    const qint64 whole = number.toString().toLongLong(&isWhole);
    qint64 product = 0;
    if (isWhole && !__builtin_mul_overflow(whole, qint64(factor), &product))
        return product;
    const double real = number.toLatin1().toDouble() * factor;
    if (isWhole || !(std::fabs(real) < 9.2e18))
        return std::nullopt;
    return qint64(std::llround(real));
}

std::optional<QByteArray> fromHex(const QString &text)
{
    const auto isHex = [](QChar c) { return digitOf(c, 16) >= 0; };
    if (text.size() % 2 || !std::all_of(text.cbegin(), text.cend(), isHex))
        return std::nullopt;
    return QByteArray::fromHex(text.toLatin1());
}

std::optional<QByteArray> fromBase64(const QString &text)
{
    auto decoded = QByteArray::fromBase64Encoding(text.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (decoded.decodingStatus != QByteArray::Base64DecodingStatus::Ok)
        return std::nullopt;
    return decoded.decoded;
}

std::optional<QDateTime> sinceEpoch(const QString &text)
{
    const auto seconds = zelWholeNumber(text);
    const quint64 limit = Q_UINT64_C(253402300799); // the end of the year 9999
    if (!seconds || seconds->magnitude > limit)
        return std::nullopt;
    return QDateTime::fromSecsSinceEpoch(seconds->negative ? -qint64(seconds->magnitude) : qint64(seconds->magnitude));
}

bool isAscii(const QString &word)
{
    return std::all_of(word.cbegin(), word.cend(), [](QChar c) { return c.unicode() < 0x80; });
}

} // namespace

std::optional<ZELWholeNumber> zelWholeNumber(const QString &word)
{
    QStringView text(word);
    ZELWholeNumber number;
    number.negative = takeSign(text);
    const bool isHex = text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive);
    const int base = isHex ? 16 : 10;
    if (isHex)
        text = text.mid(2);
    if (text.isEmpty())
        return std::nullopt;
    for (QChar c : text) {
        const int digit = digitOf(c, base);
        if (digit < 0)
            return std::nullopt;
        number.overflown = number.overflown
            || __builtin_mul_overflow(number.magnitude, quint64(base), &number.magnitude)
            || __builtin_add_overflow(number.magnitude, quint64(digit), &number.magnitude);
    }
    if (number.overflown)
        number.magnitude = std::numeric_limits<quint64>::max();
    return number;
}

std::optional<double> zelRealNumber(const QString &word)
{
    QStringView text(word);
    const bool negative = takeSign(text);
    const int end = endOfNumber(text);
    if (end == 0 || !isExponent(text.mid(end)))
        return std::nullopt;
    const QByteArray digits = text.toLatin1();
    double value = 0;
    const auto parsed = std::from_chars(digits.begin(), digits.end(), value);
    if (parsed.ec == std::errc::result_out_of_range)
        value = isTiny(digits.toLower()) ? 0 : std::numeric_limits<double>::infinity();
    return negative ? -value : value;
}

std::optional<bool> zelTruth(const QString &word)
{
    for (const char *yes : {"yes", "true", "on", "1"})
        if (word.compare(QLatin1String(yes), Qt::CaseInsensitive) == 0)
            return true;
    for (const char *no : {"no", "false", "off", "0"})
        if (word.compare(QLatin1String(no), Qt::CaseInsensitive) == 0)
            return false;
    return std::nullopt;
}

std::optional<qint64> zelNanoseconds(const QString &word)
{
    QStringView text(word);
    const bool negative = takeSign(text);
    qint64 sum = 0;
    if (text.isEmpty())
        return std::nullopt;
    while (!text.isEmpty() && text != QLatin1String("0")) {
        const int end = endOfNumber(text);
        int next = end;
        while (next < text.size() && text[next].isLetter())
            ++next;
        const double factor = factorOf(timeUnits, text.mid(end, next - end), Qt::CaseSensitive);
        const auto part = end > 0 && factor > 0 ? scaled(text.left(end), factor) : std::nullopt;
        if (!part || __builtin_add_overflow(sum, *part, &sum))
            return std::nullopt;
        text = text.mid(next);
        if (text == QLatin1String("0"))
            return std::nullopt; // behind a part: "1s0"
    }
    return negative ? -sum : sum;
}

std::optional<qint64> zelBytesOfSize(const QString &word)
{
    const QStringView text(word);
    const int end = endOfNumber(text);
    const double factor = factorOf(sizeUnits, text.mid(end), Qt::CaseInsensitive);
    if (end == 0 || factor == 0)
        return std::nullopt;
    return scaled(text.left(end), factor);
}

std::optional<QByteArray> zelByteArray(const QString &word)
{
    if (word.startsWith(QLatin1String("hex:")))
        return fromHex(word.mid(4));
    if (word.startsWith(QLatin1String("base64:")))
        return fromBase64(word.mid(7));
    return word.startsWith(QLatin1String("text:")) ? word.mid(5).toUtf8() : word.toUtf8();
}

std::optional<QDateTime> zelMoment(const QString &word)
{
    if (word == QLatin1String("now"))
        return QDateTime::currentDateTime();
    if (word.startsWith(QLatin1Char('@')))
        return sinceEpoch(word.mid(1));
    QString text = word;
    if (text.size() > 10 && text.at(10) == QLatin1Char(' '))
        text[10] = QLatin1Char('T');
    if (!isAscii(text) || text.size() < 10 || text.contains(QLatin1Char(' ')))
        return std::nullopt;
    const QDateTime moment = QDateTime::fromString(text, Qt::ISODateWithMs);
    return moment.isValid() ? std::optional<QDateTime>(moment) : std::nullopt;
}

int zelEditDistance(const QString &one, const QString &other)
{
    QVector<int> before, last, row(other.size() + 1);
    for (int j = 0; j < row.size(); ++j)
        row[j] = j;
    for (int i = 1; i <= one.size(); ++i) {
        before = std::exchange(last, row);
        row[0] = i;
        for (int j = 1; j <= other.size(); ++j) {
            const bool same = one[i - 1] == other[j - 1];
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + !same});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                row[j] = std::min(row[j], before[j - 2] + 1);
        }
    }
    return row.last();
}
