// SPDX-License-Identifier: MIT
#ifndef PROCESSFIGURES_H
#define PROCESSFIGURES_H

/// What a process uses at the moment, or the sum over it and its descendants.
struct ProcInfo
{
    long procs = 0, rssKb = 0, pssKb = 0, threads = 0, fds = 0;
    double cpuMs = 0;
};

ProcInfo readProc(int pid, bool tree);

#endif
