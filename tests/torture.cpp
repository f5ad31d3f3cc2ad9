// SPDX-License-Identifier: MIT
// Kills, time limits and crashes at random instants, in children with a watchdog.
//
//   zel_torture kill  SCENARIO COUNT    kills a busy thread; SCENARIO "all" runs every one
//   zel_torture limit SCENARIO COUNT    the same by time limits
//   zel_torture crash KIND COUNT [missing|hanging]    provokes crashes and reads their reports; addr2line can be
//                                       missing or never end
//   zel_torture remote all COUNT        kills commands of remote sessions whose clients vanish
//   zel_torture remote exhausted 1      clients that come when there is no room for a thread
//
// After every kill the victim and a bystander must allocate, print, lock and log. A child that makes no progress for
// ten seconds, dies, or forces a jump has failed.
#include "torture.h"
#include "zelcatch.h"
#include "zelfault.h"
#include "zelthread.h"
#include "zelthreadpool.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QMap>
#include <QMutex>
#include <QTemporaryDir>
#include <QVector>
#include <QtDebug>
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

Progress *progress;
FILE *nullFile;

namespace {

#ifdef __SANITIZE_ADDRESS__
// The sanitizer's own wrapper stands between a sleep and the code that may be left.
constexpr bool forcedIsNormal = true;
#else
constexpr bool forcedIsNormal = false;
#endif

QMutex sharedMutex;
int silentPipe[2];
volatile double sink;

void workMalloc()
{
    void *blocks[16];
    for (int i = 0; i < 16; ++i)
        blocks[i] = malloc(size_t(16) << (i % 12));
    for (void *block : blocks)
        free(block);
}

void workStdio()
{
    for (int i = 0; i < 20; ++i)
        fprintf(nullFile, "%d %s %f\n", i, "text", 1.5);
    fflush(nullFile);
}

void workDebug()
{
    qDebug() << "number" << 7 << QStringLiteral("text");
}

void workContainers()
{
    QMap<QString, QVector<int>> map;
    for (int i = 0; i < 20; ++i)
        map[QString::number(i % 7)].append(i);
}

void workBlocked()
{
    static thread_local unsigned turn = 0;
    char c;
    pollfd fd{silentPipe[0], POLLIN, 0};
    switch (turn++ % 4) {
    case 0:
        if (read(silentPipe[0], &c, 1) < 0)
            return;
        break;
    case 1:
        usleep(1000000);
        break;
    case 2:
        poll(&fd, 1, 1000);
        break;
    default:
        QThread::sleep(1);
    }
}

void workLocks()
{
    ZELThreadPool::Pool()->getMutex(QStringLiteral("torture"));
    ZELThreadPool::Pool()->ToString();
    ZELFaultSection section;
    QMutexLocker lock(&sharedMutex);
}

void workCompute()
{
    for (int i = 0; i < 2000; ++i)
        sink = sink * 1.0001 + i;
}

void workNested()
{
    ZELFault::call([] {
        ZELFault::call([] { workCompute(); });
        workCompute();
    });
}

} // namespace

void workMix()
{
    static thread_local unsigned turn = 0;
    switch (turn++ % 6) {
    case 0:
        return workMalloc();
    case 1:
        return workDebug();
    case 2:
        return workContainers();
    case 3:
        return workLocks();
    case 4:
        return workNested();
    default:
        workCompute();
    }
}

namespace {

struct Scenario
{
    const char *name;
    void (*work)();
};
const Scenario scenarios[] = {{"malloc", workMalloc}, {"stdio", workStdio}, {"qdebug", workDebug},
    {"containers", workContainers}, {"blocked", workBlocked}, {"locks", workLocks}, {"compute", workCompute},
    {"nested", workNested}, {"mix", workMix}};

} // namespace

long long nowUs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

void health()
{
    workMalloc();
    workStdio();
    workDebug();
    workContainers();
    workLocks();
}

void discard(QtMsgType, const QMessageLogContext &, const QString &message)
{
    static QMutex mutex;
    ZELFaultSection section;
    QMutexLocker lock(&mutex);
    fprintf(nullFile, "%s\n", qPrintable(message));
}

void record(long long since)
{
    const auto took = int(nowUs() - since);
    progress->totalUs += took;
    if (took > progress->worstUs)
        progress->worstUs = took;
    progress->forced = int(ZELFault::counters().forced);
}

