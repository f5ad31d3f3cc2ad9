// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_QUIET_H
#define TESTS_SUPPORT_QUIET_H

#include <QString>
#include <atomic>
#include <cstdio>

/// Swallows and counts the messages of a scope. Qt Test's ignoreMessage() is not made for those of several threads.
class Quiet
{
public:
    ~Quiet() { qInstallMessageHandler(m_before); }
    static int count() { return s_count; }

private:
    static void swallow(QtMsgType, const QMessageLogContext &, const QString &) { ++s_count; }

    static inline std::atomic<int> s_count{0};
    const QtMessageHandler m_before = (s_count = 0, qInstallMessageHandler(swallow));
};

/// Drops debug messages from now on: thousands of lines help nobody.
inline void dropDebugMessages()
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
        if (type != QtDebugMsg)
            fprintf(stderr, "%s\n", qPrintable(text));
    });
}

#endif
