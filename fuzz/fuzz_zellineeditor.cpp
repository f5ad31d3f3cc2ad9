// SPDX-License-Identifier: MIT
// Any bytes, in any mode: the cursor stays in the line, and how the bytes were torn does not matter to the lines, nor
// whether text was taken in pieces or byte by byte.
#include "zellineeditor_p.h"

#include <cstdint>
#include <cstdlib>

namespace {

void demand(bool holds)
{
    if (!holds)
        std::abort();
}

/// What came of one input: all that was shown, and all lines, the unfinished one last.
struct Result
{
    QByteArray shown;
    QStringList lines;
};

Result edit(const char *bytes, size_t count, int options)
{
    ZELHistory history;
    ZELLineEditor editor(&history);
    editor.setUtf8(options & 1);
    editor.setTerminal(!(options & 2));
    Result result;
    for (size_t i = 0; i < count; ++i) {
        if (!(options & 4))
            i += size_t(editor.feedPlain(bytes + i, int(count - i)));
        if (i == count)
            break;
        const auto event = editor.feed(bytes[i]);
        if (event == ZELLineEditor::Line) {
            history.add(editor.line());
            result.lines += editor.takeLine();
        } else if (event == ZELLineEditor::Tab) {
            editor.append(QStringLiteral("\u00e4b"));
            editor.redraw();
        }
        demand(editor.cursor() >= 0 && editor.cursor() <= editor.line().size());
        if (options & 4)
            result.shown += editor.takeOutput();
    }
    result.shown += editor.takeOutput();
    result.lines += editor.line();
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const char *bytes = reinterpret_cast<const char *>(data) + 1;
    const int options = data[0] & 3;
    const Result together = edit(bytes, size - 1, options);
    const Result torn = edit(bytes, size - 1, options | 4);
    demand(together.lines == torn.lines);
    demand(!(options & 2) || together.shown.isEmpty());
    return 0;
}
