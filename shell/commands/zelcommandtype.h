// SPDX-License-Identifier: MIT
#ifndef ZELCOMMANDTYPE_H
#define ZELCOMMANDTYPE_H

#include "zelshell_export.h"

#include <QByteArray>
#include <QDateTime>
#include <QMetaEnum>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>
#include <any>
#include <chrono>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>

// How the words of a line become the parameters of a C++ function, for ZELCommandBuilder. Hosts need ZELByteSize,
// ZELCommandConverter, ZELCommandChoice and
// ZELCompletionRequest of this; the rest is what the templates leave to the library.

/// A text of the host's: a UTF-8 literal or a QString.
class ZELCommandText : public QString
{
public:
    ZELCommandText(const char *utf8)
        : QString(QString::fromUtf8(utf8))
    {
    }
    ZELCommandText(const QString &text)
        : QString(text)
    {
    }
};

/// A number of bytes as a parameter, typed as "512", "4k" or "1.5MiB": k, M, G, T are powers of 1024, kB, MB, GB, TB
/// powers of 1000.
struct ZELByteSize
{
    qint64 bytes = 0;
    operator qint64() const { return bytes; }
};

/**
 * Makes a parameter type of the host's own out of a word. This one takes what QVariant converts from QString, so a type
 * with QMetaType::registerConverter<QString, T>() needs no other. To be specialised for other types:
 *
 *     template <>
 *     struct ZELCommandConverter<Channel>
 *     {
 *         static QString typeName() { return "channel"; }                     // stands in the help
 *         static std::optional<Channel> fromText(const QString &word);        // nothing: the word is refused
 *     };
 *
 * Called on the session's thread, inside the command's try frame.
 */
template <class T>
struct ZELCommandConverter
{
    static QString typeName() { return QString::fromLatin1(QMetaType::typeName(qMetaTypeId<T>())); }
    static std::optional<T> fromText(const QString &word)
    {
        QVariant value(word);
        if (!value.convert(qMetaTypeId<T>()))
            return std::nullopt;
        return value.value<T>();
    }
};

/// What a word was made into. Integers of every kind, booleans, enums, bytes of a size and nanoseconds of a duration
/// are in `integer`.
struct ZELCommandValue
{
    bool given = false;
    qint64 integer = 0;
    double real = 0;
    QString text;
    std::any object; ///< byte arrays, moments, types of the host's own
    QVector<ZELCommandValue> list;
};

/// What the library has to know of a parameter's C++ type.
struct ZELCommandType
{
    enum Kind { Text, Boolean, Integer, Unsigned, Real, Bytes, Moment, Duration, Size, Choice, Custom };

    Kind kind = Text;
    bool isOptional = false;
    bool isList = false;
    qint64 least = std::numeric_limits<qint64>::min();
    quint64 most = std::numeric_limits<qint64>::max();
    qint64 tick = 1; ///< nanoseconds a count of the duration's type
    QMetaEnum names; ///< of an enum with Q_ENUM
    QString (*typeName)() = nullptr;
    bool (*convert)(const QString &word, std::any &object) = nullptr;
};

