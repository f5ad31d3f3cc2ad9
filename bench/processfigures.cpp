// SPDX-License-Identifier: MIT
#include "processfigures.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

static void addProc(const std::string &base, ProcInfo &p)
{
    std::string line, word;
    std::ifstream status(base + "status"), rollup(base + "smaps_rollup"), stat(base + "stat");
    if (!status)
        return;
    ++p.procs;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0)
            p.rssKb += atol(line.c_str() + 6);
        if (line.compare(0, 8, "Threads:") == 0)
            p.threads += atol(line.c_str() + 8);
    }
    while (std::getline(rollup, line))
        if (line.compare(0, 4, "Pss:") == 0)
            p.pssKb += atol(line.c_str() + 4);
    if (DIR *d = opendir((base + "fd").c_str())) {
        while (dirent *e = readdir(d))
            p.fds += e->d_name[0] != '.';
        closedir(d);
    }
    std::getline(stat, line);
    std::istringstream f(line.substr(std::min(line.size(), line.rfind(')') + 2)));
    for (int i = 3; i < 14 && f >> word; ++i) { }
    for (long ticks, i = 0; i < 4 && f >> ticks; ++i)
        p.cpuMs += double(ticks) * 1000 / double(sysconf(_SC_CLK_TCK));
}

ProcInfo readProc(int pid, bool tree)
{
    ProcInfo p;
    std::vector<int> todo;
    std::multimap<int, int> kids;
    if (pid)
        todo.push_back(pid);
    DIR *d = pid && tree ? opendir("/proc") : nullptr;
    while (dirent *e = d ? readdir(d) : nullptr) {
        if (!isdigit(static_cast<unsigned char>(e->d_name[0])))
            continue;
        std::ifstream f("/proc/" + std::string(e->d_name) + "/stat");
        std::string line;
        std::getline(f, line);
        const size_t r = line.rfind(')');
        if (r != std::string::npos && r + 4 < line.size())
            kids.emplace(atoi(line.c_str() + r + 4), atoi(e->d_name));
    }
    if (d)
        closedir(d);
    while (!todo.empty()) {
        const int q = todo.back();
        todo.pop_back();
        addProc("/proc/" + std::to_string(q) + "/", p);
        for (auto r = kids.equal_range(q); r.first != r.second; ++r.first)
            todo.push_back(r.first->second);
    }
    return p;
}
