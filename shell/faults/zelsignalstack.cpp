// SPDX-License-Identifier: MIT
// What a thread needs before a fault may come to it: its place in the registry, and a stack to handle signals on.
#include "zelguard_p.h"
#include "zelsignals_p.h"

#include <pthread.h>
#include <sys/mman.h>

namespace {

bool useSignalStack(void *memory, size_t size)
{
    stack_t present{};
    if (sigaltstack(nullptr, &present) != 0 || !(present.ss_flags & SS_DISABLE))
        return false; // the host's own stays
    stack_t stack{};
    stack.ss_sp = memory;
    stack.ss_size = size;
    return sigaltstack(&stack, nullptr) == 0;
}

void dropSignalStack()
{
    stack_t stack{};
    stack.ss_flags = SS_DISABLE;
    sigaltstack(&stack, nullptr);
}

void noteStack()
{
    pthread_attr_t attributes;
    void *low = nullptr;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0)
        return;
    if (pthread_attr_getstack(&attributes, &low, &size) == 0) {
        zelThreadFaults.stackLow = quintptr(low);
        zelThreadFaults.stackHigh = quintptr(low) + size;
    }
    pthread_attr_destroy(&attributes);
}

/// Registration and signal stack of a thread that is not one of the library's own, until the thread ends.
struct ForeignThread
{
    ForeignThread()
    {
        zelSetRegistered(true);
        noteStack();
        m_memory = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (m_memory != MAP_FAILED) {
            mprotect(m_memory, 4096, PROT_NONE);
            m_used = useSignalStack(static_cast<char *>(m_memory) + 4096, m_size - 4096);
        }
    }
    ~ForeignThread()
    {
        zelSetRegistered(false);
        zelThreadFaults.ended = true;
        if (m_used)
            dropSignalStack();
        if (m_memory != MAP_FAILED)
            munmap(m_memory, m_size);
    }
    void use() { }

private:
    static constexpr size_t m_size = ZELThreadFaultScope::StackSize + 4096;
    void *m_memory = nullptr;
    bool m_used = false;
};

} // namespace

void zelEnsureRegistered()
{
    if (zelThreadFaults.registered || zelThreadFaults.ended)
        return;
    static thread_local ForeignThread thread;
    thread.use();
    if (!zelThreadFaults.registered)
        zelSetRegistered(true); // once a library thread, now opening a frame after its body
}

ZELThreadFaultScope::ZELThreadFaultScope(void *memory, size_t size)
    : m_ownStack(useSignalStack(memory, size))
{
    zelSetRegistered(true);
    noteStack();
}

ZELThreadFaultScope::~ZELThreadFaultScope()
{
    zelSetRegistered(false);
    if (m_ownStack)
        dropSignalStack();
}

void zelGiveBackStack()
{
    ZELThreadFaults &self = zelThreadFaults;
    constexpr quintptr page = 4096, kept = 64 * 1024, worthIt = 256 * 1024;
    const quintptr here = quintptr(__builtin_frame_address(0));
    const quintptr deepest = std::exchange(self.deepest, 0);
    if (!deepest || !self.stackLow || here < self.stackLow || here > self.stackHigh || deepest > here)
        return; // no piece of the thread's own stack
    const quintptr from = qMax(deepest, self.stackLow) & ~(page - 1), to = (here - kept) & ~(page - 1);
    if (to > from && to - from > worthIt)
        madvise(reinterpret_cast<void *>(from), to - from, MADV_DONTNEED);
}
