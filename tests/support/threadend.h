// SPDX-License-Identifier: MIT
#ifndef THREADEND_H
#define THREADEND_H

#include "zelthread.h"
#include "zeltsan_p.h"

/// Waits for the thread; what it wrote may be read then.
inline bool hasEnded(ZELThread *thread)
{
    const bool ended = thread->wait(10000);
    ZEL_TSAN_ACQUIRE(thread);
    return ended;
}

#endif
