// SPDX-License-Identifier: MIT
// Walks up a stack: whether it may be left where it is, and what called what. Async-signal-safe with a C library that
// offers _dl_find_object, since the unwinder takes no lock there.
#include "zelcodemap_p.h"

#include <cstring>
#include <ucontext.h>
#include <unwind.h>

namespace {

uintptr_t programCounter(const ucontext_t *context)
{
#if defined(__x86_64__)
    return uintptr_t(context->uc_mcontext.gregs[REG_RIP]);
#else
    return uintptr_t(context->uc_mcontext.pc);
#endif
}

uintptr_t stackPointer(const ucontext_t *context)
{
#if defined(__x86_64__)
    return uintptr_t(context->uc_mcontext.gregs[REG_RSP]);
#else
    return uintptr_t(context->uc_mcontext.sp);
#endif
}

/// The kernel leaves an interrupted call behind its instruction, or before it when the call is to be restarted.
bool atSystemCall(uintptr_t pc)
{
#if defined(__x86_64__)
    const auto *code = reinterpret_cast<const unsigned char *>(pc);
    return (code[-2] == 0x0f && code[-1] == 0x05) || (code[0] == 0x0f && code[1] == 0x05);
#else
    const auto *code = reinterpret_cast<const uint32_t *>(pc);
    return code[-1] == 0xd4000001u || code[0] == 0xd4000001u;
#endif
}

struct Frame
{
    uintptr_t address; ///< inside of the calling instruction
    uintptr_t stack;
};

struct Walk
{
    uintptr_t pc;
    uintptr_t stack; ///< of the interrupted code
    bool begun;
    bool (*visit)(Walk *, const Frame &);
    bool passedSignal; ///< a handler is on the stack, over code that it interrupted anywhere
};

_Unwind_Reason_Code step(_Unwind_Context *context, void *data)
{
    auto *walk = static_cast<Walk *>(data);
    int before = 0;
    const uintptr_t ip = _Unwind_GetIPInfo(context, &before);
    const bool interrupted = !walk->begun && ip == walk->pc;
    walk->begun = walk->begun || interrupted;
    if (!walk->begun)
        return _URC_NO_REASON; // the handler's own frames
    if (ip == 0)
        return _URC_NORMAL_STOP; // what called the first function of a thread
    walk->passedSignal = walk->passedSignal || (before && ip != walk->pc);
    // On AArch64 the unwinder takes the interrupted code's stack for that of the signal.
    const uintptr_t stack = interrupted ? walk->stack : _Unwind_GetCFA(context);
    const bool goOn = walk->visit(walk, {before ? ip : ip - 1, stack});
    return goOn ? _URC_NO_REASON : _URC_NORMAL_STOP;
}

struct PlaceWalk : Walk
{
    uintptr_t outer;
    bool inRuntime;
    bool ended; ///< reached the target's opener
    bool pinned;
    bool delicate;
    bool semaphore; ///< the frame before was a semaphore's wait
    uintptr_t caller; ///< the first code outside of this library, or the opener
    uintptr_t entry; ///< the runtime function that the first other code called
};

bool visitPlace(Walk *walk, const Frame &frame)
{
    auto *place = static_cast<PlaceWalk *>(walk);
    const ZELModule *module = zelModuleAt(frame.address);
    const ZELFunctionRange *function = zelFunctionAt(frame.address);
    if (place->inRuntime && module && module->code == ZELCode::Runtime)
        place->entry = frame.address;
    else
        place->inRuntime = false;
    const bool qt = module && module->code == ZELCode::Runtime && strncmp(zelBaseName(module->path), "libQt5", 6) == 0;
    place->pinned
        = place->pinned || (place->semaphore && qt && !function) || (function && function->kind == ZELFunction::Fatal);
    place->delicate = place->delicate || (function && function->kind == ZELFunction::Delicate);
    if (!place->caller && (!module || module->code != ZELCode::Own || frame.stack > place->outer))
        place->caller = frame.address;
    place->semaphore = function && function->kind == ZELFunction::Semaphore;
    place->ended = frame.stack > place->outer;
    return !place->ended;
}

struct AllocatorWalk : Walk
{
    bool found;
};

bool visitAllocator(Walk *walk, const Frame &frame)
{
    auto *self = static_cast<AllocatorWalk *>(walk);
    const ZELFunctionRange *function = zelFunctionAt(frame.address);
    self->found = function && function->kind == ZELFunction::Allocator;
    const ZELModule *module = zelModuleAt(frame.address);
    return !self->found && module && module->code == ZELCode::Runtime;
}

struct TraceWalk : Walk
{
    uintptr_t *addresses;
    int count;
    int limit;
};

bool visitTrace(Walk *walk, const Frame &frame)
{
    auto *trace = static_cast<TraceWalk *>(walk);
    trace->addresses[trace->count++] = frame.address;
    return trace->count < trace->limit;
}

template <class W>
void run(W *walk, void *context, bool (*visit)(Walk *, const Frame &))
{
    walk->pc = context ? programCounter(static_cast<ucontext_t *>(context)) : 0;
    walk->stack = context ? stackPointer(static_cast<ucontext_t *>(context)) : 0;
    walk->begun = !context;
    walk->visit = visit;
    _Unwind_Backtrace(step, static_cast<Walk *>(walk));
}

} // namespace

