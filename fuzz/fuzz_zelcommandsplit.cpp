// SPDX-License-Identifier: MIT
// Any line in any mode of the splitter; what a record does with the words it got.
#include "zelarguments.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const auto *bytes = reinterpret_cast<const char *>(data) + 1;
    const QString line
        = data[0] & 4 ? QString::fromUtf8(bytes, int(size - 1)) : QString::fromLatin1(bytes, int(size - 1));
    const QStringList words = ZELArguments::CommandSplit(line, data[0] & 1, data[0] & 2);
    int length = 0;
    for (const QString &word : words)
        length += word.size();
    if (length > line.size())
        std::abort();

    ZELArguments args(nullptr, line);
    for (int i = 0; i < args.Length(); ++i) {
        args.HasQuote(i);
        args.getOptFromString(args[i]);
        args.indexOfOptFromString(args[i]);
    }
    args.removeAt(args.Length() / 2);
    args.reset(args);
    return 0;
}
