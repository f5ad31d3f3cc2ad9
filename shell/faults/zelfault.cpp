// SPDX-License-Identifier: MIT
#include "zelfault.h"
#include "zelcodemap_p.h"
#include "zelguard_p.h"
#include "zelsignals_p.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <dlfcn.h>
#include <mutex>
#include <sys/resource.h>

ZELFaultCounts zelFaultCounts;

namespace {

std::atomic<int> restartAfter{0};
std::atomic<bool> restartWhenSuspicious{false};
std::atomic<bool> restartAsked{false};

struct Last
{
    std::mutex mutex;
    ZELFaultRecord record;
};

Last &last()
{
    static auto *instance = new Last; // threads may outlive the statics
    return *instance;
}

void askForRestart()
{
    if (restartAsked.exchange(true) || !QCoreApplication::instance())
        return;
    qWarning("ZELFault: the restart policy asks for a restart after a fault");
    QMetaObject::invokeMethod(QCoreApplication::instance(), ReStartApplication, Qt::QueuedConnection);
}

quint64 limitOf(int resource)
{
    rlimit limit{};
    return getrlimit(__rlimit_resource(resource), &limit) == 0 ? quint64(limit.rlim_cur) : ~quint64(0);
}

quint64 numberIn(const char *path)
{
    QFile file(QString::fromLatin1(path));
    bool ok = false;
    const quint64 number = file.open(QFile::ReadOnly) ? file.readAll().trimmed().toULongLong(&ok) : 0;
    return ok ? number : ~quint64(0);
}

} // namespace

void zelCountJump(const ExceptionHelp *frame)
{
    ZELThreadFaults &self = zelThreadFaults;
    const bool forced = std::exchange(self.forced, false);
    const bool fault = std::exchange(self.faulted, false);
    const bool suspicious = std::exchange(self.suspicious, false) || forced;
    if (frame->state == SIGQUIT || frame->state == SIGALRM)
        ++(frame->state == SIGQUIT ? zelFaultCounts.kills : zelFaultCounts.limits);
    else if (!fault)
        return; // raised or thrown: an error like others
    const quint64 faults = fault ? ++zelFaultCounts.faults : zelFaultCounts.faults.load();
    if (forced) {
        ++zelFaultCounts.forced;
        qWarning("ZELFault: a thread was stopped in the middle of library code; the process may be damaged");
    }
    {
        std::lock_guard<std::mutex> lock(last().mutex);
        last().record
            = {QDateTime::currentDateTime(), frame->state, frame->exception->ToString(), frame->threadId, suspicious};
    }
    const int limit = restartAfter;
    if ((limit > 0 && fault && faults >= quint64(limit)) || (suspicious && restartWhenSuspicious))
        askForRestart();
}

ZELFaultOutcome ZELFault::call(const std::function<void()> &work, int timeoutMs, std::function<void()> abandoned)
{
    ZELFrame frame;
    frame->timeoutMs = timeoutMs;
    frame->abandoned = std::move(abandoned);
    ZELFaultOutcome outcome;
    outcome.state = zelGuard(frame.get(), work);
    if (frame->caught) {
        outcome.text = frame->exception->ToString();
        outcome.where = frame->exception->where();
    }
    return outcome;
}

void ZELFault::safePoint()
{
    zelSafePoint();
}

ZELFaultCounters ZELFault::counters()
{
    ZELFaultCounters result;
    result.faults = zelFaultCounts.faults;
    result.kills = zelFaultCounts.kills;
    result.timeouts = zelFaultCounts.limits;
    result.deferred = zelFaultCounts.deferred;
    result.forced = zelFaultCounts.forced;
    return result;
}

ZELFaultRecord ZELFault::last()
{
    ZELCriticalSection section;
    std::lock_guard<std::mutex> lock(::last().mutex);
    return ::last().record;
}

void ZELFault::setReport(int signal, bool on)
{
    zelSetReport(signal, on);
}

void ZELFault::setReportRate(int perSecond)
{
    zelSetReportRate(perSecond);
}

void ZELFault::setReportMode(int mode)
{
    zelSetReportMode(mode);
}

void ZELFault::setGraceTime(int ms)
{
    zelGraceTime = ms;
}

void ZELFault::setRestartPolicy(int faults, bool afterSuspicious)
{
    restartAfter = faults;
    restartWhenSuspicious = afterSuspicious;
    restartAsked = false;
}

QStringList ZELFault::selfCheck()
{
    QStringList lines;
    if (!dlsym(RTLD_DEFAULT, "_dl_find_object"))
        lines << QStringLiteral("C library before 2.35: walking a stopped thread's stack takes the loader's lock; "
                                "kills and reports may wait for a thread that loads a library");
    if (!zelReportHasResolver())
        lines << QStringLiteral("addr2line not found: crash reports name symbols without lines");
    if (numberIn("/proc/sys/vm/max_map_count") < 20000)
        lines << QStringLiteral("vm.max_map_count below 20000: about a thread for every two mappings");
    if (limitOf(RLIMIT_NOFILE) < 1024)
        lines << QStringLiteral("fewer than 1024 descriptors: remote shells are refused early");
    if (qMin(limitOf(RLIMIT_NPROC), numberIn("/proc/sys/kernel/threads-max")) < 256)
        lines << QStringLiteral("fewer than 256 threads allowed: sessions may fail to start");
    return lines;
}

ZELFaultSection::ZELFaultSection()
{
    zelEnterCritical();
}

ZELFaultSection::~ZELFaultSection()
{
    zelLeaveCritical();
}
