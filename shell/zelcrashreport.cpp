// SPDX-License-Identifier: MIT
#include "zelcatch.h"
#include "zelguard_p.h"

#include <QDir>
#include <QFile>
#include <atomic>
#include <climits>
#include <cstring>
#include <unistd.h>

// Everything that errorDump() reaches is async-signal-safe: fixed buffers and write().

namespace {

std::atomic<bool> errorDumpOn{true};
std::atomic<bool> crashDumpOn{true};
char reportDirectory[PATH_MAX];

void put(const char *text, size_t length)
{
    while (length > 0) {
        const ssize_t written = write(STDERR_FILENO, text, length);
        if (written <= 0)
            return;
        text += written;
        length -= size_t(written);
    }
}

void put(const char *text)
{
    put(text, strlen(text));
}

void putNumber(unsigned number)
{
    char digits[12];
    char *p = digits + sizeof digits;
    do {
        *--p = char('0' + number % 10);
        number /= 10;
    } while (number);
    put(p, size_t(digits + sizeof digits - p));
}

constexpr char stars[] = "******************************************************\r\n";

} // namespace

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
    crashDumpOn = on;
}

bool zelCrashDumpWanted()
{
    return crashDumpOn;
}

void installErrorCatch(QString dir)
{
    const QByteArray path = QFile::encodeName(dir);
    if (!QDir(dir).exists() || size_t(path.size()) >= sizeof reportDirectory)
        return;
    memcpy(reportDirectory, path.constData(), size_t(path.size()) + 1);
}

void sigHandler(int sig)
{
    put(stars);
    put("                Dump Application Stack                \r\n");
    put(stars);
    put("Pelmora is in exiting process, sig ");
    putNumber(unsigned(sig));
    put("\r\n");
}

void errorDump(int sig)
{
    sigHandler(sig);
}
