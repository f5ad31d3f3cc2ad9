// SPDX-License-Identifier: MIT
// One word as the value of one parameter.
#include "zelcommandsignature_p.h"
#include "zelcommandwords_p.h"

#include <algorithm>
#include <cmath>

namespace {

using Type = ZELCommandType;

bool isInRange(const ZELCommandParameter &parameter, double real)
{
    const auto &range = parameter.range;
    return std::isfinite(real)
        && (!range || parameter.type.isList || (real >= range->first.real && real <= range->second.real));
}

bool isInRange(const ZELCommandParameter &parameter, qint64 integer)
{
    const auto &range = parameter.range;
    return !range || parameter.type.isList || (integer >= range->first.integer && integer <= range->second.integer);
}

bool convertWhole(const ZELCommandParameter &parameter, const QString &word, ZELCommandValue &value)
{
    const auto number = zelWholeNumber(word);
    const Type &type = parameter.type;
    if (!number || number->overflown)
        return false;
    const quint64 magnitude = number->magnitude;
    const quint64 lowest = quint64(0) - quint64(type.least); // the magnitude of the least value
    if (number->negative ? magnitude > lowest : magnitude > type.most)
        return false;
    value.integer = qint64(number->negative ? quint64(0) - magnitude : magnitude);
    // What only an unsigned one holds is above every limit that a host can give.
    const bool isHuge = !number->negative && magnitude > quint64(std::numeric_limits<qint64>::max());
    return isHuge ? !parameter.range || parameter.type.isList : isInRange(parameter, value.integer);
}

bool convertReal(const ZELCommandParameter &parameter, const QString &word, ZELCommandValue &value)
{
    const auto number = zelRealNumber(word);
    value.real = number.value_or(0);
    return number && isInRange(parameter, *number);
}

bool convertTime(const ZELCommandParameter &parameter, const QString &word, ZELCommandValue &value)
{
    const auto time = zelNanoseconds(word);
    value.integer = time.value_or(0);
    return time && *time % parameter.type.tick == 0 && isInRange(parameter, *time);
}

bool convertSize(const ZELCommandParameter &parameter, const QString &word, ZELCommandValue &value)
{
    const auto size = zelBytesOfSize(word);
    value.integer = size.value_or(0);
    return size && isInRange(parameter, *size);
}

bool convertTruth(const QString &word, ZELCommandValue &value)
{
    const auto truth = zelTruth(word);
    value.integer = truth.value_or(false);
    return truth.has_value();
}

bool convertText(const ZELCommandParameter &parameter, const QString &word, ZELCommandValue &value)
{
    value.text = word;
    return isInRange(parameter, qint64(word.size()));
}

template <class T>
bool keep(const std::optional<T> &made, ZELCommandValue &value)
{
    if (made)
        value.object = *made;
    return made.has_value();
}

bool convertKey(const QMetaEnum &names, const QString &word, ZELCommandValue &value)
{
    bool isKey = false;
    value.integer = names.isValid() ? names.keyToValue(word.toLatin1().constData(), &isKey) : 0;
    return isKey;
}

bool convertPlain(const ZELCommandParameter &parameter, const QString &word, ZELCommandValue &value)
{
    switch (parameter.type.kind) {
    case Type::Integer:
    case Type::Unsigned:
        return convertWhole(parameter, word, value);
    case Type::Real:
        return convertReal(parameter, word, value);
    case Type::Boolean:
        return convertTruth(word, value);
    case Type::Bytes:
        return keep(zelByteArray(word), value);
    case Type::Moment:
        return keep(zelMoment(word), value);
    case Type::Duration:
        return convertTime(parameter, word, value);
    case Type::Size:
        return convertSize(parameter, word, value);
    case Type::Custom:
        return parameter.type.convert(word, value.object);
    case Type::Choice:
        return convertKey(parameter.type.names, word, value);
    case Type::Text:
        break;
    }
    return convertText(parameter, word, value);
}

bool takeChoice(const ZELCommandParameter &parameter, const ZELCommandChoice &choice, ZELCommandValue &value)
{
    if (!choice.hasValue)
        return convertPlain(parameter, choice.name, value);
    value.integer = choice.value;
    value.real = double(choice.value);
    value.text = choice.name;
    return true;
}

/// The exact word, or the only one that differs in case alone.
bool convertName(const ZELCommandParameter &parameter, const QString &word, ZELCommandValue &value)
{
    bool isUnsure = false;
    const ZELCommandChoice *found = nullptr;
    for (const ZELCommandChoice &choice : parameter.choices) {
        if (choice.name == word)
            return takeChoice(parameter, choice, value);
        if (choice.name.compare(word, Qt::CaseInsensitive) == 0) {
            isUnsure = found;
            found = &choice;
        }
    }
    return found && !isUnsure && takeChoice(parameter, *found, value);
}

/// The largest of the units that the number is a whole multiple of.
QString timeText(qint64 nanoseconds)
{
    static const struct
    {
        const char *name;
        qint64 factor;
    } units[] = {{"h", 3600000000000}, {"min", 60000000000}, {"s", 1000000000}, {"ms", 1000000}, {"us", 1000}};
    for (const auto &unit : units)
        if (nanoseconds != 0 && nanoseconds % unit.factor == 0)
            return QString::number(nanoseconds / unit.factor) + QLatin1String(unit.name);
    return nanoseconds == 0 ? QStringLiteral("0") : QString::number(nanoseconds) + QLatin1String("ns");
}

QString boundText(const Type &type, const ZELCommandBound &bound)
{
    if (type.kind == Type::Real && !type.isList)
        return QString::number(bound.real, 'g', QLocale::FloatingPointShortest);
    if (type.kind == Type::Duration && !type.isList)
        return timeText(bound.integer);
    return QString::number(bound.integer);
}

/// The type's own limits are said when they are narrower than people think of.
bool hasOwnLimits(const Type &type)
{
    return (type.kind == Type::Integer || type.kind == Type::Unsigned) && !type.isList;
}

QString orList(const QStringList &words)
{
    const QString last = words.last();
    return words.size() == 1 ? last
                             : words.mid(0, words.size() - 1).join(QLatin1String(", ")) + QLatin1String(" or ") + last;
}

const char *nameOf(Type::Kind kind)
{
    switch (kind) {
    case Type::Boolean:
        return "yes or no";
    case Type::Integer:
    case Type::Unsigned:
        return "a whole number";
    case Type::Real:
        return "a number";
    case Type::Bytes:
        return "bytes as text, hex: or base64:";
    case Type::Moment:
        return "a date and time";
    case Type::Duration:
        return "a time with its unit";
    case Type::Size:
        return "a size in bytes";
    case Type::Text:
    case Type::Choice:
    case Type::Custom:
        break;
    }
    return "a text";
}

} // namespace

