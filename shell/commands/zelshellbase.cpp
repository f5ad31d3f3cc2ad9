// SPDX-License-Identifier: MIT
#include "zelshellbase_p.h"

#include "zelguard_p.h"

#include <QMutexLocker>

QString ZELShellBasePrivate::text(QString ZELShellBasePrivate::*field)
{
    ZELCriticalSection section;
    QMutexLocker lock(&mutex);
    return this->*field;
}

void ZELShellBasePrivate::setText(QString ZELShellBasePrivate::*field, const QString &value)
{
    ZELCriticalSection section;
    QMutexLocker lock(&mutex);
    this->*field = value;
}

ZELShellBase::ZELShellBase(QObject *parent)
    : QObject(parent)
    , d(new ZELShellBasePrivate(this))
{
}

ZELShellBase::~ZELShellBase()
{
    endLife();
}

void ZELShellBase::endLife()
{
    ZELCriticalSection section;
    d->life.end();
}

ZELShellCommandTree *ZELShellBase::getCommandTree(bool withSystem)
{
    Q_UNUSED(withSystem)
    return nullptr;
}

bool ZELShellBase::IsMain()
{
    return false;
}

QList<QPointer<ZELThread>> ZELShellBase::getRunnings()
{
    return {};
}

QString ZELShellBase::productId()
{
    return d->text(&ZELShellBasePrivate::productId);
}

void ZELShellBase::setProductId(QString id)
{
    d->setText(&ZELShellBasePrivate::productId, id);
}

QString ZELShellBase::versionId()
{
    return d->text(&ZELShellBasePrivate::versionId);
}

void ZELShellBase::setVersionId(QString id)
{
    d->setText(&ZELShellBasePrivate::versionId, id);
}

QString ZELShellBase::hardId()
{
    return d->text(&ZELShellBasePrivate::hardId);
}

void ZELShellBase::setHardId(QString id)
{
    d->setText(&ZELShellBasePrivate::hardId, id);
}

QString ZELShellBase::custom()
{
    return d->text(&ZELShellBasePrivate::custom);
}

void ZELShellBase::setCustomId(QString id)
{
    d->setText(&ZELShellBasePrivate::custom, id);
}
