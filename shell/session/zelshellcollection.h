// SPDX-License-Identifier: MIT
#ifndef ZELSHELLCOLLECTION_H
#define ZELSHELLCOLLECTION_H

#include "zelshell_export.h"

#include <memory>

class ZELShell;
class ZELShellCollectionPrivate;

/**
 * The list of live shells.
 *
 * Owner: the server; shells are not owned and take themselves out when they are destroyed.
 * Threads: every function may be called from any thread.
 */
class ZELSHELL_EXPORT ZELShellCollection
{
public:
    ZELShellCollection();
    /// The shells that are still in the list forget their container and live on.
    ~ZELShellCollection();
    ZELShellCollection(const ZELShellCollection &) = delete;
    ZELShellCollection &operator=(const ZELShellCollection &) = delete;

    /// Gives the shell a fresh index, adds it and becomes its container.
    void append(ZELShell *shell);
    /// Takes out the first occurrence; the shell then has no container.
    void remove(ZELShell *shell);
    int length() const;

private:
    friend class ZELShellCollectionPrivate;
    std::unique_ptr<ZELShellCollectionPrivate> d;
};

#endif
