// SPDX-License-Identifier: MIT
#ifndef TERMINAL_H
#define TERMINAL_H

#include "status.h"

#include <QByteArray>
#include <QString>
#include <mutex>

class ZELShellClient;

/**
 * A session on this terminal: keys go to the host as they are typed, and what it writes is shown as it comes; Ctrl-]
 * leaves. The terminal is put back at every end, that by a signal included.
 *
 * Made before the client connects; stands until the client has closed.
 */
class Terminal
{
public:
    explicit Terminal(ZELShellClient &client);
    ~Terminal();
    /// Success when the person ended it, here or there.
    Status run(const QString &address);

private:
    bool sendKeys(int ended);
    bool wasToldToEnd() const;

    ZELShellClient &m_client;
    std::mutex m_mutex;
    QByteArray m_lastShown;
    QByteArray m_lastTyped;
    std::unique_lock<std::mutex> m_bannerFirst; ///< holds back what the host writes behind its banner
};

/// Reads a line from the terminal without showing it.
QString askPassword();

#endif
