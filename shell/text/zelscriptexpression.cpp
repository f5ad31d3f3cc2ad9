// SPDX-License-Identifier: MIT
#include "zelscriptexpression_p.h"

#include <cmath>
#include <limits>

namespace {

constexpr int deepest = 256;

bool isNameCharacter(QChar c)
{
    return c.isLetterOrNumber() || c == QLatin1Char('_') || c == QLatin1Char('.');
}

QVariant problem(QString *error, const char *text)
{
    *error = QLatin1String(text);
    return QVariant();
}

bool isWhole(const QVariant &number)
{
    return number.type() == QVariant::LongLong;
}

} // namespace

QString ZELScriptError::toString() const
{
    return QStringLiteral("line %1, column %2: expected ").arg(line).arg(column) + expected;
}

QVariant zelScriptNumber(const QVariant &value)
{
    if (isWhole(value) || value.type() == QVariant::Double)
        return value;
    const QString text = value.toString();
    if (text.isEmpty() || text.size() > 64 || text.at(0).isSpace() || text.at(text.size() - 1).isSpace())
        return QVariant();
    bool isNumber = false;
    const bool isHex = text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive);
    const qlonglong whole = text.toLongLong(&isNumber, isHex ? 16 : 10);
    if (isNumber)
        return whole;
    const double real = text.toDouble(&isNumber);
    return isNumber && std::isfinite(real) && !text.contains(QLatin1Char('n'), Qt::CaseInsensitive) ? QVariant(real)
                                                                                                    : QVariant();
}

bool zelScriptTruth(const QVariant &value)
{
    if (value.type() == QVariant::Bool)
        return value.toBool();
    const QVariant number = zelScriptNumber(value);
    if (number.isValid())
        return isWhole(number) ? number.toLongLong() != 0 : number.toDouble() != 0;
    const QString text = value.toString();
    return !text.isEmpty() && text != QLatin1String("false") && text != QLatin1String("NULL");
}

/// By recursive descent, a level for each strength of binding.
class ZELScriptExpressionParser
{
public:
    using Pointer = ZELScriptExpression::Pointer;
    using Expression = ZELScriptExpression;
    explicit ZELScriptExpressionParser(const QString &text)
        : m_text(text)
    {
    }

    Pointer whole()
    {
        Pointer found = level(0);
        if (found && peek() != QChar())
            return fail("an operator or ')'");
        return found;
    }
    int at() const { return m_at; }
    const QString &expected() const { return m_expected; }

private:
    struct Operator
    {
        const char *sign;
        Expression::Kind kind;
    };
    static constexpr Operator operators[6][5] = {{{"||", Expression::Or}}, {{"&&", Expression::And}},
        {{"==", Expression::Equal}, {"!=", Expression::NotEqual}},
        {{"<=", Expression::LessOrEqual}, {">=", Expression::GreaterOrEqual}, {"<", Expression::Less},
            {">", Expression::Greater}},
        {{"+", Expression::Add}, {"-", Expression::Subtract}},
        {{"*", Expression::Multiply}, {"/", Expression::Divide}, {"%", Expression::Remainder}}};

    Pointer fail(const char *expected)
    {
        if (m_expected.isEmpty())
            m_expected = QLatin1String(expected);
        return nullptr;
    }
    QChar peek()
    {
        while (m_at < m_text.size() && m_text.at(m_at).isSpace())
            ++m_at;
        return m_at < m_text.size() ? m_text.at(m_at) : QChar();
    }
    bool take(const char *sign)
    {
        peek();
        const QLatin1String token(sign);
        if (m_text.midRef(m_at, token.size()) != token)
            return false;
        m_at += token.size();
        return true;
    }
    const Operator *takeOperator(int strength)
    {
        for (const Operator &each : operators[strength])
            if (each.sign && take(each.sign))
                return &each;
        return nullptr;
    }

    Pointer level(int strength)
    {
        if (strength == 6)
            return unary();
        Pointer left = level(strength + 1);
        for (const Operator *found; left && (found = takeOperator(strength));) {
            auto joined = std::make_shared<Expression>();
            joined->m_kind = found->kind;
            joined->m_left = std::move(left);
            joined->m_right = level(strength + 1);
            // A long row of operators is as deep a tree, which is evaluated and freed by as many calls.
            if (++m_size > 4096)
                return fail("fewer operators");
            left = joined->m_right ? Pointer(joined) : nullptr;
        }
        return left;
    }

    Pointer unary()
    {
        const bool inverts = take("!");
        if (auto found = inverts ? nullptr : negativeNumber())
            return found;
        if (!inverts && !take("-"))
            return operand();
        if (++m_depth > deepest)
            return fail("less nesting");
        auto applied = std::make_shared<Expression>();
        applied->m_kind = inverts ? Expression::Not : Expression::Negate;
        applied->m_left = unary();
        --m_depth;
        return applied->m_left ? Pointer(applied) : nullptr;
    }

    /// With its sign, since the least whole number is none without it; null for anything else.
    Pointer negativeNumber()
    {
        auto found = std::make_shared<Expression>();
        return peek() == QLatin1Char('-') && number(*found) ? found : nullptr;
    }

    Pointer operand()
    {
        const QChar c = peek();
        if (c == QLatin1Char('('))
            return bracket();
        auto found = std::make_shared<Expression>();
        const bool isGood = c == QLatin1Char('$')             ? variable(*found)
            : c == QLatin1Char('"') || c == QLatin1Char('\'') ? quoted(*found)
                                                              : number(*found);
        return isGood ? Pointer(found) : fail("a number, a text in quotes, a variable or '('");
    }

