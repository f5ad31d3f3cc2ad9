// SPDX-License-Identifier: MIT
#ifndef ZELSHELLFOREGROUND_P_H
#define ZELSHELLFOREGROUND_P_H

#include "zelguard_p.h"

#include <functional>
#include <mutex>

class ZELSessionOutput;

/**
 * The foreground statement of a terminal session, and Ctrl-C, which abandons it and nothing else.
 *
 * On the process's own terminal the key becomes a signal while a statement runs, so that nobody has to read ahead; a
 * remote terminal's byte is taken out of what its device has received. Everything else that is typed meanwhile waits
 * for whoever reads next, be it the command. While no statement runs the byte is an ordinary one.
 */
class ZELForeground
{
public:
    explicit ZELForeground(ZELSessionOutput &output);

    /// Runs the statement on the calling thread; false when it was abandoned. With atOnce it is so from the start.
    bool run(const std::function<void()> &statement, bool atOnce);
    /// From any thread: abandons the statement, if one runs.
    void interrupt();
    /// From any thread: the device has received bytes, the key may be among them.
    void noteInput();
    /// The key was pressed. Async-signal-safe.
    void noteKey(const ZELInterruptTarget &target);
    /// On the thread of the statement: whether that is being abandoned.
    bool isInterrupted() const { return m_interrupted; }

private:
    void begin();
    void end();

    ZELSessionOutput &m_output;
    std::mutex m_mutex; ///< guards the next two
    ZELInterruptTarget m_target{};
    bool m_keyIsSignal = false;
    std::atomic<bool> m_active{false};
    std::atomic<bool> m_interrupted{false};
};

#endif
