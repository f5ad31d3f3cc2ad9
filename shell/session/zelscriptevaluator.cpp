// SPDX-License-Identifier: MIT
#include "zelscriptevaluator_p.h"

#include "zelcommandsplit_p.h"
#include "zelshellexpansion_p.h"

namespace {

constexpr int longestText = 1 << 20;

} // namespace

ZELScriptEvaluator::ZELScriptEvaluator(ZELScriptHost &host)
    : m_host(host)
    , m_lookup([&host](const QString &name) { return host.variable(name); })
{
}

QVariant ZELScriptEvaluator::run(const ZELScriptBlock &script)
{
    block(script);
    return m_value;
}

ZELScriptEvaluator::Flow ZELScriptEvaluator::block(const ZELScriptBlock &block)
{
    for (const ZELScriptStep &each : block.steps) {
        if (m_host.isEnding())
            return End;
        const Flow flow = step(each);
        if (flow != Next)
            return flow;
    }
    return Next;
}

ZELScriptEvaluator::Flow ZELScriptEvaluator::step(const ZELScriptStep &step)
{
    switch (step.kind) {
    case ZELScriptStep::Statement:
        return statement(step);
    case ZELScriptStep::Assign:
        return assign(step);
    case ZELScriptStep::If:
        return branch(step);
    case ZELScriptStep::While:
        return whileLoop(step);
    case ZELScriptStep::ForEach:
        return forEach(step);
    case ZELScriptStep::Function:
        m_host.define(step);
        return Next;
    case ZELScriptStep::Break:
        return Break;
    case ZELScriptStep::Continue:
        return Continue;
    case ZELScriptStep::Return:
        return leave(step);
    case ZELScriptStep::OnError:
        m_goesOn = step.name == QLatin1String("continue");
        return Next;
    case ZELScriptStep::Block:
        return block(*step.body);
    }
    return Next;
}

ZELScriptEvaluator::Flow ZELScriptEvaluator::fail(const ZELScriptStep &step, const QString &why, bool saysWhere)
{
    if (m_goesOn)
        return Next;
    m_error = saysWhere ? why : QStringLiteral("line %1: ").arg(step.line) + why;
    m_isPassedOn = saysWhere;
    m_value = QVariant();
    return End;
}

void ZELScriptEvaluator::setLast(const QVariant &value)
{
    m_value = value;
    m_host.setVariable(QStringLiteral("$?"), value.toString());
}

ZELScriptEvaluator::Flow ZELScriptEvaluator::statement(const ZELScriptStep &step)
{
    const ZELScriptHost::Result result = m_host.run(step.value.statement);
    setLast(result.value);
    return result.hasFailed && !m_host.isEnding() ? fail(step, result.error, result.saysWhere) : Next;
}

bool ZELScriptEvaluator::compute(const ZELScriptStep &step, QVariant *value, Flow *flow)
{
    QString error;
    *value = step.value.expression->evaluate(m_lookup, &error);
    *flow = value->isValid() ? Next : fail(step, error);
    return value->isValid();
}

ZELScriptEvaluator::Flow ZELScriptEvaluator::assign(const ZELScriptStep &step)
{
    QVariant value;
    Flow flow = Next;
    if (compute(step, &value, &flow))
        m_host.setVariable(step.name, value.toString());
    return flow;
}

/// False also where the script is to end, as the flow says then.
bool ZELScriptEvaluator::holds(const ZELScriptStep &step, Flow *flow)
{
    *flow = Next;
    if (step.value.expression) {
        QVariant value;
        return compute(step, &value, flow) && zelScriptTruth(value);
    }
    if (step.value.statement.isEmpty())
        return true;
    const ZELScriptHost::Result result = m_host.run(step.value.statement);
    setLast(result.value);
    return !result.hasFailed && zelScriptTruth(result.value);
}

ZELScriptEvaluator::Flow ZELScriptEvaluator::branch(const ZELScriptStep &step)
{
    Flow flow = Next;
    if (holds(step, &flow))
        return block(*step.body);
    return flow == Next && step.otherwise ? block(*step.otherwise) : flow;
}

ZELScriptEvaluator::Flow ZELScriptEvaluator::whileLoop(const ZELScriptStep &step)
{
    Flow flow = Next;
    while (!m_host.isEnding() && holds(step, &flow)) {
        flow = block(*step.body);
        if (flow == End)
            return End;
        if (flow == Break)
            return Next;
        if (step.behind && this->step(*step.behind) == End)
            return End;
    }
    return m_host.isEnding() ? End : flow;
}

ZELScriptEvaluator::Flow ZELScriptEvaluator::forEach(const ZELScriptStep &step)
{
    for (const QString &word : step.words) {
        m_host.setVariable(step.name, expanded(word));
        const Flow flow = block(*step.body);
        if (flow == End)
            return End;
        if (flow == Break)
            break;
    }
    return Next;
}

QString ZELScriptEvaluator::expanded(const QString &word)
{
    const QString text = zelExpandWord(word, m_lookup, longestText);
    return word.startsWith(QLatin1Char('"')) || word.startsWith(QLatin1Char('\'')) ? zelUnquoted(text) : text;
}

ZELScriptEvaluator::Flow ZELScriptEvaluator::leave(const ZELScriptStep &step)
{
    Flow flow = Next;
    QVariant value;
    if (step.value.expression && !compute(step, &value, &flow))
        return flow;
    if (!step.value.expression) {
        QStringList words;
        for (const QString &word : zelSplitCommandLine(step.value.statement, true, true))
            words += expanded(word);
        value = words.join(QLatin1Char(' '));
    }
    m_value = value;
    m_hasReturned = true;
    return End;
}
