// SPDX-License-Identifier: MIT
#ifndef ZELSCRIPT_P_H
#define ZELSCRIPT_P_H

#include "zelscriptexpression_p.h"

#include <QStringList>

struct ZELScriptBlock;
using ZELScriptBody = std::shared_ptr<const ZELScriptBlock>;

/// What is computed, or else a statement as one would type it: of conditions, of "return", behind "=".
struct ZELScriptValue
{
    ZELScriptExpression::Pointer expression;
    QString statement;
};

/// One step of a script. What its kind does not need is empty.
struct ZELScriptStep
{
    enum Kind {
        Statement, ///< value.statement
        Assign, ///< name = value.expression
        If, ///< value decides between body and otherwise
        While, ///< value, body, and after each round the step behind
        ForEach, ///< name is each of words in turn
        Function, ///< name with the parameters in words
        Break,
        Continue,
        Return, ///< value; words as they stand
        OnError, ///< name is "continue" or "stop"
        Block ///< body, for what a "for" begins with
    };
    Kind kind = Statement;
    int line = 1;
    QString name;
    QStringList words;
    ZELScriptValue value;
    ZELScriptBody body;
    ZELScriptBody otherwise;
    std::shared_ptr<const ZELScriptStep> behind;
};

struct ZELScriptBlock
{
    QVector<ZELScriptStep> steps;
};

/**
 * The steps of a script's text; null, with the place and what was expected there, when it is at odds with the grammar.
 *
 * Statements end at a line feed or ";" outside of quotes and brackets; "#" begins a comment where a statement could
 * begin. See docs/scripts.md for the grammar. Pure, linear in the length of the text; at most 256 blocks deep.
 */
ZELScriptBody zelParseScript(const QString &text, ZELScriptError *error);

/// Whether the first word and what follows it begin a block of a script ("if (", "while (", "for", "function NAME").
bool zelBeginsScriptBlock(const QString &text);
/// Whether a script's text is not at its end yet: a quote or bracket is open, or a block's "{" is still to come.
bool zelIsOpenScript(const QString &text);

#endif
