// SPDX-License-Identifier: MIT
// What runs in handlers here reads tables that were made before.
#include "zelcodemap_p.h"

#include <atomic>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <mutex>
#include <unistd.h>
#include <unwind.h>

namespace {

/// Published as a whole and never freed: a handler may be reading the one before.
struct Map
{
    ZELModule modules[400];
    const ElfW(Dyn) * dynamics[400];
    size_t moduleCount = 0;
    ZELFunctionRange functions[600];
    size_t functionCount = 0;
    unsigned long long loads = 0;
};

std::atomic<const Map *> current{nullptr};

/// Runtime besides what this library depends on: loaded later, or put in front.
const char *const runtimeNames[]
    = {"ld-", "libc.", "libQt5", "libasan", "libtsan", "libubsan", "liblsan", "linux-vdso", "linux-gate"};

const char *const blockingNames[] = {"read", "readv", "pread64", "write", "writev", "poll", "__poll_chk", "ppoll",
    "select", "pselect", "recv", "recvfrom", "recvmsg", "__read_chk", "__recv_chk", "send", "sendto", "sendmsg",
    "accept", "accept4", "connect", "epoll_wait", "epoll_pwait", "pause", "sigsuspend", "sigwait", "sigwaitinfo",
    "sigtimedwait", "wait", "wait4", "waitpid", "waitid", "sem_wait", "sem_timedwait", "sem_clockwait", "nanosleep",
    "clock_nanosleep", "usleep", "sleep", "tcdrain", "fsync", "fdatasync", "flock", "raise", "pthread_kill", "tgkill",
    "kill", "sched_yield", "syscall",
    "_ZNSt11this_thread11__sleep_forENSt6chrono8durationIlSt5ratioILl1ELl1EEEENS1_"
    "IlS2_ILl1ELl1000000000EEEE",
    "_ZN7QThread5sleepEm", "_ZN7QThread6msleepEm", "_ZN7QThread6usleepEm", "_ZN11QBasicMutex12lockInternalEv",
    "_ZN11QBasicMutex12lockInternalEi", "_ZN6QMutex4lockEv", "_ZN6QMutex7tryLockEi"};

const char *const sleepNames[] = {"nanosleep", "clock_nanosleep"};

const char *const fatalNames[] = {"_ZN10QEventLoop4execE6QFlagsINS_17ProcessEventsFlagEE",
    "_ZN10QEventLoop13processEventsE6QFlagsINS_17ProcessEventsFlagEE", "_ZN7QThread4execEv",
    "_ZN16QCoreApplication4execEv", "dl_iterate_phdr", "dlopen", "dlclose", "fork"};

const char *const delicateNames[] = {"_ZN6QDebugD1Ev", "_ZNK14QMessageLogger5debugEPKcz",
    "_ZNK14QMessageLogger4infoEPKcz", "_ZNK14QMessageLogger7warningEPKcz", "_ZNK14QMessageLogger8criticalEPKcz",
    "_Z17qt_message_output9QtMsgTypeRK18QMessageLogContextRK7QString", "pthread_once", "qsort", "exit",
    "_ZN14QWaitCondition4waitEP6QMutexm", "_ZN14QWaitCondition4waitEP6QMutex14QDeadlineTimer"};

const char *const semaphoreNames[] = {"_ZN10QSemaphore7acquireEi", "_ZN10QSemaphore10tryAcquireEii"};

const char *const allocatorNames[]
    = {"malloc", "free", "calloc", "realloc", "reallocarray", "memalign", "aligned_alloc", "posix_memalign", "valloc",
        "pvalloc", "malloc_trim", "mallinfo", "mallinfo2", "malloc_usable_size", "cfree"};

const ZELModule *moduleIn(const Map *map, uintptr_t address)
{
    for (size_t i = 0; map && i < map->moduleCount; ++i) {
        if (address >= map->modules[i].start && address < map->modules[i].end)
            return &map->modules[i];
    }
    return nullptr;
}

ZELCode codeOf(const ZELModule &module, const void *own)
{
    const uintptr_t here = reinterpret_cast<uintptr_t>(own);
    if (!module.program && here >= module.start && here < module.end)
        return ZELCode::Own;
    const char *name = zelBaseName(module.path);
    for (const char *runtime : runtimeNames) {
        if (strncmp(name, runtime, strlen(runtime)) == 0)
            return ZELCode::Runtime;
    }
    return ZELCode::Host;
}

const ElfW(Dyn) * dynamicOf(const dl_phdr_info *info)
{
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        if (info->dlpi_phdr[i].p_type == PT_DYNAMIC)
            return reinterpret_cast<const ElfW(Dyn) *>(info->dlpi_addr + info->dlpi_phdr[i].p_vaddr);
    }
    return nullptr;
}