namespace {

/// One child: a victim that works until it is stopped, again and again.
int beVictim(void (*work)(), int count, bool byLimit)
{
    nullFile = fopen("/dev/null", "w");
    if (!nullFile || pipe(silentPipe) != 0)
        return 2;
    qInstallMessageHandler(discard);
    ZELFault::setReport(SIGALRM, false);
    std::atomic<void *> victimId{nullptr};
    std::atomic<int> round{0};
    std::atomic<long long> sentAt{0};
    std::thread victim([&] {
        for (int i = 0; i < count; ++i) {
            sentAt = nowUs() + 1000; // a limit's; a kill says when it is sent
            auto outcome = ZELFault::call(
                [&] {
                    victimId = QThread::currentThreadId();
                    round = i + 1;
                    for (;;)
                        work();
                },
                byLimit ? 1 : 0);
            record(sentAt);
            if (outcome.state != (byLimit ? SIGALRM : SIGQUIT))
                _exit(3);
            health();
            ++progress->survived;
        }
    });
    unsigned seed = unsigned(getpid());
    for (int i = 1; i <= count; ++i) {
        while (round < i)
            std::this_thread::yield();
        if (!byLimit) {
            const long long until = nowUs() + 2 + rand_r(&seed) % 100;
            while (nowUs() < until) { }
            sentAt = nowUs();
            except_stack->Kill(victimId);
        }
        while (progress->survived < i)
            usleep(20);
        health();
    }
    victim.join();
    return ZELFault::counters().forced && !forcedIsNormal ? 4 : 0;
}

} // namespace

int watched(const std::function<int()> &body)
{
    new (progress) Progress{};
    const pid_t child = fork();
    if (child == 0)
        _exit(body());
    int last = -1, quiet = 0, status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        usleep(2000);
        quiet = progress->survived == last ? quiet + 1 : 0;
        last = progress->survived;
        if (quiet > 5000) {
            kill(child, getenv("TORTURE_CORE") ? SIGSTOP : SIGKILL);
            waitpid(child, &status, 0);
            return -1;
        }
    }
    return status;
}

