// SPDX-License-Identifier: MIT
#include "zelshellforeground_p.h"

#include "zelshellstate_p.h"

#include <signal.h>
#include <thread>

namespace {

const char interruptByte = 3;

/**
 * The key of the process's terminal: while a statement runs, SIGINT is the terminal's message that it was pressed.
 * There is one such terminal and one session on it.
 */
class TerminalKey
{
public:
    static void begin(ZELForeground *foreground, ZELInterruptTarget target)
    {
        s_target = target;
        s_foreground = foreground;
        struct sigaction action
        {
        };
        action.sa_handler = onSignal;
        action.sa_flags = SA_RESTART | SA_ONSTACK;
        sigaddset(&action.sa_mask, SIGQUIT); // the jump must not come out of this handler
        sigaction(SIGINT, &action, &s_found);
    }
    static void end()
    {
        sigaction(SIGINT, &s_found, nullptr);
        s_foreground = nullptr;
        while (s_handling)
            std::this_thread::yield();
    }

private:
    static void onSignal(int)
    {
        ++s_handling;
        if (ZELForeground *foreground = s_foreground)
            foreground->noteKey(s_target);
        --s_handling;
    }

    static inline std::atomic<ZELForeground *> s_foreground{nullptr};
    static inline std::atomic<int> s_handling{0};
    static inline ZELInterruptTarget s_target{};
    static inline struct sigaction s_found = {};
};

} // namespace

ZELForeground::ZELForeground(ZELSessionOutput &output)
    : m_output(output)
{
}

void ZELForeground::begin()
{
    ZELSessionLock lock(m_mutex);
    m_interrupted = false;
    m_target = zelInterruptTarget();
    m_active = true;
    m_keyIsSignal = m_output.enableInterruptKey(true);
    if (m_keyIsSignal)
        TerminalKey::begin(this, m_target);
}

void ZELForeground::end()
{
    ZELSessionLock lock(m_mutex);
    m_active = false;
    if (!std::exchange(m_keyIsSignal, false))
        return;
    TerminalKey::end();
    m_output.enableInterruptKey(false);
}

bool ZELForeground::run(const std::function<void()> &statement, bool atOnce)
{
    ZELFrame frame;
    frame->link.interruptible = true;
    frame->abandoned = [this] { end(); };
    const int state = zelGuard(frame.get(), [&] {
        begin();
        if (atOnce)
            interrupt();
        statement();
    });
    end();
    if (state && state != SIGINT)
        zelRaise(frame.take(), state);
    return state == 0;
}

void ZELForeground::interrupt()
{
    ZELSessionLock lock(m_mutex);
    if (m_active)
        noteKey(m_target);
}

void ZELForeground::noteKey(const ZELInterruptTarget &target)
{
    m_interrupted = true;
    zelInterrupt(target);
}

void ZELForeground::noteInput()
{
    if (m_active && m_output.takeByte(interruptByte))
        interrupt();
}
