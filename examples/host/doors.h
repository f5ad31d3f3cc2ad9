// SPDX-License-Identifier: MIT
#ifndef DOORS_H
#define DOORS_H

class ZELShellServer;

/// What this host wants in any case: a bound on what a remote session may send; Ctrl-C and UTF-8 for people.
void setLimits(ZELShellServer &server);

/// What --secure stands for: remote shells from this machine only (use a tunnel), with an account, without the
/// system's shell and the commands that harm the host, and not for longer than they are used.
void closeDoors(ZELShellServer &server);

#endif
