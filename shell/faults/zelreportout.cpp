// SPDX-License-Identifier: MIT
#include "zelguard_p.h"
#include "zelreportout_p.h"

#include <QDateTime>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <time.h>
#include <unistd.h>

namespace {

/// Of the moment, and after the next change of the clocks: a command may run for months.
struct Offset
{
    std::atomic<long> now{0};
    std::atomic<long> later{0};
    std::atomic<long long> from{INT64_MAX}; ///< when that begins to hold
};
Offset offset;

long offsetAt(time_t time)
{
    return QDateTime::fromSecsSinceEpoch(time).offsetFromUtc(); // Qt's guard of the environment is taken
}

/// The first second of another offset, within `before` and `after`.
time_t changeBetween(time_t before, time_t after)
{
    const long old = offsetAt(before);
    while (after - before > 1) {
        const time_t middle = before + (after - before) / 2;
        (offsetAt(middle) == old ? before : after) = middle;
    }
    return after;
}

void findChange(time_t now)
{
    constexpr time_t week = 7 * 86400;
    offset.from = INT64_MAX;
    for (time_t time = now; time < now + 53 * week; time += week) {
        if (offsetAt(time) == offsetAt(time + week))
            continue;
        offset.later = offsetAt(time + week);
        offset.from = changeBetween(time, time + week);
        return;
    }
}

} // namespace

void zelNoteTimeZone()
{
    static std::mutex mutex;
    static std::atomic<time_t> last{0};
    static time_t searched = 0;
    const time_t now = time(nullptr);
    if (now == last)
        return;
    ZELCriticalSection section;
    std::unique_lock<std::mutex> lock(mutex, std::try_to_lock);
    if (!lock)
        return; // somebody else is at it
    last = now;
    const long present = offsetAt(now);
    if (present != offset.now || now / 3600 != searched)
        findChange(now);
    searched = now / 3600;
    offset.now = present;
}

long long zelLocalSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec + (now.tv_sec < offset.from ? offset.now : offset.later);
}

void ZELReportOut::flush()
{
    const char *from = m_buffer;
    while (m_length > 0 && m_fd >= 0) {
        const ssize_t written = write(m_fd, from, m_length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            m_fd = -1;
        from += written;
        m_length -= size_t(qMax<ssize_t>(written, 0));
    }
    m_length = 0;
}

/// Days since 1970 to a civil date, in the proleptic Gregorian calendar.
void zelPutDate(ZELReportOut &out, long long seconds)
{
    const long long z = seconds / 86400 + 719468;
    const long long era = z / 146097;
    const auto dayOfEra = unsigned(z - era * 146097);
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned shifted = (5 * dayOfYear + 2) / 153;
    const unsigned month = shifted < 10 ? shifted + 3 : shifted - 9;
    out.number(unsigned(yearOfEra + unsigned(era) * 400 + (month <= 2))).text("-").number(month, 10, 2).text("-");
    out.number(dayOfYear - (153 * shifted + 2) / 5 + 1, 10, 2);
}

void zelPutTime(ZELReportOut &out)
{
    const long long now = zelLocalSeconds();
    zelPutDate(out, now);
    out.text(" ").number(unsigned(now / 3600 % 24), 10, 2).text("-");
    out.number(unsigned(now / 60 % 60), 10, 2).text("-").number(unsigned(now % 60), 10, 2);
}
