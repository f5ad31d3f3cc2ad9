// SPDX-License-Identifier: MIT
#ifndef ZELTERMINAL_P_H
#define ZELTERMINAL_P_H

#include <functional>

class ZELStdDevice;

/**
 * The terminals that this process made raw, with the settings found, in a table that a signal handler can read.
 *
 * Everything but zelRestoreTerminals() is for normal context, from any thread.
 */

/// Makes the terminal raw; saves the settings found unless they are the raw ones set here before. False for what is no
/// terminal, and when too many are raw already.
bool zelTerminalEnterRaw(int fd);
/// Makes a terminal that should be raw raw again, whatever a command left behind; saves nothing.
void zelTerminalReenterRaw(int fd);
/// Puts back the settings found. Nothing when the terminal was not made raw here.
void zelTerminalLeaveRaw(int fd);

/// From now on the raw terminal leaves all keys to the program that reads it, Ctrl-S, Ctrl-Q, Ctrl-V and Ctrl-O too.
void zelTerminalTakeAllKeys(int fd);

/// Whether the descriptor is the terminal of a session: one that was made raw here, however it was opened.
bool zelTerminalIsRaw(int fd);

/// Lets Ctrl-C of a raw terminal raise SIGINT, keeping what was typed ahead, or takes that back. False when it cannot:
/// the terminal is not raw, or not the one that controls this process.
bool zelTerminalInterruptKey(int fd, bool on);

/// After a stop (SIGSTOP, SIGTSTP) the terminals that the process has in the foreground are raw again when it goes on.
/// This descriptor can be read then; -1 before the first terminal was made raw.
int zelTerminalResumeDescriptor();
/// Takes the news from the descriptor and calls what the calling thread has asked for.
void zelTerminalResumed();
/// What the calling thread wants done when it finds that the process goes on, such as drawing its line again.
void zelTerminalOnResume(std::function<void()> redraw);
/// What it wants done when a terminal's size has changed (SIGWINCH, where the host left the default).
void zelTerminalOnResize(std::function<void()> resized);

/// Closes the device and leaves its descriptor open, for another device.
void zelAbandonDescriptor(ZELStdDevice &device);

/// Puts back the settings of every terminal that is still raw. Async-signal-safe and repeatable: for the end of the
/// process, whatever brings it about.
void zelRestoreTerminals();

/// Opens /dev/null on standard descriptors that are closed. Called when the library is loaded: otherwise the first
/// descriptor that anybody opens becomes standard input, and the shell would read and write that.
void zelKeepStandardDescriptors();

/// Ignores SIGPIPE where the host left its default, so that a reader that goes away costs its output only.
void zelIgnoreBrokenPipes();

#endif
