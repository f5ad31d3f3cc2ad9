// SPDX-License-Identifier: MIT
#ifndef ZELTSAN_P_H
#define ZELTSAN_P_H

/// Hand-overs that Qt makes inside of its own, uninstrumented code, told to ThreadSanitizer; empty otherwise.
#ifdef __SANITIZE_THREAD__
extern "C" void __tsan_acquire(void *address);
extern "C" void __tsan_release(void *address);
#define ZEL_TSAN_ACQUIRE(address) __tsan_acquire(address)
#define ZEL_TSAN_RELEASE(address) __tsan_release(address)
#else
#define ZEL_TSAN_ACQUIRE(address) static_cast<void>(0)
#define ZEL_TSAN_RELEASE(address) static_cast<void>(0)
#endif

#endif
