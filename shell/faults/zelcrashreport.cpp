// SPDX-License-Identifier: MIT
// Invariants: what errorDump() and sigHandler() reach is async-signal-safe and takes no memory: fixed buffers, write(),
// tables made beforehand. What may fault itself (the unwinder on a smashed stack, the symbol look-up) runs in
// attempt(), to which a fault returns. Everything that is certain is written before the first risk.
#include "zelcatch.h"
#include "zelcodemap_p.h"
#include "zelguard_p.h"
#include "zelresolver_p.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QSet>
#include <atomic>
#include <climits>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <mutex>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

namespace {

constexpr int maxFrames = 200;
constexpr long long timeForReport = 3000; // ms, all resolving together
constexpr char stars[] = "******************************************************";
constexpr char title[] = "                Dump Application Stack                ";

std::atomic<bool> errorDumpOn{true};
std::atomic<quint64> reportSignals{(quint64(1) << SIGSEGV) | (quint64(1) << SIGALRM)};
std::atomic<long> utcOffset{0};
char reportDirectory[PATH_MAX];
std::atomic<bool> haveDirectory{false};

std::atomic<int> reporter{0}; // kernel id of the thread that writes
uintptr_t frames[maxFrames];
int frameCount = 0;

/// Gathers one piece of the report and writes it at once. A failed write ends the output, not the report.
class Out
{
public:
    explicit Out(int fd)
        : m_fd(fd)
    {
    }
    /// Into memory.
    Out(char *to, size_t size)
        : m_to(to)
        , m_size(size)
    {
    }
    ~Out() { flush(); }
    Out &text(const char *s)
    {
        for (; *s; ++s)
            add(*s);
        return *this;
    }
    Out &number(unsigned long long n, unsigned base = 10, int digits = 1)
    {
        char reversed[24];
        int length = 0;
        for (; n || length < digits; n /= base)
            reversed[length++] = "0123456789abcdef"[n % base];
        while (length)
            add(reversed[--length]);
        return *this;
    }
    Out &end() { return text("\r\n"); }
    void flush()
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
    bool good() const { return m_fd >= 0; }
    size_t length() const { return m_length; }

private:
    void add(char c)
    {
        if (m_length == m_size)
            flush();
        m_to[m_length++] = c;
    }
    int m_fd = -1;
    size_t m_length = 0;
    char m_buffer[1024];
    char *m_to = m_buffer;
    size_t m_size = sizeof m_buffer;
};

/// Days since 1970 to a civil date, in the proleptic Gregorian calendar.
void putDate(Out &out, long long seconds)
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

long long localSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec + utcOffset.load();
}

void putTime(Out &out)
{
    const long long now = localSeconds();
    putDate(out, now);
    out.text(" ").number(unsigned(now / 3600 % 24), 10, 2).text("-");
    out.number(unsigned(now / 60 % 60), 10, 2).text("-").number(unsigned(now % 60), 10, 2);
}

int openFile()
{
    if (!errorDumpOn || !haveDirectory)
        return -1;
    static char path[PATH_MAX + 32];
    size_t length = strlen(strcpy(path, reportDirectory));
    length += size_t(stpcpy(path + length, "/error-") - (path + length));
    Out date(path + length, 16);
    putDate(date, localSeconds());
    strcpy(path + length + date.length(), ".txt");
    return open(path, O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC, 0715);
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

void putLibraries(Out &out)
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

void putSymbol(Out &out, uintptr_t address)
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

void putConsoleFrame(Out &out, int index)
{
    out.text("[").number(unsigned(index)).text("]").end().text("  Symbol:   ");
    putSymbol(out, frames[index]);
    out.end().text("  Address:  0x").number(frames[index], 16).end();
    const ZELPlaceName *name = zelResolved(frames[index]);
    out.text("  Function: ").text(name ? name->function : "").end();
    out.text("  Location: ").text(name ? name->location : "").end();
    out.flush();
}

void putFileFrame(Out &out, int index)
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
        for (int i = 0; i < 3000; ++i) {
            int free = 0;
            if (reporter.compare_exchange_strong(free, self)) {
                m_mine = true;
                return;
            }
            if (free == self)
                return; // a fault of the report itself
            const timespec ms{0, 1000000};
            nanosleep(&ms, nullptr);
        }
    }
    ~Turn()
    {
        if (m_mine)
            reporter = 0;
    }
    explicit operator bool() const { return m_mine; }

private:
    bool m_mine = false;
};

void putBanner(Out &out, int sig)
{
    out.text(stars).end().text(title).end().text(stars).end();
    out.text("Pelmora is in exiting process, sig ").number(unsigned(sig)).end();
    out.flush();
}

void putConsoleFrames(Out &out)
{
    for (int i = 0; i < frameCount; ++i)
        putConsoleFrame(out, i);
}

void writeReport(int sig, bool whole)
{
    void *context = zelThreadFaults.context;
    Out console(STDERR_FILENO);
    putBanner(console, sig);
    const int fd = whole ? openFile() : -1;
    Out file(fd);
    if (file.good()) {
        file.end().end().text(stars).end().text(title).end().text("   time :");
        putTime(file);
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
    if (fd >= 0)
        close(fd);
}

} // namespace

bool zelReportFaulted()
{
    int self = int(syscall(SYS_gettid));
    return reporter.compare_exchange_strong(self, 0);
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
    utcOffset = QDateTime::currentDateTime().offsetFromUtc();
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

void sigHandler(int sig)
{
    if (Turn turn{})
        writeReport(sig, false);
}

void errorDump(int sig)
{
    if (Turn turn{})
        writeReport(sig, true);
}
