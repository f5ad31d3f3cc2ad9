// SPDX-License-Identifier: MIT
#include "zelarguments_p.h"

#include "zelcatch.h"

namespace {
// The first word from index 1 on that is opt, or -1: the command word is never an option.
int indexOfOption(const QStringList &words, const QString &opt)
{
    return opt.isEmpty() ? -1 : words.indexOf(opt, 1);
}

// "-" and "-x" are options themselves; "-5" and "--long" are values.
bool isValue(const QString &word)
{
    return !word.startsWith(QLatin1Char('-')) || (word.size() > 1 && !word.at(1).isLetter());
}
} // namespace

int ZELArguments::Length() const
{
    return d->arguments.size();
}

int ZELArguments::ArgumentsLength() const
{
    return qMax(0, Length() - 1);
}

QString &ZELArguments::operator[](int i)
{
    if (i < 0 || i >= Length())
        zel_assert_x("ZELCommandArgs::operator[]", "index out of range", "zelarguments", 330);
    return d->arguments[i];
}

QString ZELArguments::operator[](int i) const
{
    if (i < 0 || i >= Length())
        zel_assert_x("ZELCommandArgs::operator[]", "index out of range", "zelarguments", 336);
    return d->arguments.at(i);
}

bool ZELArguments::HasQuote(int i) const
{
    return d->hasquote(i);
}

bool ZELArguments::containsOpt(const QString &opt) const
{
    return indexOfOption(d->arguments, opt) > 0;
}

int ZELArguments::indexOfOptFromString(const QString &opt) const
{
    int size = opt.size();
    while (size > 0 && opt.at(size - 1) == QLatin1Char('='))
        --size;
    return indexOfOption(d->arguments, opt.left(size));
}

QString ZELArguments::getOptFromString(const QString &opt) const
{
    const int option = indexOfOption(d->arguments, opt);
    const int i = option + 1;
    if (option < 0 || i >= Length() || !isValue(d->arguments.at(i)))
        return QString();
    const QString value = d->arguments.at(i);
    return d->hasquote(i) ? value.mid(1, value.size() - 2) : value;
}

void ZELArguments::removeAt(int i) const
{
    if (i < 0 || i >= Length())
        return;
    const QString word = d->arguments.takeAt(i);
    if (!word.isEmpty())
        d->allInput.remove(word);
}

QString ZELArguments::ToString(QString separator) const
{
    return d->arguments.join(separator);
}

ZELArguments::operator QString() const
{
    return ToString(QStringLiteral(" "));
}

ZELArguments::operator QByteArray() const
{
    return ToString(QStringLiteral(" ")).toLatin1();
}

ZELArguments::operator QStringList() const
{
    return d->arguments;
}
