// SPDX-License-Identifier: MIT
#include "zelgrapheme_p.h"

#include <algorithm>
#include <utf8proc.h>

namespace {

struct Point
{
    utf8proc_int32_t code = -1; ///< negative for a byte that is no part of a sequence
    int length = 1;
};

bool isPrintable(char byte)
{
    return byte >= ' ' && byte <= '~';
}

Point pointAt(const QByteArray &text, int at)
{
    const auto *bytes = reinterpret_cast<const utf8proc_uint8_t *>(text.constData()) + at;
    Point point;
    const auto length = utf8proc_iterate(bytes, text.size() - at, &point.code);
    if (length > 0)
        point.length = int(length);
    else
        point.code = -1;
    return point;
}

int pointBefore(const QByteArray &text, int at)
{
    for (int length = 2; length <= std::min(4, at); ++length)
        if (pointAt(text, at - length).length == length && pointAt(text, at - length).code >= 0)
            return at - length;
    return at - 1;
}

int boundClass(utf8proc_int32_t code)
{
    return utf8proc_get_property(code)->boundclass;
}

/// Nothing joins what has no part in any joining rule: two such neighbours are always two characters.
bool isSimple(const Point &point)
{
    return point.code >= 0 && boundClass(point.code) == UTF8PROC_BOUNDCLASS_OTHER;
}

bool isControl(utf8proc_int32_t code)
{
    const auto category = utf8proc_category(code);
    return category == UTF8PROC_CATEGORY_CC || category == UTF8PROC_CATEGORY_ZL || category == UTF8PROC_CATEGORY_ZP
        || (category == UTF8PROC_CATEGORY_CF && utf8proc_charwidth(code) == 0);
}

bool isMark(utf8proc_int32_t code)
{
    const auto category = utf8proc_category(code);
    return category == UTF8PROC_CATEGORY_MN || category == UTF8PROC_CATEGORY_ME || category == UTF8PROC_CATEGORY_MC;
}

constexpr utf8proc_int32_t joiner = 0x200d;
constexpr utf8proc_int32_t emojiForm = 0xfe0f;

/// The vowels and finals of Hangul are drawn into the block that their first consonant began.
bool isJamo(utf8proc_int32_t code)
{
    return boundClass(code) == UTF8PROC_BOUNDCLASS_V || boundClass(code) == UTF8PROC_BOUNDCLASS_T;
}

/// What is drawn into the character before it, by terminals that join such characters.
bool isDrawnInto(utf8proc_int32_t before, utf8proc_int32_t code)
{
    return before == joiner || (code >= 0x1f3fb && code <= 0x1f3ff);
}

int widthOf(const Point &point)
{
    return point.code < 0 ? 1 : utf8proc_charwidth(point.code);
}

void join(ZELGrapheme &grapheme, const Point &before, const Point &point)
{
    grapheme.length += point.length;
    if (point.code == emojiForm)
        grapheme.width = std::max(grapheme.width, 2);
    else if (!isDrawnInto(before.code, point.code) && !isJamo(point.code))
        grapheme.width += widthOf(point);
    grapheme.isPlain = grapheme.isPlain && point.code != emojiForm && !isDrawnInto(before.code, point.code)
        && boundClass(point.code) != UTF8PROC_BOUNDCLASS_REGIONAL_INDICATOR;
}

} // namespace

ZELGrapheme zelGraphemeAt(const QByteArray &text, int at)
{
    const int next = at + 1;
    if (text.at(at) == '\n')
        return {1, 0, false};
    if (isPrintable(text.at(at)) && (next == text.size() || isPrintable(text.at(next))))
        return {};
    Point last = pointAt(text, at);
    ZELGrapheme found{last.length, widthOf(last), last.code >= 0 && !isControl(last.code) && !isMark(last.code)};
    utf8proc_int32_t state = 0;
    while (at + found.length < text.size()) {
        const Point point = pointAt(text, at + found.length);
        if (last.code < 0 || point.code < 0 || utf8proc_grapheme_break_stateful(last.code, point.code, &state))
            break;
        join(found, last, point);
        last = point;
    }
    found.width = std::max(found.width, 1);
    return found;
}

int zelGraphemeStart(const QByteArray &text, int at)
{
    while (at > 0) {
        const bool isEnd = at >= text.size();
        const int before = pointBefore(text, at);
        if (!isEnd && isPrintable(text.at(at)) && isPrintable(text.at(at - 1)))
            return at;
        if (!isEnd && (text.at(before) == '\n' || (isSimple(pointAt(text, at)) && isSimple(pointAt(text, before)))))
            return at;
        at = before;
    }
    return 0;
}

int zelGraphemeBefore(const QByteArray &text, int at)
{
    if (at <= 1)
        return 0;
    if (isPrintable(text.at(at - 1)) && isPrintable(text.at(at - 2)))
        return at - 1;
    int begin = zelGraphemeStart(text, pointBefore(text, at));
    for (int next = begin; next < at; next += zelGraphemeAt(text, next).length)
        begin = next;
    return begin;
}

QByteArray zelShownGrapheme(const QByteArray &text, int at, const ZELGrapheme &grapheme)
{
    const Point first = pointAt(text, at);
    if (first.code < 0 || isControl(first.code))
        return QByteArrayLiteral("\xef\xbf\xbd");
    const QByteArray bytes = text.mid(at, grapheme.length);
    return isMark(first.code) ? QByteArrayLiteral("\xe2\x97\x8c") + bytes : bytes;
}

int zelColumns(const QByteArray &text)
{
    int columns = 0;
    for (int at = 0, length = 0; at < text.size(); at += length) {
        const ZELGrapheme grapheme = zelGraphemeAt(text, at);
        length = grapheme.length;
        columns += grapheme.width;
    }
    return columns;
}

bool zelIsWordAt(const QByteArray &text, int at)
{
    const Point point = pointAt(text, at);
    const auto category = point.code < 0 ? UTF8PROC_CATEGORY_CN : utf8proc_category(point.code);
    return (category >= UTF8PROC_CATEGORY_LU && category <= UTF8PROC_CATEGORY_NO);
}

int zelSequenceLength(const char *bytes, int available)
{
    const auto at = [bytes](int i) { return static_cast<uchar>(bytes[i]); };
    const uchar lead = at(0);
    const int length = lead < 0x80 ? 1 : lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
    for (int i = 1; i < std::min(length, available); ++i)
        if ((at(i) & 0xc0) != 0x80)
            return 0;
    // Overlong forms, surrogates and what lies beyond Unicode show at the second byte.
    if (length > 2 && available > 1) {
        const uchar low = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
        const uchar high = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
        if (at(1) < low || at(1) > high)
            return 0;
    }
    return available < length ? -1 : length;
}
