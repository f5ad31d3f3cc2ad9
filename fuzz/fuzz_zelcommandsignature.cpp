// SPDX-License-Identifier: MIT
// Any line against any parameters: a line is refused with one line of text, or every value is one of its type.
#include "zelcommandsignature_p.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>

namespace {

void demand(bool holds)
{
    if (!holds)
        std::abort();
}

enum class Mode { Slow = 1, Fast = 2 };

template <class... Types>
ZELCommandFunction taking()
{
    return ZELCommandTypes::function([](const Types &...) {});
}

const ZELCommandFunction functions[] = {taking<int, Mode, std::optional<QString>, bool>(),
    taking<double, QByteArray, QVector<quint8>>(), taking<std::chrono::milliseconds, ZELByteSize, QDateTime>(),
    taking<QStringList>(), taking<quint64, std::optional<qint8>, QStringList, bool>(), taking<>()};

/// The bits of `shape` make the parameters options, lists and so on.
ZELCommandSignature signatureOf(const ZELCommandFunction &function, unsigned shape)
{
    ZELCommandSignature signature;
    for (const ZELCommandType &type : function.types) {
        ZELCommandParameter parameter;
        parameter.type = type;
        parameter.isOption = shape & 1;
        if (parameter.isOption)
            parameter.names = QStringList{QStringLiteral("--o%1").arg(signature.parameters.size())};
        if (type.kind == ZELCommandType::Choice)
            parameter.choices = {{"slow", Mode::Slow}, {"fast", Mode::Fast}};
        if (shape & 2)
            parameter.range.emplace(1, 8);
        if (shape & 4)
            parameter.defaultWord = QStringLiteral("1");
        shape >>= 1;
        signature.parameters.append(parameter);
    }
    signature.complete();
    return signature;
}

void check(const ZELCommandParameter &parameter, const ZELCommandValue &value)
{
    demand(value.given || !parameter.isRequired());
    demand(parameter.type.isList || value.list.isEmpty());
    if (!value.given || parameter.type.isList)
        return;
    demand(std::isfinite(value.real));
    if (parameter.type.kind == ZELCommandType::Integer || parameter.type.kind == ZELCommandType::Size) {
        demand(value.integer >= parameter.type.least && value.integer <= qint64(parameter.type.most));
        demand(!parameter.range || (value.integer >= 1 && value.integer <= 8));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const QString line = QString::fromUtf8(reinterpret_cast<const char *>(data) + 2, int(size) - 2);
    const QStringList words = QStringList(QStringLiteral("cmd")) + ZELArguments::CommandSplit(line, true, true);
    const ZELCommandSignature signature = signatureOf(functions[data[0] % 6], data[1]);
    ZELCommandValues values;
    const QString problem = signature.bind(words, values);
    demand(!problem.contains(QLatin1Char('\n')) || line.contains(QLatin1Char('\n')));
    demand(!signature.usage().contains(QLatin1Char('\n')));
    const ZELCommandParameter *last = signature.parameterOf(words);
    demand(!last || (last >= signature.parameters.begin() && last < signature.parameters.end()));
    if (!problem.isEmpty())
        return 0;
    demand(values.size() == signature.parameters.size());
    for (int i = 0; i < values.size(); ++i)
        check(signature.parameters.at(i), values[i]);
    return 0;
}
