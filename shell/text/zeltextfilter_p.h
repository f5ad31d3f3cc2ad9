// SPDX-License-Identifier: MIT
#ifndef ZELTEXTFILTER_P_H
#define ZELTEXTFILTER_P_H

#include <QString>
#include <QStringList>
#include <memory>
#include <vector>

/**
 * One step of what a command's text goes through, a line at a time. A line holds its end, "\r\n", "\n" or nothing at
 * the text's end. Used by one thread at a time.
 */
class ZELTextFilter
{
public:
    virtual ~ZELTextFilter() = default;
    /// What comes of a line now.
    virtual QString line(const QString &text) = 0;
    /// What is left when there are no more lines.
    virtual QString end() { return QString(); }

    /// The filter of a statement's words behind a bar, such as "head", "3"; null with a reason when there is none.
    static std::unique_ptr<ZELTextFilter> make(const QStringList &words, QString *problem);
};

/// Filters behind each other, fed with texts that may hold several lines, or parts of one.
class ZELTextFilterChain
{
public:
    void append(std::unique_ptr<ZELTextFilter> filter) { m_filters.push_back(std::move(filter)); }
    /// What comes of a piece of text now; a line whose end has not come is held back.
    QString pass(const QString &text);
    /// What is left.
    QString end();
    /// The last step pages what comes of it.
    bool pages = false;

private:
    QString run(const QString &line, size_t from);

    std::vector<std::unique_ptr<ZELTextFilter>> m_filters;
    QString m_partial;
};

/// A statement's parts between bars that stand between blanks, outside of quotes and brackets; one without any.
QStringList zelSplitAtBars(const QString &statement);

#endif
