// SPDX-License-Identifier: MIT
#ifndef ZELSCRIPTEVALUATOR_P_H
#define ZELSCRIPTEVALUATOR_P_H

#include "zelscript_p.h"

/// What a script works on: a session, or a test's stand-in.
class ZELScriptHost
{
public:
    struct Result
    {
        QVariant value;
        bool hasFailed = false;
        QString error;
        bool saysWhere = false; ///< the error names its own place: it comes out of a function
    };
    virtual ~ZELScriptHost() = default;
    /// Runs a statement as it would be typed.
    virtual Result run(const QString &statement) = 0;
    /// "NULL" for one that was never set.
    virtual QString variable(const QString &name) = 0;
    virtual void setVariable(const QString &name, const QString &value) = 0;
    virtual void define(const ZELScriptStep &function) = 0;
    /// Whether nothing more is to be run; also gives a kill or time limit its turn.
    virtual bool isEnding() = 0;
};

/**
 * Walks through the steps of a script, once. A statement that fails ends it, unless it was a condition or "onerror
 * continue" was said.
 */
class ZELScriptEvaluator
{
public:
    explicit ZELScriptEvaluator(ZELScriptHost &host);

    /// What "return" or else the last statement gave. What went wrong, with the line, stands in error() then.
    QVariant run(const ZELScriptBlock &script);
    QString error() const { return m_error; }
    /// Whether the error comes out of a function that was called, which has named the place.
    bool isPassedOn() const { return m_isPassedOn; }
    bool hasReturned() const { return m_hasReturned; }

private:
    enum Flow { Next, Break, Continue, End };

    Flow block(const ZELScriptBlock &block);
    Flow step(const ZELScriptStep &step);
    Flow statement(const ZELScriptStep &step);
    Flow assign(const ZELScriptStep &step);
    Flow branch(const ZELScriptStep &step);
    Flow whileLoop(const ZELScriptStep &step);
    Flow forEach(const ZELScriptStep &step);
    Flow leave(const ZELScriptStep &step);
    Flow fail(const ZELScriptStep &step, const QString &why, bool saysWhere = false);
    bool holds(const ZELScriptStep &step, Flow *flow);
    bool compute(const ZELScriptStep &step, QVariant *value, Flow *flow);
    void setLast(const QVariant &value);
    QString expanded(const QString &word);

    ZELScriptHost &m_host;
    const ZELScriptExpression::Lookup m_lookup;
    QVariant m_value;
    QString m_error;
    bool m_hasReturned = false;
    bool m_isPassedOn = false;
    bool m_goesOn = false; ///< after errors
};

#endif
