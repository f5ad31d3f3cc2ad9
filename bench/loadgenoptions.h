// SPDX-License-Identifier: MIT
#ifndef LOADGENOPTIONS_H
#define LOADGENOPTIONS_H

#include <string>

struct Options
{
    std::string mode, host = "127.0.0.1", hello, helloUntil, request, until, expect, bye;
    int port = 0, conns = 1, depth = 1, burst = 256, pid = 0, requests = 1000;
    double duration = 10, timeoutMs = 5000, deadline = 0, hold = 1;
    bool tree = false, json = false, quickack = false;
};

/// Reads the command line; the exit status when the program is to end at once, else -1.
int readOptions(int argc, char **argv, Options &o);

#endif
