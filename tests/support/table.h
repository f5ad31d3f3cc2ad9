// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_TABLE_H
#define TESTS_SUPPORT_TABLE_H

#include <QtTest>

/// The columns of a data function by type and name; called, it adds a row. Without a name of its own a row bears its
/// first value.
///
///     Table<QByteArray, int> row("line", "status");
///     row("quit", "quit\n", 0);
template <class First, class... Others>
class Table
{
public:
    template <class... Names>
    explicit Table(const char *first, Names... others)
    {
        QTest::addColumn<First>(first);
        (QTest::addColumn<Others>(others), ...);
    }
    void operator()(const char *name, const First &first, const Others &...others) const
    {
        ((QTest::newRow(name) << first) << ... << others);
    }
    void operator()(const char *first, const Others &...others) const { (*this)(first, First(first), others...); }
};

#endif