int addModule(dl_phdr_info *info, size_t, void *data)
{
    auto *map = static_cast<Map *>(data);
    const bool first = map->loads == 0;
    map->loads = info->dlpi_adds + info->dlpi_subs;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto &segment = info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || !(segment.p_flags & PF_X) || map->moduleCount == 400)
            continue;
        map->dynamics[map->moduleCount] = dynamicOf(info);
        ZELModule &module = map->modules[map->moduleCount++];
        module.base = info->dlpi_addr;
        module.start = (info->dlpi_addr + segment.p_vaddr) & ~uintptr_t(4095);
        module.end = (info->dlpi_addr + segment.p_vaddr + segment.p_memsz + 4095) & ~uintptr_t(4095);
        module.program = first;
        strncpy(module.path, info->dlpi_name, sizeof module.path - 1);
        if (first && readlink("/proc/self/exe", module.path, sizeof module.path - 1) < 0)
            module.path[0] = 0;
        module.code = codeOf(module, reinterpret_cast<void *>(&zelRefreshCodeMap));
    }
    return 0;
}

/// The function's end, as far as the unwinder knows it.
uintptr_t endOfFunction(uintptr_t start)
{
    uintptr_t end = start;
    while (end < start + 4096 && uintptr_t(_Unwind_FindEnclosingFunction(reinterpret_cast<void *>(end + 1))) == start)
        end += 4;
    return end;
}

#if defined(__x86_64__)
constexpr size_t jumpSize = 5;
#else
constexpr size_t jumpSize = 4;
#endif

/// Where the jump at the address leads, 0 when there is none.
uintptr_t jumpTarget(uintptr_t at)
{
#if defined(__x86_64__)
    int32_t distance = 0;
    memcpy(&distance, reinterpret_cast<void *>(at + 1), sizeof distance);
    return *reinterpret_cast<unsigned char *>(at) == 0xe9 ? at + 5 + intptr_t(distance) : 0;
#else
    const uint32_t code = *reinterpret_cast<uint32_t *>(at & ~uintptr_t(3));
    return at % 4 == 0 && code >> 26 == 5 ? at + intptr_t(int32_t(code << 6) >> 4) : 0;
#endif
}

void addFunction(Map *map, void *library, const char *name, ZELFunction kind)
{
    void *address = dlsym(library, name);
    Dl_info info{};
    ElfW(Sym) *symbol = nullptr;
    if (!address || map->functionCount == 600
        || !dladdr1(address, &info, reinterpret_cast<void **>(&symbol), RTLD_DL_SYMENT) || !symbol)
        return;
    const auto start = reinterpret_cast<uintptr_t>(address);
    for (size_t i = 0; i < map->functionCount; ++i) {
        if (map->functions[i].start == start)
            return;
    }
    map->functions[map->functionCount++] = {start, start + symbol->st_size, kind};
}

/// The C library's own besides what is found first: sanitizers and preloads put theirs in front.
template <size_t n>
void addFunctions(Map *map, const char *const (&names)[n], ZELFunction kind)
{
    void *c = dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD);
    for (const char *name : names) {
        addFunction(map, RTLD_DEFAULT, name, kind);
        if (c)
            addFunction(map, c, name, kind);
    }
    if (c)
        dlclose(c);
}

