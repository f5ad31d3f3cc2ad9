// SPDX-License-Identifier: MIT
// Invariants: what errorDump() and sigHandler() reach is async-signal-safe and takes no memory: fixed buffers, write(),
// tables made beforehand. What may fault itself (the unwinder on a smashed stack, the symbol look-up) runs in
// attempt(), to which a fault returns. Everything that is certain is written before the first risk.
#include "zelcatch.h"
#include "zelcodemap_p.h"
#include "zelguard_p.h"
#include "zelreportout_p.h"
#include "zelresolver_p.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QSet>
#include <atomic>
#include <climits>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <mutex>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

namespace {

constexpr int maxFrames = 200;
constexpr long long timeForReport = 3000; // ms, all resolving together
constexpr long long timeForTurn = 3000;
constexpr int shortLines = 100; // a second
constexpr char stars[] = "******************************************************";
constexpr char title[] = "                Dump Application Stack                ";

std::atomic<bool> errorDumpOn{true};
std::atomic<int> reportMode{-1}; // as described, unless it was set
std::atomic<int> reportRate{4};
std::atomic<quint64> reportSignals{(quint64(1) << SIGSEGV) | (quint64(1) << SIGALRM)};
char reportDirectory[PATH_MAX];
std::atomic<bool> haveDirectory{false};

std::atomic<int> reporter{0}; // kernel id of the thread that writes
uintptr_t frames[maxFrames];
int frameCount = 0;
int reportFile = -1; // open while the reporter writes

int openFile()
{
    if (!errorDumpOn || !haveDirectory)
        return -1;
    char path[PATH_MAX + 32]; // several threads may write a line each
    size_t length = strlen(strcpy(path, reportDirectory));
    length += size_t(stpcpy(path + length, "/error-") - (path + length));
    ZELReportOut date(path + length, 16);
    zelPutDate(date, zelLocalSeconds());
    strcpy(path + length + date.length(), ".txt");
    const int mode = reportMode;
    const int file
        = open(path, O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW, mode < 0 ? 0715 : mode);
    if (file >= 0 && mode >= 0)
        fchmod(file, mode_t(mode)); // of a file that was there before, too
    return file;
}

/// Lets the next one write.
void endReport()
{
    if (reportFile >= 0)
        close(reportFile);
    reportFile = -1;
    reporter = 0;
    syscall(SYS_futex, &reporter, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

/// Whether a module of that file comes before: it has more than one executable mapping.
bool isRepeated(size_t index)
{
    for (size_t i = 0; i < index; ++i) {
        if (strcmp(zelModule(i)->path, zelModule(index)->path) == 0)
            return true;
    }
    return false;
}

void putLibraries(ZELReportOut &out)
{
    out.text("LibInfo :").end().text("Name | Address Start | Address End | Length").end();
    for (size_t i = 0; i < zelModuleCount(); ++i) {
        const ZELModule *module = zelModule(i);
        if (isRepeated(i))
            continue;
        out.text(module->path).text(" ").number(module->start, 16).text(" ").number(module->end, 16).text(" ");
        out.number(module->end - module->start, 16).end();
    }
}

/// The name of the nearest exported symbol before the address, as it is in the library.
struct Symbol
{
    uintptr_t address;
    Dl_info info;
};

void lookUp(void *symbol)
{
    auto *s = static_cast<Symbol *>(symbol);
    if (!dladdr(reinterpret_cast<void *>(s->address), &s->info))
        s->info = {};
}

void putSymbol(ZELReportOut &out, uintptr_t address)
{
    Symbol symbol{address, {}};
    zelAttempt(lookUp, &symbol);
    const ZELModule *module = zelModuleAt(address);
    out.text(module ? module->path : "").text("(");
    if (symbol.info.dli_sname)
        out.text(symbol.info.dli_sname)
            .text("+0x")
            .number(address - reinterpret_cast<uintptr_t>(symbol.info.dli_saddr), 16);
    else if (module)
        out.text("+0x").number(address - module->base, 16);
    out.text(") [0x").number(address, 16).text("]");
}

/// Frames whose lines are wanted: this library, others of its family, and the program.
bool isOwn(const ZELModule *module)
{
    if (!module)
        return false;
    const char *slash = strrchr(module->path, '/');
    return module->code == ZELCode::Own || module->program || strncmp(slash ? slash + 1 : module->path, "zel", 3) == 0;
}

void putConsoleFrame(ZELReportOut &out, int index)
{
    out.text("[").number(unsigned(index)).text("]").end().text("  Symbol:   ");
    putSymbol(out, frames[index]);
    out.end().text("  Address:  0x").number(frames[index], 16).end();
    const ZELPlaceName *name = zelResolved(frames[index]);
    out.text("  Function: ").text(name ? name->function : "").end();
    out.text("  Location: ").text(name ? name->location : "").end();
    out.flush();
}

void putFileFrame(ZELReportOut &out, int index)
{
    const ZELModule *module = zelModuleAt(frames[index]);
    const ZELPlaceName *name = zelResolved(frames[index]);
    const bool own = isOwn(module);
    out.text("[").number(unsigned(index)).text("]\t").end().text("Symbol   :");
    if (own)
        out.text(module->path).text(" in symbol :'");
    putSymbol(out, frames[index]);
    out.text(own ? "'" : "").end().text("Address  :0x").number(frames[index], 16).end();
    if (own) {
        out.text("Function : in function :'").text(name ? name->function : "").text("'").end();
        out.text("Location : in file :'").text(name ? name->location : "").text("'").end();
    } else {
        out.text("Function :Extern Symbol").end().text("Location :Extern Symbol").end();
    }
    out.flush();
}

/// A call through a bad pointer: the unwinder knows nothing there, but the caller's address is at hand.
uintptr_t returnAddress(const ucontext_t *context)
{
#if defined(__x86_64__)
    return *reinterpret_cast<const uintptr_t *>(context->uc_mcontext.gregs[REG_RSP]);
#else
    return uintptr_t(context->uc_mcontext.regs[30]);
#endif
}

void collect(void *context)
{
    if (!context) {
        frameCount = zelBacktrace(nullptr, frames, maxFrames);
        return;
    }
    frames[0] = zelInterruptedAt(context);
    frameCount = 1;
    if (!zelModuleAt(frames[0])) {
        frames[1] = returnAddress(static_cast<ucontext_t *>(context)) - 1;
        frameCount = 1 + (zelModuleAt(frames[1]) != nullptr);
    }
    static uintptr_t walked[maxFrames];
    const int count = zelBacktrace(context, walked, maxFrames);
    if (count > frameCount) {
        memcpy(frames, walked, sizeof(uintptr_t) * size_t(count));
        frameCount = count;
    }
}

void resolveAll(void *)
{
    zelResolve(frames, frameCount, false, zelMonotonicMs() + timeForReport);
}

const char *messageOf(int sig)
{
    switch (sig) {
    case SIGBUS:
        return "Bus error";
    case SIGTRAP:
        return "Hardwave error"; // the spellings are part of the interface
    case SIGABRT:
        return "Application about";
    case SIGILL:
        return "Illegal command";
    case SIGSEGV:
        return "Segmentation fault (core dumped) ";
    case SIGXCPU:
        return "Cpu time error";
    case SIGXFSZ:
        return "Application or file io error";
    case SIGFPE:
        return "Float error";
    default:
        return "Unknow error";
    }
}

/// One report at a time; whoever cannot have the turn within three seconds goes without.
class Turn
{
public:
    Turn()
    {
        const int self = int(syscall(SYS_gettid));
        zelThreadFaults.reporting = true;
        for (const long long end = zelMonotonicMs() + timeForTurn; !m_mine && zelMonotonicMs() < end;) {
            int holder = 0;
            m_mine = reporter.compare_exchange_strong(holder, self);
            if (holder == self)
                return; // a fault of the report itself
            if (!m_mine)
                sleepWhile(holder);
        }
    }
    ~Turn()
    {
        if (m_mine)
            endReport();
        zelThreadFaults.reporting = false;
    }
    explicit operator bool() const { return m_mine; }

private:
    /// Not for long at once: the holder may be ended without a word.
    static void sleepWhile(int holder)
    {
        const timespec atMost{0, 100000000};
        syscall(SYS_futex, &reporter, FUTEX_WAIT_PRIVATE, holder, &atMost, nullptr, 0);
    }
    bool m_mine = false;
};

/// How many faults came in the present second. Faults by the thousand would keep everybody waiting for their reports.
int countInSecond()
{
    static std::atomic<long long> second{0};
    static std::atomic<int> count{0};
    const long long now = zelMonotonicMs() / 1000;
    if (second.exchange(now) != now)
        count = 0;
    return ++count;
}

/// In place of a report: one line, in one write, of which nobody has to wait for anybody.
void putShort(int sig, int count, bool whole)
{
    zelThreadFaults.reporting = true;
    char line[160];
    ZELReportOut text(line, sizeof line);
    text.text("Pelmora is in exiting process, sig ").number(unsigned(sig)).text(", no full report: fault ");
    text.number(unsigned(count)).text(" of this second").end();
    const int file = whole ? openFile() : -1;
    for (const int fd : {int(STDERR_FILENO), file}) {
        if (fd >= 0 && write(fd, line, text.length()) < 0)
            continue; // nobody is left to tell
    }
    if (file >= 0)
        close(file);
    zelThreadFaults.reporting = false;
}

void putBanner(ZELReportOut &out, int sig)
{
    out.text(stars).end().text(title).end().text(stars).end();
    out.text("Pelmora is in exiting process, sig ").number(unsigned(sig)).end();
    out.flush();
}

void putConsoleFrames(ZELReportOut &out)
{
    for (int i = 0; i < frameCount; ++i)
        putConsoleFrame(out, i);
}

void writeReport(int sig, bool whole)
{
    void *context = zelThreadFaults.context;
    ZELReportOut console(STDERR_FILENO);
    putBanner(console, sig);
    reportFile = whole ? openFile() : -1;
    ZELReportOut file(reportFile);
    if (file.good()) {
        file.end().end().text(stars).end().text(title).end().text("   time :");
        zelPutTime(file);
        file.end().text(stars).end();
        putLibraries(file);
        file.text("Stack :").end().flush();
    }
    frameCount = 0;
    zelAttempt(collect, context);
    zelAttempt(resolveAll, nullptr);
    putConsoleFrames(console);
    if (whole)
        console.text("level = ").number(unsigned(frameCount)).end().text(messageOf(sig)).end().flush();
    for (int i = 0; file.good() && i < frameCount; ++i)
        putFileFrame(file, i);
    file.flush();
}

} // namespace

bool zelReportFaulted()
{
    if (!zelThreadFaults.reporting || reporter != int(syscall(SYS_gettid)))
        return false;
    endReport();
    return true;
}

/// Once for each library, however often the map is made anew.
static void logRepeated()
{
    static std::mutex mutex;
    static auto *logged = new QSet<QByteArray>;
    std::lock_guard<std::mutex> lock(mutex);
    for (size_t i = 0; i < zelModuleCount(); ++i) {
        const QByteArray path = zelModule(i)->path;
        if (!isRepeated(i) || logged->contains(path))
            continue;
        logged->insert(path);
        qDebug("waring: lib '%s' is reloaded", path.constData()); // the spelling is part of the interface
    }
}

void zelPrepareReport()
{
    ZELCriticalSection section;
    zelRefreshCodeMap();
    logRepeated();
    zelFindResolver();
    zelNoteTimeZone();
}

bool zelReportHasResolver()
{
    return zelHaveResolver();
}

bool zelReportWanted(int sig)
{
    return sig > 0 && sig < 64 && (reportSignals >> sig & 1);
}

void zelSetReport(int sig, bool on)
{
    if (sig <= 0 || sig >= 64)
        return;
    if (on)
        reportSignals |= quint64(1) << sig;
    else
        reportSignals &= ~(quint64(1) << sig);
}

void zelSetReportRate(int perSecond)
{
    reportRate = perSecond;
}

void zelSetReportMode(int mode)
{
    reportMode = mode;
}

void enable_error_dump()
{
    errorDumpOn = true;
}

void disable_error_dump()
{
    errorDumpOn = false;
}

void zelSetCrashDump(bool on)
{
    zelSetReport(SIGSEGV, on);
}

void installErrorCatch(QString dir)
{
    const QByteArray path = QFile::encodeName(dir);
    if (!QDir(dir).exists() || dir.isEmpty() || size_t(path.size()) >= sizeof reportDirectory)
        return;
    zelPrepareReport();
    haveDirectory = false;
    memcpy(reportDirectory, path.constData(), size_t(path.size()) + 1);
    haveDirectory = true;
}

static void report(int sig, bool whole)
{
    const int rate = reportRate, count = rate > 0 ? countInSecond() : 0;
    if (count > rate + shortLines)
        return;
    if (count > rate)
        return putShort(sig, count, whole);
    if (Turn turn{})
        writeReport(sig, whole);
}

void sigHandler(int sig)
{
    report(sig, false);
}

void errorDump(int sig)
{
    report(sig, true);
}
