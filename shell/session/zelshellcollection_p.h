// SPDX-License-Identifier: MIT
#ifndef ZELSHELLCOLLECTION_P_H
#define ZELSHELLCOLLECTION_P_H

#include "zelshellcollection.h"

#include <QList>

/// One lock serves all lists, so that a shell and its list may end at the same time on two threads.
class ZELShellCollectionPrivate
{
public:
    /// Takes a dying shell out of the list that it is in, if any.
    static void leave(ZELShell *shell);

    QList<ZELShell *> shells;
};

#endif
