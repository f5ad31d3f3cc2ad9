// SPDX-License-Identifier: MIT
#include "zelcommandsignature_p.h"

#include "zelcommandwords_p.h"
#include "zelshellexpansion_p.h"

namespace {

using Type = ZELCommandType;
using Parameter = ZELCommandParameter;

bool isOptionName(const QString &word)
{
    return word.size() > 1 && word.startsWith(QLatin1Char('-'))
        && (word.at(1).isLetter() || word.startsWith(QLatin1String("--")));
}

bool isEquals(const QStringList &words, int at)
{
    return at < words.size() && words.at(at) == QLatin1String("=");
}

QString inQuotes(const QString &word)
{
    return QLatin1Char('\'') + word + QLatin1Char('\'');
}

/// The way of the words of one line through the parameters.
class Binding
{
public:
    Binding(const ZELCommandSignature &signature, const QStringList &words, ZELCommandValues &values)
        : m_signature(signature)
        , m_words(words)
        , m_values(values)
        , m_at(1)
    {
    }

    QString run()
    {
        m_values.resize(m_signature.parameters.size());
        while (m_problem.isEmpty() && m_at < m_words.size())
            takeWord();
        if (m_problem.isEmpty())
            finish();
        return m_problem;
    }

    /// Goes to the last word without converting any; the parameter that this one stands for.
    const Parameter *last()
    {
        m_converts = false;
        m_values.resize(m_signature.parameters.size());
        while (m_problem.isEmpty() && m_at < m_words.size())
            takeWord();
        return m_last;
    }

private:
    void takeWord()
    {
        const QString &word = m_words.at(m_at);
        m_last = nullptr;
        if (m_onlyArguments || !isOptionName(word) || !m_signature.hasOptions())
            takeArgument(word);
        else if (word == QLatin1String("--"))
            endOptions();
        else
            takeOption(word);
    }

    void endOptions()
    {
        m_onlyArguments = true;
        ++m_at;
    }

    void takeArgument(const QString &word)
    {
        ++m_at;
        const int index = nextArgument();
        if (index < 0)
            return tooMany();
        const Parameter &parameter = m_signature.parameters.at(index);
        QString text = word;
        // The padding of base64, which the splitter has cut off.
        for (int padding = 0; padding < 2 && parameter.type.kind == Type::Bytes && isEquals(m_words, m_at);
             ++padding, ++m_at)
            text += QLatin1Char('=');
        convert(parameter, text, m_values[index]);
        if (!parameter.type.isList)
            m_argument = index + 1;
    }

    /// The next parameter that is no option; -1 for none.
    int nextArgument()
    {
        const auto &parameters = m_signature.parameters;
        while (m_argument < parameters.size() && parameters.at(m_argument).isOption)
            ++m_argument;
        return m_argument < parameters.size() ? m_argument : -1;
    }

    void tooMany()
    {
        int most = 0;
        for (const Parameter &parameter : m_signature.parameters)
            most += !parameter.isOption;
        m_problem = most == 0 ? QStringLiteral("takes no arguments, '%1' is one")
                              : QStringLiteral("takes no more arguments, '%1' is one too many");
        m_problem = m_problem.arg(m_words.at(m_at - 1));
    }

    void takeOption(const QString &word)
    {
        const Parameter *option = m_signature.option(word);
        ++m_at;
        if (!option)
            return unknown(word);
        ZELCommandValue &value = m_values[int(option - m_signature.parameters.constData())];
        if (value.given && !option->type.isList)
            return setProblem(word + QLatin1String(" is given twice"));
        const bool hasEquals = isEquals(m_words, m_at);
        m_at += hasEquals;
        if (option->isFlag() && !hasEquals) {
            value.given = true;
            value.integer = 1;
            return;
        }
        takeOptionValue(word, *option, value, hasEquals);
    }

    void takeOptionValue(const QString &word, const Parameter &option, ZELCommandValue &value, bool hasEquals)
    {
        const bool isMissing = m_at >= m_words.size() || (!hasEquals && m_signature.option(m_words.at(m_at)));
        if (isMissing) {
            m_last = m_at >= m_words.size() && hasEquals ? &option : nullptr;
            return setProblem(QStringLiteral("%1 must be followed by %2").arg(word, option.typeText()));
        }
        convert(option, m_words.at(m_at++), value);
    }

    void unknown(const QString &word)
    {
        QStringList names;
        for (const Parameter &parameter : m_signature.parameters)
            if (parameter.isOption)
                names += parameter.names;
        setProblem(QStringLiteral("there is no option %1").arg(inQuotes(word)) + zelSuggestion(word, names));
    }

    void convert(const Parameter &parameter, const QString &word, ZELCommandValue &value)
    {
        m_last = &parameter;
        if (!m_converts) {
            value.given = true;
            return;
        }
        const QString plain = zelIsQuoted(word) ? zelUnquoted(word) : word;
        ZELCommandValue element;
        const QString expected = zelConvertWord(parameter, plain, parameter.type.isList ? element : value);
        if (!expected.isEmpty())
            return setProblem(QStringLiteral("%1 must be %2, not %3").arg(parameter.name(), expected, inQuotes(plain))
                + zelSuggestion(plain, parameter.words()));
        if (parameter.type.isList)
            value.list.append(std::move(element));
        value.given = true;
    }