uintptr_t zelInterruptedAt(void *context)
{
    return programCounter(static_cast<ucontext_t *>(context));
}

uintptr_t zelInterruptedStack(void *context)
{
    return stackPointer(static_cast<ucontext_t *>(context));
}

static bool bearsJump(uintptr_t entry)
{
    const ZELFunctionRange *function = zelFunctionAt(entry);
    return function
        && (function->kind == ZELFunction::Blocking || function->kind == ZELFunction::Semaphore
            || function->kind == ZELFunction::Sleep);
}

/// Whoever sleeps holds nothing that it needs: Qt reaches this through a function of its own without a name.
static bool isSleep(uintptr_t pc)
{
    const ZELFunctionRange *function = zelFunctionAt(pc);
    return function && function->kind == ZELFunction::Sleep;
}

/// In normal context: own code may be left at a safe point unless it was called by code that is not to be left.
ZELPlace zelPlaceHere(uintptr_t outer)
{
    PlaceWalk walk{};
    walk.outer = outer;
    run(&walk, nullptr, visitPlace);
    if (walk.pinned)
        return ZELPlace::Pinned;
    const ZELModule *caller = zelModuleAt(walk.caller);
    const bool torn = !walk.ended || walk.delicate || walk.passedSignal || !caller || caller->code == ZELCode::Runtime;
    return torn && zelModuleCount() ? ZELPlace::Torn : ZELPlace::Safe;
}

ZELPlace zelPlaceOf(void *context, uintptr_t outer)
{
    const uintptr_t pc = zelInterruptedAt(context);
    const ZELModule *module = zelModuleAt(pc);
    PlaceWalk walk{};
    if (!zelModuleCount())
        return ZELPlace::Torn;
    walk.outer = outer;
    walk.inRuntime = module && module->code == ZELCode::Runtime;
    run(&walk, context, visitPlace);
    if (walk.pinned)
        return ZELPlace::Pinned;
    if (!module || module->code == ZELCode::Own || !walk.ended || walk.delicate || walk.passedSignal)
        return ZELPlace::Torn;
    if (module->code == ZELCode::Host)
        return ZELPlace::Safe;
    return atSystemCall(pc) && (bearsJump(walk.entry) || isSleep(pc)) ? ZELPlace::Safe : ZELPlace::Torn;
}

bool zelInAllocator(void *context)
{
    AllocatorWalk walk{};
    if (zelModuleCount() && context)
        run(&walk, context, visitAllocator);
    return walk.found;
}

int zelBacktrace(void *context, uintptr_t *addresses, int limit)
{
    TraceWalk walk{};
    walk.addresses = addresses;
    walk.limit = limit;
    run(&walk, context, visitTrace);
    return walk.count;
}
