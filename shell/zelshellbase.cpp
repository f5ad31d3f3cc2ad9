// SPDX-License-Identifier: MIT
#include "zelshellbase_p.h"

#include <QMutexLocker>

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
    QMutexLocker lock(&d->mutex);
    return d->productId;
}

void ZELShellBase::setProductId(QString id)
{
    QMutexLocker lock(&d->mutex);
    d->productId = id;
}

QString ZELShellBase::versionId()
{
    QMutexLocker lock(&d->mutex);
    return d->versionId;
}

void ZELShellBase::setVersionId(QString id)
{
    QMutexLocker lock(&d->mutex);
    d->versionId = id;
}

QString ZELShellBase::hardId()
{
    QMutexLocker lock(&d->mutex);
    return d->hardId;
}

void ZELShellBase::setHardId(QString id)
{
    QMutexLocker lock(&d->mutex);
    d->hardId = id;
}

QString ZELShellBase::custom()
{
    QMutexLocker lock(&d->mutex);
    return d->custom;
}

void ZELShellBase::setCustomId(QString id)
{
    QMutexLocker lock(&d->mutex);
    d->custom = id;
}
