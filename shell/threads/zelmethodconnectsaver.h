// SPDX-License-Identifier: MIT
#ifndef ZELMETHODCONNECTSAVER_H
#define ZELMETHODCONNECTSAVER_H

#include "zelshell_export.h"

#include <QList>
#include <QMetaMethod>
#include <QObject>

/**
 * Owns Qt connections and breaks them all, in the order they were added, when it is destroyed.
 *
 * Destroy it in a thread where disconnecting the senders is safe. It is not locked: add connections from one thread.
 *
 *     auto saver = new ZELMethodConnectSaver(dialog);
 *     *saver << QObject::connect(device, &Device::changed, [=] { redraw(); });
 *     saver->connect(device, SIGNAL(closed()), dialog, SLOT(reject()));
 */
class ZELSHELL_EXPORT ZELMethodConnectSaver : public QObject
{
    Q_OBJECT
public:
    explicit ZELMethodConnectSaver(QObject *parent = nullptr);
    ~ZELMethodConnectSaver() override;

    /// Takes over a connection that was made elsewhere.
    ZELMethodConnectSaver &operator<<(const QMetaObject::Connection &connection);

    /// Connects as QObject::connect does and owns the result, which is returned.
    QMetaObject::Connection connect(const QObject *sender, const QMetaMethod &signal, const QObject *receiver,
        const QMetaMethod &method, Qt::ConnectionType type = Qt::AutoConnection);
    QMetaObject::Connection connect(const QObject *sender, const char *signal, const QObject *receiver,
        const char *method, Qt::ConnectionType type = Qt::AutoConnection);
    /// Connects to a slot of the saver itself, for classes derived from it.
    QMetaObject::Connection connect(
        const QObject *sender, const char *signal, const char *method, Qt::ConnectionType type = Qt::AutoConnection);

private:
    QList<QMetaObject::Connection> m_connections;
};

#endif