    Pointer bracket()
    {
        ++m_at;
        if (++m_depth > deepest)
            return fail("less nesting");
        Pointer inner = level(0);
        --m_depth;
        if (inner && !take(")"))
            return fail("an operator or ')'");
        return inner;
    }

    bool variable(Expression &found)
    {
        const int from = m_at++;
        if (QStringLiteral("?*@#").contains(m_text.midRef(m_at, 1))
            && m_at < m_text.size()) // these have names of one sign: in "$n*2" it multiplies
            ++m_at;
        else
            while (m_at < m_text.size() && isNameCharacter(m_text.at(m_at)))
                ++m_at;
        found.m_kind = Expression::Variable;
        found.m_variable = m_text.mid(from, m_at - from);
        return m_at - from > 1;
    }

    bool quoted(Expression &found)
    {
        const int end = m_text.indexOf(m_text.at(m_at), m_at + 1);
        if (end < 0)
            return false;
        found.m_constant = m_text.mid(m_at + 1, end - m_at - 1);
        m_at = end + 1;
        return true;
    }

    bool number(Expression &found)
    {
        int end = m_at + (peek() == QLatin1Char('-'));
        while (end < m_text.size()
            && (m_text.at(end).isLetterOrNumber() || m_text.at(end) == QLatin1Char('.') || isExponentSign(end)))
            ++end;
        found.m_constant = zelScriptNumber(m_text.mid(m_at, end - m_at));
        if (!found.m_constant.isValid())
            return false;
        m_at = end;
        return true;
    }
    bool isExponentSign(int at) const
    {
        return at > m_at && (m_text.at(at) == QLatin1Char('-') || m_text.at(at) == QLatin1Char('+'))
            && m_text.at(at - 1).toLower() == QLatin1Char('e') && !m_text.midRef(m_at, 2).contains(QLatin1Char('x'));
    }

    const QString &m_text;
    int m_at = 0;
    int m_depth = 0;
    int m_size = 0;
    QString m_expected;
};

ZELScriptExpression::Pointer ZELScriptExpression::parse(const QString &text, int *offset, QString *expected)
{
    ZELScriptExpressionParser parser(text);
    Pointer found = parser.whole();
    *offset = parser.at();
    *expected = parser.expected();
    return found;
}

namespace {

int compare(const QVariant &left, const QVariant &right)
{
    const QVariant a = zelScriptNumber(left), b = zelScriptNumber(right);
    if (!a.isValid() || !b.isValid())
        return QString::compare(left.toString(), right.toString());
    if (isWhole(a) && isWhole(b))
        return a.toLongLong() < b.toLongLong() ? -1 : a.toLongLong() > b.toLongLong();
    return a.toDouble() < b.toDouble() ? -1 : a.toDouble() > b.toDouble();
}

QVariant wholes(char sign, qlonglong a, qlonglong b, QString *error)
{
    qlonglong result = 0;
    const bool divides = sign == '/' || sign == '%';
    if (divides && b == 0)
        return problem(error, "division by zero");
    if (sign == '%' && b == -1)
        return qlonglong(0); // also of the least number, which the processor refuses to divide
    const bool isTooLarge = sign == '+' ? __builtin_add_overflow(a, b, &result)
        : sign == '-'                   ? __builtin_sub_overflow(a, b, &result)
        : sign == '*'                   ? __builtin_mul_overflow(a, b, &result)
                                        : b == -1 && a == std::numeric_limits<qlonglong>::min();
    if (isTooLarge)
        return problem(error, "the result has more than 64 bits");
    return divides ? (sign == '/' ? a / b : a % b) : result;
}

QVariant reals(char sign, double a, double b, QString *error)
{
    if ((sign == '/' || sign == '%') && b == 0)
        return problem(error, "division by zero");
    const double result = sign == '+' ? a + b
        : sign == '-'                 ? a - b
        : sign == '*'                 ? a * b
        : sign == '/'                 ? a / b
                                      : std::fmod(a, b);
    return std::isfinite(result) ? QVariant(result) : problem(error, "the result is too large");
}

QVariant computed(char sign, const QVariant &left, const QVariant &right, QString *error)
{
    const QVariant a = zelScriptNumber(left), b = zelScriptNumber(right);
    if (a.isValid() && b.isValid())
        return isWhole(a) && isWhole(b) ? wholes(sign, a.toLongLong(), b.toLongLong(), error)
                                        : reals(sign, a.toDouble(), b.toDouble(), error);
    if (sign == '+')
        return left.toString() + right.toString();
    *error = QLatin1Char('\'') + (a.isValid() ? right : left).toString() + QLatin1String("' is no number");
    return QVariant();
}

} // namespace

QVariant ZELScriptExpression::evaluate(const Lookup &lookup, QString *error) const
{
    if (m_kind == Constant)
        return m_constant;
    if (m_kind == Variable)
        return lookup(m_variable);
    const QVariant left = m_left->evaluate(lookup, error);
    if (!left.isValid())
        return left;
    if (m_kind == Not)
        return qlonglong(!zelScriptTruth(left));
    if (m_kind == Negate)
        return computed('-', qlonglong(0), left, error);
    if (m_kind == And && !zelScriptTruth(left))
        return qlonglong(0);
    if (m_kind == Or && zelScriptTruth(left))
        return qlonglong(1);
    const QVariant right = m_right->evaluate(lookup, error);
    if (!right.isValid())
        return right;
    if (m_kind == And || m_kind == Or)
        return qlonglong(zelScriptTruth(right));
    if (m_kind <= Subtract)
        return computed("*/%+-"[m_kind - Multiply], left, right, error);
    const int order = compare(left, right);
    const bool holds[] = {order<0, order <= 0, order> 0, order >= 0, order == 0, order != 0};
    return qlonglong(holds[m_kind - Less]);
}
