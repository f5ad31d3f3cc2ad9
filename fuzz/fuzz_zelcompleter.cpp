// SPDX-License-Identifier: MIT
// Any line: what is inserted leads to a name that exists, and what is listed begins with what was typed.
#include "zelcompleter_p.h"

#include <cstdint>
#include <cstdlib>

namespace {

void demand(bool holds)
{
    if (!holds)
        std::abort();
}

using Tree = ZELShellCommandTree;

ZELCompletionScope scopeOf(bool aboveTree)
{
    ZELCompletionScope scope;
    scope.fromRoot = [](const QStringList &pieces, const QString &) -> std::optional<ZELListing> {
        for (const QString &piece : pieces)
            demand(!piece.isEmpty());
        if (pieces.size() > 1)
            return std::nullopt;
        return ZELListing{
            {QStringLiteral("a"), Tree::Directory}, {QStringLiteral("ab"), Tree::Execute}, {{}, Tree::File}};
    };
    if (!aboveTree)
        scope.fromCurrent = scope.fromRoot;
    scope.systemCommands = [] { return ZELListing{{QStringLiteral("\U0001f600x"), Tree::System_Execute}}; };
    scope.aboveTree = aboveTree;
    return scope;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const QString line = QString::fromUtf8(reinterpret_cast<const char *>(data) + 2, int(size) - 2);
    const ZELCompletion found = zelComplete(line, scopeOf(data[0] & 1), data[1]);
    demand(found.listing.isEmpty() || found.listing.endsWith(QLatin1Char('\n')));
    if (!found.insertion.isEmpty())
        demand(zelComplete(line + found.insertion, scopeOf(data[0] & 1), data[1]).insertion != found.insertion);
    return 0;
}
