// SPDX-License-Identifier: MIT
#include "zelutf8_p.h"

#include "zelgrapheme_p.h"

#include <QChar>
#include <algorithm>
#include <iterator>

namespace {

uint codePoint(const char *sequence, int length)
{
    if (length == 1)
        return static_cast<uchar>(*sequence);
    uint code = static_cast<uchar>(*sequence) & (0x7f >> length);
    for (int i = 1; i < length; ++i)
        code = code << 6 | (static_cast<uchar>(sequence[i]) & 0x3f);
    return code;
}

/// How many columns a terminal gives the character.
int characterWidth(uint code)
{
    static constexpr struct
    {
        uint first, last;
    } wide[]
        = {{0x1100, 0x115f}, {0x2e80, 0x303e}, {0x3041, 0xa4cf}, {0xac00, 0xd7a3}, {0xf900, 0xfaff}, {0xfe30, 0xfe6f},
            {0xff00, 0xff60}, {0xffe0, 0xffe6}, {0x1f300, 0x1f64f}, {0x1f900, 0x1f9ff}, {0x20000, 0x3fffd}};
    const auto category = QChar::category(code);
    if (category == QChar::Mark_NonSpacing || category == QChar::Mark_Enclosing)
        return 0;
    return std::any_of(std::begin(wide), std::end(wide), [code](auto &r) { return code >= r.first && code <= r.last; })
        ? 2
        : 1;
}

} // namespace

int zelNextLength(const QByteArray &line, int at)
{
    return std::max(1, zelSequenceLength(line.constData() + at, line.size() - at));
}

int zelPreviousLength(const QByteArray &line, int at)
{
    for (int length = 2; length <= std::min(4, at); ++length)
        if (zelSequenceLength(line.constData() + at - length, length) == length)
            return length;
    return 1;
}

int zelColumns(const QByteArray &line, int from, int to)
{
    int width = 0;
    for (int at = from, length = 0; at < to; at += length) {
        length = zelNextLength(line, at);
        width += characterWidth(codePoint(line.constData() + at, length));
    }
    return width;
}