namespace {

bool runScenario(const Scenario &scenario, int count, bool byLimit)
{
    if (forcedIsNormal && scenario.work == workBlocked)
        count = qMin(count, 20); // each forced jump waits for the grace time first
    QElapsedTimer timer;
    timer.start();
    const int status = watched([&] { return beVictim(scenario.work, count, byLimit); });
    const int survived = progress->survived;
    printf("%-5s %-11s %6d of %6d survived, %d forced, mean %lld us, worst %d us, %.1f s, status %d\n",
        byLimit ? "limit" : "kill", scenario.name, survived, count, progress->forced.load(),
        survived ? progress->totalUs / survived : 0, progress->worstUs.load(), double(timer.elapsed()) / 1000, status);
    return status == 0 && survived == count;
}

// Crashes

void crashNull()
{
    volatile int *volatile nowhere = nullptr;
    *nowhere = 1;
}

void crashInMalloc()
{
    // A chunk in a bin whose links were overwritten: the fault comes inside of the allocator, its lock held.
    void *volatile a = malloc(2000);
    void *volatile barrier = malloc(5000); // keeps the chunk from the top of the heap
    const auto links = uintptr_t(a);
    free(a);
    for (int i = 0; i < 4; ++i)
        reinterpret_cast<volatile long *>(links)[i] = 0x4141414141414141;
    for (int i = 0; i < 100; ++i)
        sink = double(size_t(malloc(size_t(3000 + i * 64))));
    free(barrier);
}

void crashInArena()
{
    // The free memory at the end of the thread's arena is made unreadable: whoever takes from it holds the lock.
    const size_t size = 60000;
    void *volatile last = malloc(size);
    const auto behind = (uintptr_t(last) + size + 4095) & ~uintptr_t(4095);
    mprotect(reinterpret_cast<void *>(behind), 64 * 1024, PROT_NONE);
    for (int i = 0; i < 100; ++i)
        sink = double(size_t(malloc(size / 6)));
}

int crashOverflow(int depth)
{
    volatile char room[1024];
    room[0] = char(depth);
    return depth < 0 ? 0 : crashOverflow(depth + 1) + room[0];
}

[[gnu::noinline]] void smash()
{
    auto **stack = static_cast<void **>(__builtin_frame_address(0));
    for (int i = 0; i < 40; ++i)
        stack[i] = reinterpret_cast<void *>(0x1234567);
    crashNull();
}

void crashSmashed()
{
    volatile char room[1024]; // what is overwritten belongs to the crashing code, not to whoever goes on after it
    room[0] = 1;
    smash();
    sink = room[0];
}

void crashBadCall()
{
    auto nothing = reinterpret_cast<void (*)()>(0x10);
    void (*volatile call)() = nothing;
    call();
}

struct Crash
{
    const char *name;
    std::function<void()> provoke;
    bool survives;
};

QVector<Crash> crashes()
{
    return {{"null", crashNull, true}, {"overflow", [] { crashOverflow(0); }, true}, {"smashed", crashSmashed, true},
        {"badcall", crashBadCall, true}, {"malloc", crashInMalloc, false}, {"arena", crashInArena, false},
        {"stdout",
            [] {
                flockfile(stdout);
                flockfile(stderr);
                crashNull();
            },
            true}};
}

/// How the child finds addr2line: as it is, "missing", or as a program that never ends.
void chooseResolver(const char *kind, const QString &dir)
{
    if (!kind)
        return;
    QFile file(dir + QStringLiteral("/addr2line"));
    if (!strcmp(kind, "hanging") && !file.exists() && file.open(QFile::WriteOnly)) {
        file.write("#!/bin/sh\nexec /bin/sleep 100\n");
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    qputenv("PATH", dir.toLocal8Bit());
}

int beCrashing(const Crash &crash, int count, const QString &dir, const char *resolver)
{
    chooseResolver(resolver, dir);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    installErrorCatch(dir);
    ZELFault::setReportRate(0);
    int survived = 0;
    std::thread([&] {
        for (int i = 0; i < count; ++i) {
            const auto begin = nowUs();
            auto outcome = ZELFault::call(crash.provoke);
            record(begin);
            survived += outcome.state == SIGSEGV;
            ++progress->survived;
        }
    }).join();
    return survived == count ? 0 : 3;
}

/// How many complete reports there are: libraries, at least one frame, every frame with its four lines.
int completeReports(const QString &dir)
{
    int complete = 0;
    for (const QFileInfo &info : QDir(dir).entryInfoList({QStringLiteral("error-*.txt")})) {
        QFile file(info.filePath());
        if (!file.open(QFile::ReadOnly))
            continue;
        const QList<QByteArray> parts = file.readAll().replace("LibInfo :", "\x01").split('\x01');
        for (int i = 1; i < parts.size(); ++i) {
            const QByteArray stack = parts[i].mid(parts[i].indexOf("Stack :\r\n"));
            const int frames = stack.count("]\t\r\n");
            complete += frames > 0 && stack.count("Symbol   :") == frames && stack.count("Location :") == frames;
        }
    }
    return complete;
}

bool runCrash(const Crash &crash, int count, const char *resolver)
{
    QTemporaryDir dir;
    QElapsedTimer timer;
    timer.start();
    int good = 0;
    if (crash.survives) {
        good = watched([&] { return beCrashing(crash, count, dir.path(), resolver); }) == 0 ? count : 0;
    } else {
        for (int i = 0; i < count; ++i) {
            const int status = watched([&] { return beCrashing(crash, 1, dir.path(), resolver); });
            good += status != -1 && WIFSIGNALED(status) && (WTERMSIG(status) == SIGSEGV || WTERMSIG(status) == SIGABRT);
        }
    }
    const int complete = completeReports(dir.path());
    printf("crash %-10s %-7s %5d of %5d ended as promised, %d reports complete, worst %d us, %.1f s\n", crash.name,
        resolver ? resolver : "", good, count, complete, progress->worstUs.load(), double(timer.elapsed()) / 1000);
    return good == count && complete == count;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 4 || argc > 5) {
        fprintf(stderr, "usage: zel_torture kill|limit|crash|remote NAME|all COUNT [missing|hanging]\n");
        return 2;
    }
    const QByteArray mode = argv[1], name = argv[2];
    const int count = atoi(argv[3]);
    const char *resolver = argc == 5 ? argv[4] : nullptr;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    progress = static_cast<Progress *>(
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    bool good = true;
    for (const Scenario &scenario : scenarios) {
        if ((mode == "kill" || mode == "limit") && (name == "all" || name == scenario.name))
            good = runScenario(scenario, count, mode == "limit") && good;
    }
    for (const Crash &crash : crashes()) {
        if (mode == "crash" && (name == "all" || name == crash.name))
            good = runCrash(crash, count, resolver) && good;
    }
    if (mode == "remote")
        good = name == "exhausted" ? runExhausted() : runRemote(count);
    return good ? 0 : 1;
}
