// SPDX-License-Identifier: MIT
#ifndef ZELSHELLIDLE_P_H
#define ZELSHELLIDLE_P_H

#include <memory>

class ZELShellPrivate;

/**
 * Ends remote sessions whose peer has sent nothing for their idle limit while no statement of theirs ran.
 *
 * One thread serves all sessions of the process; it is there only while there are sessions with a limit.
 */
class ZELIdleWatch
{
public:
    /// Watches a session until it ends or its limit is taken off.
    static void add(const std::shared_ptr<ZELShellPrivate> &session);
};

#endif