    void finish()
    {
        for (int i = 0; i < m_values.size() && m_problem.isEmpty(); ++i) {
            const Parameter &parameter = m_signature.parameters.at(i);
            if (!m_values[i].given && parameter.defaultValue)
                m_values[i] = *parameter.defaultValue;
            else if (!m_values[i].given && parameter.isRequired())
                setProblem(QStringLiteral("%1 is missing: %2").arg(parameter.name(), parameter.typeText()));
            else if (parameter.type.isList && parameter.range)
                checkCount(parameter, m_values[i].list.size());
        }
    }

    void checkCount(const Parameter &parameter, int count)
    {
        const auto &range = *parameter.range;
        if (count < range.first.integer || count > range.second.integer)
            setProblem(QStringLiteral("%1 takes %2 to %3 words, not %4")
                           .arg(parameter.name(), parameter.leastText(), parameter.mostText())
                           .arg(count));
    }

    void setProblem(const QString &text) { m_problem = text; }

    const ZELCommandSignature &m_signature;
    const QStringList &m_words;
    ZELCommandValues &m_values;
    QString m_problem;
    const Parameter *m_last = nullptr;
    int m_at;
    int m_argument = 0;
    bool m_onlyArguments = false;
    bool m_converts = true;
};

void completeChoices(Parameter &parameter)
{
    const QMetaEnum &names = parameter.type.names;
    if (parameter.choices.isEmpty())
        for (int i = 0; i < names.keyCount(); ++i)
            parameter.choices.append(ZELCommandChoice(ZELCommandText(names.key(i)), names.value(i)));
}

/// Empty for a default that fits, and for none.
QString completeDefault(Parameter &parameter)
{
    if (!parameter.defaultWord)
        return QString();
    ZELCommandValue value;
    const QString expected = zelConvertWord(parameter, *parameter.defaultWord, value);
    if (!expected.isEmpty()) {
        const QString word = *parameter.defaultWord;
        parameter.defaultWord.reset();
        return QStringLiteral("the default of %1 must be %2, not '%3'").arg(parameter.name(), expected, word);
    }
    if (parameter.type.isList) {
        ZELCommandValue list;
        list.given = true;
        list.list.append(value);
        value = list;
    }
    parameter.defaultValue = value;
    return QString();
}

QString usageOf(const Parameter &parameter)
{
    QString text = parameter.name();
    if (parameter.isOption && !parameter.isFlag())
        text += QLatin1Char(' ')
            + (parameter.choices.isEmpty() ? parameter.typeName().toUpper() : parameter.words().join(QLatin1Char('|')));
    if (parameter.type.isList)
        text += QLatin1String("...");
    return parameter.isRequired() ? text : QLatin1Char('[') + text + QLatin1Char(']');
}

} // namespace

bool ZELCommandParameter::isRequired() const
{
    if (type.isList)
        return range && range->first.integer > 0 && !defaultWord;
    return !type.isOptional && !defaultWord && !isFlag();
}

QStringList ZELCommandSignature::complete()
{
    QStringList problems;
    for (int i = 0; i < parameters.size(); ++i) {
        Parameter &parameter = parameters[i];
        if (parameter.names.isEmpty())
            parameter.names += QStringLiteral("arg%1").arg(i + 1);
        completeChoices(parameter);
        problems += completeDefault(parameter);
        if (parameter.type.kind == Type::Choice && parameter.choices.isEmpty())
            problems += parameter.name() + QLatin1String(" is an enum without Q_ENUM and needs choices()");
    }
    bool isLeftOut = false; // an argument that may be, and those behind it then, too
    for (const Parameter &parameter : qAsConst(parameters)) {
        if (!parameter.isOption && isLeftOut && parameter.isRequired())
            problems += parameter.name() + QLatin1String(" stands behind an argument that may be left out");
        isLeftOut = isLeftOut || (!parameter.isOption && (!parameter.isRequired() || parameter.type.isList));
    }
    problems.removeAll(QString());
    return problems;
}

QString ZELCommandSignature::bind(const QStringList &words, ZELCommandValues &values) const
{
    return Binding(*this, words, values).run();
}

const ZELCommandParameter *ZELCommandSignature::parameterOf(const QStringList &words) const
{
    ZELCommandValues values;
    return Binding(*this, words, values).last();
}

const ZELCommandParameter *ZELCommandSignature::option(const QString &name) const
{
    for (const Parameter &parameter : parameters)
        if (parameter.hasName(name))
            return &parameter;
    return nullptr;
}

bool ZELCommandSignature::hasOptions() const
{
    bool hasRest = false;
    for (const Parameter &parameter : parameters) {
        if (parameter.isOption)
            return true;
        hasRest = hasRest || parameter.type.isList;
    }
    return !hasRest; // what takes any words takes those, too
}

QString ZELCommandSignature::usage() const
{
    QStringList words;
    for (const Parameter &parameter : parameters)
        if (!parameter.isOption)
            words += usageOf(parameter);
    for (const Parameter &parameter : parameters)
        if (parameter.isOption)
            words += usageOf(parameter);
    return words.join(QLatin1Char(' '));
}
