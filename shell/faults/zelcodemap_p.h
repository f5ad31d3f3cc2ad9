// SPDX-License-Identifier: MIT
#ifndef ZELCODEMAP_P_H
#define ZELCODEMAP_P_H

#include <cstddef>
#include <cstdint>

/// What a piece of program text is to a jump that comes at a random instant.
enum class ZELCode : unsigned char {
    Host, ///< may be left anywhere; what it holds is its own affair
    Own, ///< this library: left only in calls that block, and at safe points
    Runtime, ///< C library, Qt and the like: left only in blocking calls that are known to bear it
};

/// A loaded object; fixed memory, since handlers read it.
struct ZELModule
{
    uintptr_t start; ///< of the executable mapping
    uintptr_t end;
    uintptr_t base; ///< what addr2line wants subtracted
    ZELCode code;
    bool program; ///< the executable itself
    char path[256];
};

/// Functions by what a jump out of them, or over them, does.
enum class ZELFunction : unsigned char {
    Blocking, ///< waits in the kernel and holds nothing meanwhile
    Sleep, ///< the same, and whoever calls it
    Delicate, ///< a jump over it leaves something behind: only by force
    Fatal, ///< a jump over it leaves something that breaks the thread later
    Semaphore, ///< blocks; called by Qt itself it waits for a queued call, whose other side still writes to this stack
    Allocator,
};

/// One of these in memory.
struct ZELFunctionRange
{
    uintptr_t start;
    uintptr_t end;
    ZELFunction kind;
};

/// The result of a walk up the interrupted stack.
enum class ZELPlace {
    Safe,
    Torn, ///< try again in a moment
    Pinned, ///< not even by force
};

/// Collects modules and functions when something was loaded since; normal context only.
void zelRefreshCodeMap();
/// The module that holds the address, null when none does. Async-signal-safe.
const ZELModule *zelModuleAt(uintptr_t address);
size_t zelModuleCount();
/// The function of a known kind that holds the address, null for all others. Async-signal-safe.
const ZELFunctionRange *zelFunctionAt(uintptr_t address);
const char *zelBaseName(const char *path);
const ZELModule *zelModule(size_t index);

/// Whether a jump from where the signal interrupted the thread to a frame whose opener's stack begins at `outer` tears
/// anything. Async-signal-safe.
ZELPlace zelPlaceOf(void *context, uintptr_t outer);
/// The same for normal code that reaches a safe point.
ZELPlace zelPlaceHere(uintptr_t outer);
/// Whether the thread was interrupted inside of malloc and its kin. Async-signal-safe.
bool zelInAllocator(void *context);
/// Addresses of the interrupted stack, innermost first: the instruction, then return addresses.
int zelBacktrace(void *context, uintptr_t *addresses, int limit);
uintptr_t zelInterruptedAt(void *context);
uintptr_t zelInterruptedStack(void *context);

#endif
