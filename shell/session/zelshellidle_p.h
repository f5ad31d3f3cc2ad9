// SPDX-License-Identifier: MIT
#ifndef ZELSHELLIDLE_P_H
#define ZELSHELLIDLE_P_H

#include <QtGlobal>
#include <memory>

class ZELShellPrivate;

/**
 * Ends remote sessions whose peer has sent nothing for their idle limit while no statement of theirs ran, and what runs
 * for peers that have gone for longer than the host allows.
 *
 * One thread serves all sessions of the process; it is there only while there are sessions to watch. It never waits for
 * a session.
 */
class ZELIdleWatch
{
public:
    /// Watches a session until it ends or its limits are taken off.
    static void add(const std::shared_ptr<ZELShellPrivate> &session);
    /// Its clock, in milliseconds.
    static qint64 now();
};

#endif
