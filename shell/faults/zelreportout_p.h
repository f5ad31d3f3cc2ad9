// SPDX-License-Identifier: MIT
#ifndef ZELREPORTOUT_P_H
#define ZELREPORTOUT_P_H

#include <cstddef>

/// Gathers one piece of the report and writes it at once. A failed write ends the output, not the report.
class ZELReportOut
{
public:
    explicit ZELReportOut(int fd)
        : m_fd(fd)
    {
    }
    /// Into memory.
    ZELReportOut(char *to, size_t size)
        : m_to(to)
        , m_size(size)
    {
    }
    ~ZELReportOut() { flush(); }
    ZELReportOut &text(const char *s)
    {
        for (; *s; ++s)
            add(*s);
        return *this;
    }
    ZELReportOut &number(unsigned long long n, unsigned base = 10, int digits = 1)
    {
        char reversed[24];
        int length = 0;
        for (; n || length < digits; n /= base)
            reversed[length++] = "0123456789abcdef"[n % base];
        while (length)
            add(reversed[--length]);
        return *this;
    }
    ZELReportOut &end() { return text("\r\n"); }
    void flush();
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

/// Local seconds since 1970, by the offset that holds at this moment. Async-signal-safe.
long long zelLocalSeconds();
/// Keeps what zelLocalSeconds() needs, of the time zone that is set now; normal context, often.
void zelNoteTimeZone();
/// "yyyy-MM-dd" of such seconds.
void zelPutDate(ZELReportOut &out, long long seconds);
/// "yyyy-MM-dd hh-mm-ss" of now.
void zelPutTime(ZELReportOut &out);

#endif