QString zelConvertWord(const ZELCommandParameter &parameter, const QString &word, ZELCommandValue &value)
{
    value.given = true;
    const bool fits
        = parameter.choices.isEmpty() ? convertPlain(parameter, word, value) : convertName(parameter, word, value);
    return fits ? QString() : parameter.typeText();
}

QString zelSuggestion(const QString &typed, const QStringList &words)
{
    QString nearest;
    int best = 1 + typed.size() / 3;
    for (const QString &word : words) {
        if (std::abs(word.size() - typed.size()) > best)
            continue;
        const int distance = zelEditDistance(word.toLower(), typed.toLower());
        if (distance < best || (distance == best && nearest.isEmpty())) {
            best = distance;
            nearest = word;
        }
    }
    return nearest.isEmpty() ? QString() : QStringLiteral("; did you mean '%1'?").arg(nearest);
}

QStringList ZELCommandParameter::words() const
{
    QStringList names;
    for (const ZELCommandChoice &choice : choices)
        names += choice.name;
    if (names.isEmpty() && type.kind == Type::Boolean)
        names = QStringList{QStringLiteral("yes"), QStringLiteral("no")};
    return names;
}

QString ZELCommandParameter::leastText() const
{
    if (range)
        return boundText(type, range->first);
    return hasOwnLimits(type) ? QString::number(type.least) : QString();
}

QString ZELCommandParameter::mostText() const
{
    if (range)
        return boundText(type, range->second);
    return hasOwnLimits(type) ? QString::number(type.most) : QString();
}

QString ZELCommandParameter::typeText() const
{
    if (!choices.isEmpty())
        return orList(words());
    QString text = type.typeName ? QLatin1String("a ") + type.typeName() : QString::fromLatin1(nameOf(type.kind));
    const bool countsLetters = range && type.kind == Type::Text && !type.isList;
    if (countsLetters)
        return text + QStringLiteral(" of %1 to %2 characters").arg(leastText(), mostText());
    if (!leastText().isEmpty() && !type.isList)
        text += QStringLiteral(" from %1 to %2").arg(leastText(), mostText());
    if (type.kind == Type::Duration && type.tick > 1 && !type.isList)
        text += QLatin1String(" in steps of ") + (type.tick == 1000000000 ? QStringLiteral("1s") : timeText(type.tick));
    return text;
}

QString ZELCommandParameter::typeName() const
{
    static const char *const names[]
        = {"text", "boolean", "integer", "integer", "number", "bytes", "datetime", "duration", "size", "choice", ""};
    if (!choices.isEmpty())
        return QStringLiteral("choice");
    return type.typeName ? type.typeName() : QString::fromLatin1(names[type.kind]);
}
