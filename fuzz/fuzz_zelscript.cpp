// SPDX-License-Identifier: MIT
// Scripts of any text: steps or a place inside of the text, and no more work than the text is long.
#include "zelscript_p.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
    ZELScriptError error;
    const bool parsed = zelParseScript(text, &error) != nullptr;
    const int lines = text.count(QLatin1Char('\n')) + 1;
    if (!parsed && (error.line < 1 || error.line > lines || error.column < 1 || error.expected.isEmpty()))
        std::abort();
    if (parsed && zelIsOpenScript(text))
        std::abort();
    return 0;
}
