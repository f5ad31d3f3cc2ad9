// SPDX-License-Identifier: MIT
#include "zellogging_p.h"

template <class T>
ZELLogging &ZELLogging::put(const T &value)
{
    d->formatter() << value;
    return maybeSpace();
}

ZELLogging &ZELLogging::operator<<(const char *text)
{
    d->append(QString::fromUtf8(text));
    return maybeSpace();
}

ZELLogging &ZELLogging::operator<<(const QString &text)
{
    return *this << QStringView(text);
}

ZELLogging &ZELLogging::operator<<(const QStringRef &text)
{
    return *this << QStringView(text);
}

ZELLogging &ZELLogging::operator<<(QStringView text)
{
    const QStringView mark(m_noQuote ? u"" : u"\"");
    d->append(mark);
    d->append(text);
    d->append(mark);
    return maybeSpace();
}

ZELLogging &ZELLogging::operator<<(QLatin1String text)
{
    return *this << QString(text);
}

ZELLogging &ZELLogging::operator<<(const QByteArray &text)
{
    return put(text);
}

ZELLogging &ZELLogging::operator<<(QChar c)
{
    return put(c);
}

ZELLogging &ZELLogging::operator<<(char c)
{
    return put(c);
}

ZELLogging &ZELLogging::operator<<(bool value)
{
    return put(QLatin1String(value ? "true" : "false"));
}

ZELLogging &ZELLogging::operator<<(short value)
{
    return put(value);
}

ZELLogging &ZELLogging::operator<<(unsigned short value)
{
    return put(value);
}

ZELLogging &ZELLogging::operator<<(int value)
{
    return put(value);
}

ZELLogging &ZELLogging::operator<<(unsigned int value)
{
    return put(value);
}

ZELLogging &ZELLogging::operator<<(long value)
{
    return put(value);
}

ZELLogging &ZELLogging::operator<<(unsigned long value)
{
    return put(value);
}

ZELLogging &ZELLogging::operator<<(qlonglong value)
{
    return put(value);
}

ZELLogging &ZELLogging::operator<<(qulonglong value)
{
    return put(value);
}

ZELLogging &ZELLogging::operator<<(float value)
{
    return put(value);
}

ZELLogging &ZELLogging::operator<<(double value)
{
    return put(value);
}

ZELLogging &ZELLogging::operator<<(const void *pointer)
{
    return put(pointer);
}

ZELLogging &ZELLogging::operator<<(std::nullptr_t)
{
    return put(QLatin1String("(nullptr)"));
}

template <class List>
ZELLogging &ZELLogging::putList(const List &list)
{
    const bool spaced = std::exchange(m_space, false);
    d->append(u"(");
    for (int i = 0; i < list.size(); ++i) {
        d->append(i ? u", " : u"");
        *this << list.at(i);
    }
    d->append(u")");
    m_space = spaced;
    return maybeSpace();
}

ZELLogging &ZELLogging::operator<<(const QStringList &list)
{
    return putList(list);
}

ZELLogging &ZELLogging::operator<<(const QVariant &value)
{
    switch (int(value.type())) {
    case QMetaType::Bool:
        return *this << value.toBool();
    case QMetaType::Int:
        return *this << value.toInt();
    case QMetaType::UInt:
        return *this << value.toUInt();
    case QMetaType::LongLong:
        return *this << value.toLongLong();
    case QMetaType::ULongLong:
        return *this << value.toULongLong();
    case QMetaType::Double:
        return *this << value.toDouble();
    case QMetaType::QString:
        return *this << value.toString();
    case QMetaType::QByteArray:
        return *this << value.toByteArray();
    case QMetaType::QStringList:
        return *this << value.toStringList();
    case QMetaType::QVariantList:
        return putList(value.toList());
    default:
        break;
    }
    const QByteArray type(value.isValid() ? value.typeName() : "Invalid");
    return put(value.canConvert(QMetaType::QString) ? value.toString() : QLatin1String("QVariant(" + type + ')'));
}

ZELLogging &ZELLogging::operator<<(QTextStreamFunction manipulator)
{
    d->formatter() << manipulator;
    return *this;
}

ZELLogging &ZELLogging::operator<<(QTextStreamManipulator manipulator)
{
    d->formatter() << manipulator;
    return *this;
}

ZELLogging zel_QMetaEnum_debugOperator(ZELLogging &dbg, int value, const QMetaObject *meta, const char *name)
{
    ZELLoggingSaver saver(dbg);
    const char *key = meta->enumerator(meta->indexOfEnumerator(name)).valueToKey(value);
    return key ? dbg << key : dbg << value;
}

ZELLogging zel_QMetaEnum_flagDebugOperator(ZELLogging &dbg, quint64 value, const QMetaObject *meta, const char *name)
{
    ZELLoggingSaver saver(dbg);
    const QMetaEnum flags = meta->enumerator(meta->indexOfEnumerator(name));
    dbg.nospace().noquote() << "QFlags<";
    if (const char *scope = flags.scope())
        dbg << scope << "::";
    return dbg << flags.name() << ">(" << flags.valueToKeys(int(value)) << ")";
}

void zel_QMetaEnum_flagDebugOperator(ZELLogging &dbg, size_t sizeofT, int value)
{
    dbg.nospace() << "QFlags(" << Qt::hex << Qt::showbase;
    bool first = true;
    for (size_t i = 0; i < 8 * sizeofT; ++i) {
        const uint bit = 1u << (i % 32);
        if (!(uint(value) & bit))
            continue;
        dbg << (first ? "" : "|") << bit;
        first = false;
    }
    dbg << ")";
}
