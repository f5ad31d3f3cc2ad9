// SPDX-License-Identifier: MIT
#include "zelshellfilters_p.h"

#include "zelarguments_p.h"
#include "zelshell_p.h"
#include "zelshellexpansion_p.h"
#include "zelshellloop_p.h"
#include "zelshellserverstate_p.h"

namespace {

// Of a terminal whose height nobody told.
const int defaultPageLines = 23;

/// The words of a filter without their quotes; the tag of a tagged line, which stands behind the last filter, is given
/// back to the command.
QStringList filterWords(const QString &part, QStringList *command)
{
    QStringList words;
    QStringList all = ZELArguments::CommandSplit(part, true, true);
    const int tag = all.indexOf(zelProtocolTag());
    if (tag >= 0) {
        *command += all.mid(tag);
        all = all.mid(0, tag);
    }
    for (const QString &word : qAsConst(all))
        words += zelIsQuoted(word) ? zelUnquoted(word) : word;
    return words;
}

/// The bars of a system command are the system's shell's.
bool runsSystem(const QStringList &words)
{
    const int at = words.value(1) == QLatin1String("=") ? 2 : 0;
    return ZELCommandWord(words.value(at)).name == QLatin1String("sys");
}

int pageLinesFor(ZELShellPrivate &session, const ZELArguments &args, const QString &lastFilter)
{
    const bool hasReader = !session.noTerminal && !args.IsBackground() && session.isCoreThread();
    return hasReader && lastFilter == QLatin1String("more") ? defaultPageLines : 0;
}

/// The end of the page that begins at `from`.
int endOfPage(const QString &text, int from, int lines)
{
    for (; lines > 0 && from >= 0 && from < text.size(); --lines) {
        const int end = text.indexOf(QLatin1Char('\n'), from);
        from = end < 0 ? text.size() : end + 1;
    }
    return from;
}

/// How many lines the next key asks for; 0 for no more.
int linesAskedFor(ZELShellPrivate &session, int page)
{
    session.output.write(QStringLiteral("--More--"));
    const char key = session.loop->getChar();
    session.output.write(QStringLiteral("\r\033[K"));
    if (key == '\r' || key == '\n')
        return 1;
    return key == ' ' ? page : 0;
}

void printPages(ZELShellPrivate &session, const QString &text, int page)
{
    int from = 0;
    while (from < text.size()) {
        const int lines = linesAskedFor(session, page);
        if (lines == 0)
            return;
        const int end = endOfPage(text, from, lines);
        session.output.write(text.mid(from, end - from));
        from = end;
    }
}

} // namespace

ZELStatementFilter::ZELStatementFilter(ZELTextFilterChain chain, int pageLines)
    : m_chain(std::move(chain))
    , m_pageLines(pageLines)
{
}

QString ZELStatementFilter::pass(const QString &text)
{
    const ZELServerLock lock(m_mutex);
    return m_finished ? text : holdBack(m_chain.pass(text));
}

/// The first page goes out as it comes. The rest waits for the command's end: a print of a command must not wait for a
/// key, during which nothing could end the command.
QString ZELStatementFilter::holdBack(const QString &text)
{
    if (m_pageLines == 0)
        return text;
    const int end = endOfPage(text, 0, m_pageLines - m_shown);
    m_shown += text.left(end).count(QLatin1Char('\n'));
    m_held += text.mid(end);
    return text.left(end);
}

QString ZELStatementFilter::finish()
{
    const ZELServerLock lock(m_mutex);
    if (std::exchange(m_finished, true))
        return QString();
    return std::exchange(m_held, QString()) + m_chain.end();
}

ZELLogging::Hook ZELStatementFilter::before(
    const std::shared_ptr<ZELStatementFilter> &filter, const ZELArguments &args, const ZELLogging::Hook &next)
{
    // The bare record, as in the other hooks: a handle would keep it alive for ever.
    return [filter, next, record = ZELArgumentsPrivate::get(args)](const QString &text) {
        const bool completes = ZELArgumentsPrivate::completing == record;
        const QString passed = completes ? text : filter->pass(text);
        return passed.isEmpty() || !next ? passed : next(passed);
    };
}

QString zelTakeFilters(ZELShellPrivate &session, const QString &line, const ZELArguments &args)
{
    if (!session.server->settings()->filters || !line.contains(QLatin1Char('|')))
        return QString();
    const QStringList parts = zelSplitAtBars(line);
    QStringList words = ZELArguments::CommandSplit(parts.first(), true, true);
    if (parts.size() == 1 || words.isEmpty() || runsSystem(words))
        return QString();
    ZELTextFilterChain chain;
    QString problem;
    QStringList last;
    for (const QString &part : parts.mid(1)) {
        last = filterWords(part, &words);
        auto filter = ZELTextFilter::make(last, &problem);
        if (!filter)
            return problem;
        chain.append(std::move(filter));
    }
    ZELArgumentsPrivate *const record = ZELArgumentsPrivate::get(args);
    const bool isTagged = words.contains(zelProtocolTag());
    record->arguments = words;
    record->allInput = parts.first().trimmed();
    record->filter = std::make_shared<ZELStatementFilter>(
        std::move(chain), isTagged ? 0 : pageLinesFor(session, args, last.value(0)));
    return QString();
}

void zelFinishFilters(ZELShellPrivate &session, const ZELArguments &args)
{
    const auto filter = ZELArgumentsPrivate::get(args)->filter;
    const QString left = filter ? filter->finish() : QString();
    if (!left.isEmpty() && filter->pageLines() > 0 && session.isCoreThread())
        return printPages(session, left, filter->pageLines());
    zelPrintFiltered(args, left);
}

void zelPrintFiltered(const ZELArguments &args, const QString &text)
{
    if (!text.isEmpty())
        args.debug().noquote().nospace().noNewLine() << text;
}
