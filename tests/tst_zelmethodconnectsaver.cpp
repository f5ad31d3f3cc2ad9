// SPDX-License-Identifier: MIT
#include "zelmethodconnectsaver.h"

#include <QtTest>
#include <memory>

class CountingSaver : public ZELMethodConnectSaver
{
    Q_OBJECT
public:
    int count = 0;
public Q_SLOTS:
    void hit() { ++count; }
};

class tst_ZELMethodConnectSaver : public QObject
{
    Q_OBJECT
public:
    int hits = 0;
public Q_SLOTS:
    void hit() { ++hits; }
Q_SIGNALS:
    void fired();
private Q_SLOTS:
    void breaksEveryKindOfConnection()
    {
        tst_ZELMethodConnectSaver sender, receiver;
        const QMetaObject *meta = sender.metaObject();
        auto saver = std::make_unique<CountingSaver>();
        *saver << QObject::connect(&sender, &tst_ZELMethodConnectSaver::fired, [&] { receiver.hit(); })
               << QMetaObject::Connection();
        QVERIFY(saver->connect(&sender, SIGNAL(fired()), &receiver, SLOT(hit()), Qt::DirectConnection));
        QVERIFY(saver->connect(&sender, meta->method(meta->indexOfSignal("fired()")), &receiver,
            meta->method(meta->indexOfSlot("hit()")), Qt::DirectConnection));
        QVERIFY(saver->connect(&sender, SIGNAL(fired()), SLOT(hit()), Qt::DirectConnection));
        Q_EMIT sender.fired();
        QCOMPARE(receiver.hits, 3);
        QCOMPARE(saver->count, 1);
        saver.reset();
        Q_EMIT sender.fired();
        QCOMPARE(receiver.hits, 3);
    }
};

QTEST_GUILESS_MAIN(tst_ZELMethodConnectSaver)
#include "tst_zelmethodconnectsaver.moc"
