// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_PTYPAIR_H
#define TESTS_SUPPORT_PTYPAIR_H

#include <QtTest>
#include <cstring>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

/// A terminal of 77 columns with both its ends in the test.
struct Pty
{
    Pty()
    {
        const winsize size = {24, 77, 0, 0};
        if (openpty(&master, &slave, nullptr, nullptr, &size) != 0)
            qFatal("no pty");
    }
    ~Pty()
    {
        close(master);
        close(slave);
    }
    termios settings() const
    {
        termios result;
        tcgetattr(slave, &result);
        return result;
    }
    bool isRaw() const { return !(settings().c_lflag & (ICANON | ECHO | ISIG)); }
    bool is(const termios &other) const
    {
        const termios now = settings();
        return now.c_lflag == other.c_lflag && memcmp(now.c_cc, other.c_cc, sizeof now.c_cc) == 0;
    }
    void type(const QByteArray &keys) const
    {
        QCOMPARE(::write(master, keys.constData(), size_t(keys.size())), ssize_t(keys.size()));
    }
    /// What is shown next, of that size: the kernel may hand it over in pieces.
    QByteArray shown(int size) const
    {
        QByteArray text;
        char byte;
        while (text.size() < size && ::read(master, &byte, 1) == 1)
            text += byte;
        return text;
    }
    int master = -1;
    int slave = -1;
};

/// Puts a descriptor in the place of standard input.
class StandardInput
{
public:
    explicit StandardInput(int fd) { dup2(fd, STDIN_FILENO); }
    ~StandardInput()
    {
        dup2(m_saved, STDIN_FILENO);
        close(m_saved);
    }

private:
    const int m_saved = dup(STDIN_FILENO);
};

#endif
