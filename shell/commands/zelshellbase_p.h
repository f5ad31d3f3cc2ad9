// SPDX-License-Identifier: MIT
#ifndef ZELSHELLBASE_P_H
#define ZELSHELLBASE_P_H

#include "zellife_p.h"
#include "zelshellbase.h"

#include <QMutex>

class ZELShellBasePrivate
{
public:
    explicit ZELShellBasePrivate(ZELShellBase *q)
        : life(q)
    {
    }
    QString text(QString ZELShellBasePrivate::*field);
    void setText(QString ZELShellBasePrivate::*field, const QString &value);

    ZELLife<ZELShellBase> life; ///< what argument records hold instead of a pointer
    QMutex mutex; ///< guards the texts: the host may set them while the core thread writes the banner
    QString productId;
    QString versionId;
    QString hardId;
    QString custom;
};

#endif