namespace ZELCommandTypes {

template <class T>
struct Optional : std::false_type
{
};
template <class T>
struct Optional<std::optional<T>> : std::true_type
{
};

template <class T>
struct List : std::false_type
{
};
template <>
struct List<QStringList> : std::true_type
{
    using Element = QString;
};
template <class T>
struct List<QVector<T>> : std::true_type
{
    using Element = T;
};

template <class T>
struct Duration : std::false_type
{
};
template <class Count, class Period>
struct Duration<std::chrono::duration<Count, Period>> : std::true_type
{
    static_assert(std::is_integral_v<Count>, "a duration is counted in whole numbers");
};

template <class T>
constexpr bool isNumber = std::is_arithmetic_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char>;
template <class T>
constexpr bool isSignedNumber = isNumber<T> &&std::is_signed_v<T>;

template <class T>
bool convert(const QString &word, std::any &object)
{
    std::optional<T> made = ZELCommandConverter<T>::fromText(word);
    if (made)
        object = std::move(*made);
    return made.has_value();
}

template <class T>
void describeNumber(ZELCommandType &type)
{
    if constexpr (std::is_floating_point_v<T>) {
        type.kind = ZELCommandType::Real;
    } else {
        type.kind = std::is_signed_v<T> ? ZELCommandType::Integer : ZELCommandType::Unsigned;
        type.least = std::is_signed_v<T> ? qint64(std::numeric_limits<T>::min()) : 0;
        type.most = quint64(std::numeric_limits<T>::max());
    }
}

template <class T>
void describeObject(ZELCommandType &type)
{
    if constexpr (std::is_enum_v<T>) {
        type.kind = ZELCommandType::Choice;
        if constexpr (QtPrivate::IsQEnumHelper<T>::Value)
            type.names = QMetaEnum::fromType<T>();
    } else if constexpr (Duration<T>::value) {
        type.kind = ZELCommandType::Duration;
        type.tick = std::chrono::nanoseconds(T(1)).count();
    } else {
        type.kind = ZELCommandType::Custom;
        type.typeName = &ZELCommandConverter<T>::typeName;
        type.convert = &convert<T>;
    }
}

/// The description of one parameter type.
template <class T>
ZELCommandType describe()
{
    ZELCommandType type;
    if constexpr (Optional<T>::value) {
        type = describe<typename T::value_type>();
        type.isOptional = true;
    } else if constexpr (List<T>::value) {
        type = describe<typename List<T>::Element>();
        type.isList = true;
    } else if constexpr (std::is_same_v<T, bool>) {
        type.kind = ZELCommandType::Boolean;
    } else if constexpr (std::is_same_v<T, QByteArray>) {
        type.kind = ZELCommandType::Bytes;
    } else if constexpr (std::is_same_v<T, QDateTime>) {
        type.kind = ZELCommandType::Moment;
    } else if constexpr (std::is_same_v<T, ZELByteSize>) {
        type.kind = ZELCommandType::Size;
    } else if constexpr (isNumber<T>) {
        describeNumber<T>(type);
    } else if constexpr (!std::is_same_v<T, QString>) {
        describeObject<T>(type);
    }
    return type;
}

template <class T>
T take(ZELCommandValue &value);

template <class T>
T takeList(ZELCommandValue &value)
{
    T list;
    list.reserve(value.list.size());
    for (ZELCommandValue &element : value.list)
        list.append(take<typename List<T>::Element>(element));
    return list;
}

/// The parameter made of a value that was converted for its type.
template <class T>
T take(ZELCommandValue &value)
{
    if constexpr (Optional<T>::value)
        return value.given ? T(take<typename T::value_type>(value)) : T();
    else if constexpr (List<T>::value)
        return takeList<T>(value);
    else if constexpr (std::is_same_v<T, QString>)
        return std::move(value.text);
    else if constexpr (std::is_floating_point_v<T>)
        return T(value.real);
    else if constexpr (Duration<T>::value)
        return std::chrono::duration_cast<T>(std::chrono::nanoseconds(value.integer));
    else if constexpr (std::is_same_v<T, ZELByteSize>)
        return ZELByteSize{value.integer};
    else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>)
        return static_cast<T>(value.integer);
    else
        return value.object.has_value() ? std::any_cast<T>(std::move(value.object)) : T();
}

/// What a function returned, as the command's value.
template <class T>
QVariant result(T &&value)
{
    using Plain = std::decay_t<T>;
    if constexpr (std::is_same_v<Plain, QVariant>)
        return value;
    else if constexpr (Optional<Plain>::value)
        return value ? result(*value) : QVariant();
    else if constexpr (std::is_same_v<Plain, std::string>)
        return QString::fromStdString(value);
    else if constexpr (std::is_same_v<Plain, const char *> || std::is_same_v<Plain, char *>)
        return QString::fromUtf8(value);
    else if constexpr (std::is_same_v<Plain, ZELByteSize>)
        return value.bytes;
    else if constexpr (Duration<Plain>::value)
        return qlonglong(value.count());
    else if constexpr (std::is_enum_v<Plain> && !QtPrivate::IsQEnumHelper<Plain>::Value)
        return qlonglong(value);
    else
        return QVariant::fromValue(std::forward<T>(value));
}

} // namespace ZELCommandTypes

/// A word that an argument may be, and the value it stands for; without a value, the word itself for a text.
struct ZELCommandChoice
{
    ZELCommandChoice(const ZELCommandText &name)
        : name(name)
    {
    }
    ZELCommandChoice(const char *name)
        : name(ZELCommandText(name))
    {
    }
    template <class T, class = std::enable_if_t<std::is_enum_v<T> || std::is_integral_v<T>>>
    ZELCommandChoice(const ZELCommandText &name, T value)
        : name(name)
        , value(static_cast<qint64>(value))
        , hasValue(true)
    {
    }

    QString name;
    qint64 value = 0;
    bool hasValue = false;
};

/// A limit of a range: a number, a number of bytes or a duration.
struct ZELCommandBound
{
    template <class T, class = std::enable_if_t<std::is_arithmetic_v<T>>>
    ZELCommandBound(T number)
        : integer(qint64(number))
        , real(double(number))
    {
    }
    ZELCommandBound(ZELByteSize size)
        : ZELCommandBound(size.bytes)
    {
    }
    template <class Count, class Period>
    ZELCommandBound(std::chrono::duration<Count, Period> time)
        : ZELCommandBound(qint64(std::chrono::duration_cast<std::chrono::nanoseconds>(time).count()))
    {
    }

    qint64 integer;
    double real;
};

/// What a completion function of the host's is asked.
struct ZELCompletionRequest
{
    QString name; ///< of the argument or option
    QString typed; ///< its beginning, without quotes
    QStringList words; ///< the words before it, the command's first
};

/// Answers what an argument may be; the words that do not begin with what is typed are left out.
using ZELCommandCompleter = std::function<QStringList(const ZELCompletionRequest &request)>;

#endif