/// What the module says it needs, one library after the other.
template <class Visit>
void forEachNeeded(const ElfW(Dyn) * dynamic, Visit visit)
{
    const char *names = nullptr;
    for (auto *entry = dynamic; entry && entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == DT_STRTAB)
            names = reinterpret_cast<const char *>(entry->d_un.d_ptr); // the loader has made it an address
    }
    for (auto *entry = dynamic; names && entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == DT_NEEDED)
            visit(names + entry->d_un.d_val);
    }
}

/// Everything that this library needs, directly or not, is runtime; what is left is the host's.
void markRuntime(Map *map)
{
    for (bool changed = true; changed;) {
        changed = false;
        for (size_t i = 0; i < map->moduleCount; ++i) {
            if (map->modules[i].code == ZELCode::Host || strncmp(map->modules[i].path, "linux-", 6) == 0)
                continue;
            forEachNeeded(map->dynamics[i], [&](const char *name) {
                for (size_t k = 0; k < map->moduleCount; ++k) {
                    ZELModule &needed = map->modules[k];
                    if (needed.code == ZELCode::Host && !needed.program
                        && strcmp(zelBaseName(needed.path), name) == 0) {
                        needed.code = ZELCode::Runtime;
                        changed = true;
                    }
                }
            });
        }
    }
}

int countLoads(dl_phdr_info *info, size_t, void *loads)
{
    *static_cast<unsigned long long *>(loads) = info->dlpi_adds + info->dlpi_subs;
    return 1;
}

const ZELFunctionRange *functionAt(const Map *map, uintptr_t address)
{
    for (size_t i = 0; i < map->functionCount; ++i) {
        if (address >= map->functions[i].start && address < map->functions[i].end)
            return &map->functions[i];
    }
    return nullptr;
}

/// A function that ends in a jump to a nameless one, as sem_wait() does, is not on the stack while that waits.
void addTailCalls(Map *map, const ZELFunctionRange &function)
{
    for (uintptr_t at = function.start; at + jumpSize <= function.end; ++at) {
        const uintptr_t target = jumpTarget(at);
        const ZELModule *module = target ? moduleIn(map, target) : nullptr;
        if (module && module == moduleIn(map, at) && !functionAt(map, target) && map->functionCount < 600
            && uintptr_t(_Unwind_FindEnclosingFunction(reinterpret_cast<void *>(target + 1))) == target)
            map->functions[map->functionCount++] = {target, endOfFunction(target), function.kind};
    }
}

void addAllTailCalls(Map *map)
{
    const size_t named = map->functionCount;
    for (size_t i = 0; i < named; ++i) {
        const ZELFunctionRange &function = map->functions[i];
        if (function.kind == ZELFunction::Blocking || function.kind == ZELFunction::Sleep)
            addTailCalls(map, function);
    }
}

} // namespace

void zelRefreshCodeMap()
{
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    unsigned long long loads = 0;
    dl_iterate_phdr(countLoads, &loads);
    const Map *present = current.load();
    if (present && present->loads == loads)
        return;
    auto *map = new Map{};
    dl_iterate_phdr(addModule, map);
    markRuntime(map);
    addFunctions(map, sleepNames, ZELFunction::Sleep);
    addFunctions(map, blockingNames, ZELFunction::Blocking);
    addFunctions(map, fatalNames, ZELFunction::Fatal);
    addFunctions(map, delicateNames, ZELFunction::Delicate);
    addFunctions(map, semaphoreNames, ZELFunction::Semaphore);
    addFunctions(map, allocatorNames, ZELFunction::Allocator);
    addAllTailCalls(map);
    current = map;
    uintptr_t warm[4];
    zelBacktrace(nullptr, warm, 4); // the first call sets up the unwinder, which no handler may do
}

const ZELModule *zelModuleAt(uintptr_t address)
{
    return moduleIn(current.load(), address);
}

size_t zelModuleCount()
{
    const Map *map = current.load();
    return map ? map->moduleCount : 0;
}

const ZELModule *zelModule(size_t index)
{
    return &current.load()->modules[index];
}

const ZELFunctionRange *zelFunctionAt(uintptr_t address)
{
    const Map *map = current.load();
    return map ? functionAt(map, address) : nullptr;
}

const char *zelBaseName(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}
