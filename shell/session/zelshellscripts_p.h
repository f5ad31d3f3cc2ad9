// SPDX-License-Identifier: MIT
#ifndef ZELSHELLSCRIPTS_P_H
#define ZELSHELLSCRIPTS_P_H

#include "zelscript_p.h"

#include <QHash>
#include <mutex>

/// The functions that scripts of a session have defined. Any thread; holds no lock while one runs.
class ZELShellFunctions
{
public:
    void define(const ZELScriptStep &function);
    /// Null for a name without a function.
    std::shared_ptr<const ZELScriptStep> find(const QString &name) const;
    QStringList names() const;

private:
    mutable std::mutex m_mutex;
    QHash<QString, std::shared_ptr<const ZELScriptStep>> m_functions;
};

/// The statements of a line as it is typed: pieces between ";", also of those in quotes and brackets, unless a script
/// stands in it: a line with blocks is one, and "dostring" keeps its code together.
QStringList zelTypedStatements(const QString &line);

/// Whether one of the statements of a line begins a block, so that the line is a script's.
bool zelHasScriptBlock(const QString &line);

#endif
