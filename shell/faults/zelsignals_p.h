// SPDX-License-Identifier: MIT
#ifndef ZELSIGNALS_P_H
#define ZELSIGNALS_P_H

#include "zelguard_p.h"

/// The innermost frame that a jump may lead to, null without one. For handlers and normal code alike.
ExceptionHelp *zelArmedFrame();
/// Where a kill leads: the outermost armed frame, or that inside of the running event loop; null when neither is there.
ExceptionHelp *zelKillTarget();
/// The outermost frame whose time limit was reached; null without one.
ExceptionHelp *zelLimitTarget();
/// Leaves everything inside of frame, which then holds `state`.
[[noreturn]] void zelJump(ExceptionHelp *frame, int state);

/// Jumps for what is pending, if the thread can be left where it is, or was interrupted; tries again otherwise.
void zelTakeWhereSafe();
/// Ends the repeated attempts of the calling thread. Async-signal-safe.
void zelStopRetrying();

/// Opens the signals of faults, which would end the process where they are blocked, and with `keep` those of kills and
/// time limits that are not in there.
void zelOpenSignals(const sigset_t *keep = nullptr);

/// The pages of the stack that only abandoned code has used: an overflow would keep 8 MB until the thread ends.
void zelGiveBackStack();

/// A timer that sends SIGALRM to the calling thread, for the frame of that generation, or with 0 for none; false when
/// the system has none left.
bool zelCreateTimer(timer_t *timer, int ms, unsigned generation);

/// For the lines of recvPauseSignal() and recvResumeSignal(), which handlers write.
void zelNoteApplicationName();

#endif
