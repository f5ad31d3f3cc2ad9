// SPDX-License-Identifier: MIT
#ifndef ZELRESOLVER_P_H
#define ZELRESOLVER_P_H

#include <cstddef>
#include <cstdint>

/// Function and place of an address; empty texts where nothing is known.
struct ZELPlaceName
{
    uintptr_t address;
    char function[160];
    char location[240];
};

/// Looks for addr2line; normal context.
void zelFindResolver();
bool zelHaveResolver();

/**
 * Resolves the addresses by addr2line, one process for each module, and remembers them: an address is looked up once,
 * whatever came of it. Ends by `deadline` (monotonic ms). Async-signal-safe; one thread at a time.
 */
void zelResolve(const uintptr_t *addresses, int count, bool programOnly, long long deadline);
/// What is remembered of the address, null for nothing.
const ZELPlaceName *zelResolved(uintptr_t address);

long long zelMonotonicMs();

#endif
