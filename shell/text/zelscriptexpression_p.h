// SPDX-License-Identifier: MIT
#ifndef ZELSCRIPTEXPRESSION_P_H
#define ZELSCRIPTEXPRESSION_P_H

#include <QString>
#include <QVariant>
#include <QVector>
#include <functional>
#include <memory>
#include <optional>

/// Where a text is at odds with the grammar, from 1, and what should have stood there.
struct ZELScriptError
{
    int line = 1;
    int column = 1;
    QString expected;
    /// "line 3, column 7: expected ')'".
    QString toString() const;
};

/**
 * What a script computes between round brackets: whole numbers of 64 bits, numbers with a fraction, text in quotes,
 * variables; "+ - * / %", comparisons, "&& || !", brackets. As in C what binds how.
 *
 * Text that reads as a number is one. "+" joins what are not both numbers; comparisons are by number when both sides
 * are, else by text. Pure; a parsed expression may be evaluated by several threads at once.
 */
class ZELScriptExpression
{
public:
    using Lookup = std::function<QString(const QString &variable)>;
    using Pointer = std::shared_ptr<const ZELScriptExpression>;

    /// Null, with the place counted from the beginning of the text in \a offset, when it is no expression.
    static Pointer parse(const QString &text, int *offset, QString *expected);
    /// A text, a qlonglong or a double; invalid, with the reason, for what cannot be computed.
    QVariant evaluate(const Lookup &lookup, QString *error) const;

private:
    friend class ZELScriptExpressionParser;
    enum Kind {
        Constant,
        Variable,
        Not,
        Negate,
        And,
        Or,
        Multiply,
        Divide,
        Remainder,
        Add,
        Subtract,
        Less,
        LessOrEqual,
        Greater,
        GreaterOrEqual,
        Equal,
        NotEqual
    };

    Kind m_kind = Constant;
    QVariant m_constant;
    QString m_variable;
    Pointer m_left;
    Pointer m_right;
};

/// The number that a text or value is; invalid for none.
QVariant zelScriptNumber(const QVariant &value);
/// False for what is empty, 0, "false" or "NULL".
bool zelScriptTruth(const QVariant &value);

#endif
