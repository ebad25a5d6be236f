// What the benches read of a process they started: its resident size and
// its open descriptors, from /proc.
#ifndef KELD_BENCH_PROCESSSTATS_H
#define KELD_BENCH_PROCESSSTATS_H

#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <string>
#include <sys/types.h>

inline long residentKiB(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return -1;
}

inline int openDescriptors(pid_t pid)
{
    DIR* d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (d == nullptr) return -1;
    int n = 0;
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
    return n;
}

#endif
