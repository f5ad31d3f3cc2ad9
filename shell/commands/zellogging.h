// SPDX-License-Identifier: MIT
#ifndef ZELLOGGING_H
#define ZELLOGGING_H

#include "zelshell_export.h"

#include <QByteArray>
#include <QChar>
#include <QMetaEnum>
#include <QString>
#include <QStringList>
#include <QTextStream>
#include <QVariant>
#include <functional>
#include <type_traits>

class ZELAbstractStream;
class ZELLoggingPrivate;
class ZELLoggingSaver;

/**
 * A print handle in the manner of QDebug: collects one message and writes it to a stream, in one piece, when its last
 * copy dies, with the prefix of its type in front and "\r\n" behind.
 *
 * Copies share the message; spacing, quoting, line end and type belong to each handle, and those of the last one
 * decide. A handle may outlive its stream: the message is dropped then.
 *
 * Threads: copies may die on any thread; one thread at a time writes into a message.
 *
 *     ZELLogging::warning(stream) << "fan" << 3 << "stopped";      // "Warning: fan 3 stopped\r\n"
 */
class ZELSHELL_EXPORT ZELLogging
{
public:
    /// Not QtMsgType's order.
    enum LoggingMsgType { Debug = 0, Warning = 1, Error = 2, Critical = 3, Fatal = 4, Info = 5 };
    using Hook = std::function<QString(const QString &)>;

    /**
     * The hook, if any, rewrites the finished message while the stream is open.
     * Without a stream the message makes its own: a new ZELStdDevice on descriptor 0, which makes the terminal raw, and
     * a new ZELStream on that. Neither is ever deleted, deliberately: such a stream stays good until the process ends.
     */
    ZELLogging(ZELAbstractStream *stream, LoggingMsgType type, const Hook &hook);
    ZELLogging(const ZELLogging &other);
    ZELLogging &operator=(const ZELLogging &other);
    /// The last copy emits.
    ~ZELLogging();

    static ZELLogging debug(ZELAbstractStream *stream);
    static ZELLogging warning(ZELAbstractStream *stream);
    static ZELLogging critical(ZELAbstractStream *stream);
    static ZELLogging fatal(ZELAbstractStream *stream);
    static ZELLogging info(ZELAbstractStream *stream);

    /// A blank after each item from now on, and one at once.
    ZELLogging &space();
    ZELLogging &nospace();
    /// The blank, if items are followed by one.
    ZELLogging &maybeSpace();
    /// QString items between double quotes, or as they are.
    ZELLogging &quote();
    ZELLogging &noquote();
    /// No "\r\n" at the end of the message.
    ZELLogging &noNewLine();
    bool autoInsertSpaces() const { return m_space; }
    void setAutoInsertSpaces(bool on) { m_space = on; }
    bool isQuoted() const { return !m_noQuote; }
    LoggingMsgType type() const { return m_type; }

    /// UTF-8, never quoted; nothing but the separator for null.
    ZELLogging &operator<<(const char *text);
    /// Quoted unless noquote(); quotes inside are not escaped.
    ZELLogging &operator<<(const QString &text);
    ZELLogging &operator<<(const QStringRef &text);
    ZELLogging &operator<<(QStringView text);
    ZELLogging &operator<<(QLatin1String text);
    /// UTF-8, not quoted.
    ZELLogging &operator<<(const QByteArray &text);
    ZELLogging &operator<<(QChar c);
    ZELLogging &operator<<(char c);
    /// "true" or "false".
    ZELLogging &operator<<(bool value);
    ZELLogging &operator<<(short value);
    ZELLogging &operator<<(unsigned short value);
    ZELLogging &operator<<(int value);
    ZELLogging &operator<<(unsigned int value);
    ZELLogging &operator<<(long value);
    ZELLogging &operator<<(unsigned long value);
    ZELLogging &operator<<(qlonglong value);
    ZELLogging &operator<<(qulonglong value);
    ZELLogging &operator<<(float value);
    ZELLogging &operator<<(double value);
    ZELLogging &operator<<(const void *pointer);
    ZELLogging &operator<<(std::nullptr_t);
    /// ("a", "b"); the items follow the quoting.
    ZELLogging &operator<<(const QStringList &list);
    /// The value as it would be written itself; "QVariant(Type)" for what has no text.
    ZELLogging &operator<<(const QVariant &value);
    /// Manipulators such as hex; not followed by the separator.
    ZELLogging &operator<<(QTextStreamFunction manipulator);
    ZELLogging &operator<<(QTextStreamManipulator manipulator);

    /// Backspace, blank, backspace: erases the character before the cursor of a terminal.
    ZELLogging &deleteOne();

private:
    friend class ZELLoggingPrivate;
    friend class ZELLoggingSaver;
    template <class T>
    ZELLogging &put(const T &value);
    template <class List>
    ZELLogging &putList(const List &list);

    ZELLoggingPrivate *d;
    ZELAbstractStream *m_stream;
    LoggingMsgType m_type;
    bool m_space = true;
    bool m_noQuote = false;
    bool m_noNewLine = false;
    QString m_separator;
};

/// Puts a handle's type, spacing, quoting and line end back when it dies; the number format is not saved.
class ZELSHELL_EXPORT ZELLoggingSaver
{
public:
    explicit ZELLoggingSaver(ZELLogging &logging);
    ~ZELLoggingSaver();
    ZELLogging *Logging();

private:
    Q_DISABLE_COPY(ZELLoggingSaver)
    struct State;
    State *d;
};

/// Writes the key of the value, or the number when there is none: neither class nor enumeration name.
ZELSHELL_EXPORT ZELLogging zel_QMetaEnum_debugOperator(
    ZELLogging &dbg, int value, const QMetaObject *meta, const char *name);
/// Writes QFlags<Scope::Name>(A|B).
ZELSHELL_EXPORT ZELLogging zel_QMetaEnum_flagDebugOperator(
    ZELLogging &dbg, quint64 value, const QMetaObject *meta, const char *name);
/// Writes QFlags(0x1|0x4) for flags without meta data. Unlike the other two it leaves its marks: the message stays
/// without spacing and in hexadecimal.
ZELSHELL_EXPORT void zel_QMetaEnum_flagDebugOperator(ZELLogging &dbg, size_t sizeofT, int value);

/// Q_ENUM values by their key.
template <class T>
std::enable_if_t<std::is_enum<T>::value && QtPrivate::IsQEnumHelper<T>::Value, ZELLogging> operator<<(
    ZELLogging log, T value)
{
    return zel_QMetaEnum_debugOperator(log, int(value), qt_getEnumMetaObject(value), qt_getEnumName(value));
}

/// Q_FLAG values by their keys, others by their bits.
template <class T>
ZELLogging operator<<(ZELLogging log, const QFlags<T> &flags)
{
    if constexpr (QtPrivate::IsQEnumHelper<T>::Value || QtPrivate::IsQEnumHelper<QFlags<T>>::Value)
        zel_QMetaEnum_flagDebugOperator(log, quint64(int(flags)), qt_getEnumMetaObject(T()), qt_getEnumName(T()));
    else
        zel_QMetaEnum_flagDebugOperator(log, sizeof(T), int(flags));
    return log.maybeSpace();
}

#endif
