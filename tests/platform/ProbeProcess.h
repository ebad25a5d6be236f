// Runs platform_probe_server as a child process on a free loopback port and
// gives the tests its event log, its corbaloc address and its exit status.
#ifndef KELD_TESTS_PLATFORM_PROBEPROCESS_H
#define KELD_TESTS_PLATFORM_PROBEPROCESS_H

#include "PlatformProbe.hh"

#include <chrono>
#include <string>
#include <sys/types.h>

int freeLoopbackPort();
// The test process's own ORB, a client only; made on first use.
CORBA::ORB_ptr clientOrb();

class ProbeProcess {
public:
    // mode: "return", "exit" or "failinit" (see ProbeServer.cpp).
    ProbeProcess(const std::string& mode, int threads, int port = freeLoopbackPort());
    ~ProbeProcess();   // kills the child if it still runs
    ProbeProcess(const ProbeProcess&) = delete;
    ProbeProcess& operator=(const ProbeProcess&) = delete;

    pid_t pid() const { return m_pid; }
    int port() const { return m_port; }
    std::string corbaloc() const;
    PlatformProbe::Sleeper_ptr sleeper() const;   // a new reference each time

    std::string events() const;
    bool waitForEvent(const std::string& line,
                      std::chrono::milliseconds timeout = std::chrono::seconds(15)) const;
    // The exit status, or -1 when the child is still running at the timeout
    // (or died of a signal).
    int waitExit(std::chrono::milliseconds timeout = std::chrono::seconds(15));

private:
    std::string m_dir;
    std::string m_log;
    int m_port;
    pid_t m_pid = -1;
};

#endif
