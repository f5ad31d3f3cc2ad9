// SPDX-License-Identifier: MIT
#include "zelshellcollection_p.h"

#include "zelshell.h"
#include "zelshellstate_p.h"

namespace {

std::mutex collectionsMutex;

} // namespace

ZELShellCollection::ZELShellCollection()
    : d(new ZELShellCollectionPrivate)
{
}

ZELShellCollection::~ZELShellCollection()
{
    ZELSessionLock lock(collectionsMutex);
    for (ZELShell *shell : qAsConst(d->shells))
        shell->setParentContainer(nullptr);
}

void ZELShellCollection::append(ZELShell *shell)
{
    ZELSessionLock lock(collectionsMutex);
    shell->setShellIndex(QUuid::createUuid());
    d->shells.append(shell);
    shell->setParentContainer(this);
}

void ZELShellCollection::remove(ZELShell *shell)
{
    ZELSessionLock lock(collectionsMutex);
    if (d->shells.removeOne(shell))
        shell->setParentContainer(nullptr);
}

int ZELShellCollection::length() const
{
    ZELSessionLock lock(collectionsMutex);
    return d->shells.size();
}

void ZELShellCollectionPrivate::leave(ZELShell *shell)
{
    ZELSessionLock lock(collectionsMutex);
    if (ZELShellCollection *collection = shell->parentContainer())
        collection->d->shells.removeOne(shell);
    shell->setParentContainer(nullptr);
}
