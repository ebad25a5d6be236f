// What the benches read of a process they started (its resident size and
// its open descriptors) and of the whole machine (how busy its cores were),
// from /proc.
#ifndef KELD_BENCH_PROCESSSTATS_H
#define KELD_BENCH_PROCESSSTATS_H

#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <string>
#include <sys/types.h>
#include <unistd.h>

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

// The machine's cores busy between two readings: how much of the machine a
// side took, and how much was left for a second one.
class MachineBusy {
public:
    MachineBusy() : m_start(now()) {}
    double cores() const
    {
        const Times end = now();
        const double total = double(end.total - m_start.total);
        return total > 0 ? double(end.busy - m_start.busy) / total * double(sysconf(_SC_NPROCESSORS_ONLN)) : 0;
    }

private:
    struct Times {
        unsigned long long busy = 0, total = 0;
    };
    static Times now()
    {
        std::ifstream stat("/proc/stat");
        std::string cpu;
        unsigned long long user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0, steal = 0;
        stat >> cpu >> user >> nice >> system >> idle >> iowait >> irq >> softirq >> steal;
        Times t;
        t.busy = user + nice + system + irq + softirq + steal;
        t.total = t.busy + idle + iowait;
        return t;
    }
    Times m_start;
};

#endif
