// Finds the other processes of a given name and signals them.
#ifndef KELD_PLATFORM_PROCESSHANDLER_H
#define KELD_PLATFORM_PROCESSHANDLER_H

#include <chrono>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

class ProcessHandler {
public:
    explicit ProcessHandler(const std::string& processName);
    void setSignalType(int signal);
    // Limits the search to the instances registered in dir (see PidFile):
    // processes of the same name started elsewhere are left alone.
    void setInstanceDirectory(const std::string& dir);
    // Sends the signal to every process of that name except this one; does
    // not wait for them.  Returns how many were signalled.
    int terminate();
    // Waits up to timeout for the processes the last terminate() signalled
    // to end; returns those still running then, in the order signalled.
    std::vector<pid_t> waitForEnd(std::chrono::milliseconds timeout) const;
    // Every process of that name except this one.  The kernel keeps only 15
    // characters of a command name, so a longer name is matched against the
    // program that the process runs.
    std::vector<pid_t> findProcesses() const;

private:
    bool matches(pid_t pid) const;

    std::string m_name;
    std::string m_instanceDir;
    int m_signal = 15;
    // What terminate() signalled: each pid with its start time.
    std::vector<std::pair<pid_t, std::string>> m_signalled;
};

#endif
