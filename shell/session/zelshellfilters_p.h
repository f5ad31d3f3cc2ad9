// SPDX-License-Identifier: MIT
#ifndef ZELSHELLFILTERS_P_H
#define ZELSHELLFILTERS_P_H

#include "zelarguments.h"
#include "zellogging.h"
#include "zeltextfilter_p.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

class ZELShellPrivate;

/**
 * The filters of one statement, between its command's text and its way out. Shared by the record and the print hooks;
 * the text may come from several threads.
 */
class ZELStatementFilter
{
public:
    ZELStatementFilter(ZELTextFilterChain chain, int pageLines);

    /// What is to be printed now of a text.
    QString pass(const QString &text);
    /// What is left at the end; once. Text that comes later passes as it is.
    QString finish();
    /// Lines of a page when the text is paged, else 0.
    int pageLines() const { return m_pageLines; }
    /// The hook in front of another one.
    static ZELLogging::Hook before(
        const std::shared_ptr<ZELStatementFilter> &filter, const ZELArguments &args, const ZELLogging::Hook &next);

private:
    QString holdBack(const QString &text);

    std::mutex m_mutex;
    ZELTextFilterChain m_chain;
    const int m_pageLines;
    int m_shown = 0; ///< lines of the first page
    QString m_held;
    bool m_finished = false;
};

/**
 * Takes the filters off a statement whose record was just made, when they are switched on: the record's words and input
 * are those of the command from then on. Why they cannot be used, or nothing.
 */
QString zelTakeFilters(ZELShellPrivate &session, const QString &line, const ZELArguments &args);

/// Prints what a statement's filters still hold back, page by page where there is somebody to turn them.
void zelFinishFilters(ZELShellPrivate &session, const ZELArguments &args);
/// Prints a text that has been through the filters, as it is; nothing for none.
void zelPrintFiltered(const ZELArguments &args, const QString &text);

#endif
