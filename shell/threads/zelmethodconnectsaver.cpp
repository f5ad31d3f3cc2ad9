// SPDX-License-Identifier: MIT
#include "zelmethodconnectsaver.h"

ZELMethodConnectSaver::ZELMethodConnectSaver(QObject *parent)
    : QObject(parent)
{
}

ZELMethodConnectSaver::~ZELMethodConnectSaver()
{
    for (const QMetaObject::Connection &connection : qAsConst(m_connections))
        QObject::disconnect(connection);
}

ZELMethodConnectSaver &ZELMethodConnectSaver::operator<<(const QMetaObject::Connection &connection)
{
    m_connections.append(connection);
    return *this;
}

QMetaObject::Connection ZELMethodConnectSaver::connect(const QObject *sender, const QMetaMethod &signal,
    const QObject *receiver, const QMetaMethod &method, Qt::ConnectionType type)
{
    *this << QObject::connect(sender, signal, receiver, method, type);
    return m_connections.last();
}

QMetaObject::Connection ZELMethodConnectSaver::connect(
    const QObject *sender, const char *signal, const QObject *receiver, const char *method, Qt::ConnectionType type)
{
    *this << QObject::connect(sender, signal, receiver, method, type);
    return m_connections.last();
}

QMetaObject::Connection ZELMethodConnectSaver::connect(
    const QObject *sender, const char *signal, const char *method, Qt::ConnectionType type)
{
    return connect(sender, signal, this, method, type);
}
