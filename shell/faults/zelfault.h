// SPDX-License-Identifier: MIT
#ifndef ZELFAULT_H
#define ZELFAULT_H

#include "zelshell_export.h"

#include <QDateTime>
#include <QString>
#include <QStringList>
#include <Qt>
#include <functional>

/// How a guarded call ended. A value.
struct ZELFaultOutcome
{
    int state = 0; ///< 0 when the work ran to its end; else a signal number, 6 also for what was thrown or raised
    QString text; ///< what happened, as a command's error would say it
    QString where;
    explicit operator bool() const { return state == 0; }
};

/// What happened since the process began. A value.
struct ZELFaultCounters
{
    quint64 faults = 0; ///< fatal signals that became errors
    quint64 kills = 0;
    quint64 timeouts = 0;
    quint64 deferred = 0; ///< kills and time-outs that had to wait for a safe place
    quint64 forced = 0; ///< those that found none within the grace time: the process may be damaged
};

/// The last fault, kill or time-out that became an error. A value; time is invalid when there was none.
struct ZELFaultRecord
{
    QDateTime time;
    int state = 0;
    QString text;
    Qt::HANDLE threadId = nullptr;
    bool suspicious = false; ///< it happened inside of library code, or was forced
};

/**
 * Faults as a host sees them: guarded calls of its own, counters, reports and the restart policy. All functions may be
 * called from any thread.
 *
 *     auto outcome = ZELFault::call([&] { driver.poll(); }, 500, [] { Driver::reset(); });
 *     if (!outcome)
 *         qWarning() << "driver:" << outcome.text;
 *
 * Code that is left by a fault, a kill or a time-out runs no destructors: it holds its resources in objects that
 * outlive the call, and mutexes only inside of a ZELFaultSection. What a thrown exception leaves is destroyed as usual.
 */
class ZELSHELL_EXPORT ZELFault
{
public:
    /// Runs work in a try frame of its own, with a time limit in ms (0 for none). abandoned runs when the thread is
    /// ended by a kill meanwhile, so that call() does not return.
    static ZELFaultOutcome call(
        const std::function<void()> &work, int timeoutMs = 0, std::function<void()> abandoned = {});
    /// Takes a kill or time-out that waits for the calling thread, if any. For loops that hold nothing here.
    static void safePoint();

    static ZELFaultCounters counters();
    static ZELFaultRecord last();

    /// Whether a signal writes a crash report: at start SIGSEGV and SIGALRM (time-outs) do.
    static void setReport(int signal, bool on);
    /// How many full reports a second are written, 0 for all; 4 at start. The others are one line each, so that nobody
    /// waits when commands fault by the thousand.
    static void setReportRate(int perSecond);
    /// Permissions of the report files, for new and present ones: 0600 keeps what a stack shows to the owner. At start,
    /// and with a negative mode, new files get 0715.
    static void setReportMode(int mode);
    /// How long a kill or time-out looks for a safe place before it is forced; 3000 ms at start.
    static void setGraceTime(int ms);
    /// Asks for the restart (ReStartApplication()) after `faults` faults, 0 for never, or after a suspicious one.
    /// Both off at start.
    static void setRestartPolicy(int faults, bool afterSuspicious);
    /// What this platform lacks, one line for each fallback taken; empty when all is there. The first frame of the
    /// process logs them.
    static QStringList selfCheck();
};

/**
 * While one stands, kills and time-outs of the calling thread wait; the end of the outermost one takes them. Faults
 * do not wait. Put it before the lock that it protects:
 *
 *     ZELFaultSection section;
 *     QMutexLocker lock(&m_mutex);
 */
class ZELSHELL_EXPORT ZELFaultSection
{
public:
    ZELFaultSection();
    ~ZELFaultSection();
    ZELFaultSection(const ZELFaultSection &) = delete;
    ZELFaultSection &operator=(const ZELFaultSection &) = delete;
};

#endif
