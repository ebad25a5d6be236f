// A service built on the framework the way the proxy is built on it, for the
// tests to drive from outside.  Every hook writes one line to an event log.
//
//   platform_probe_server <eventlog> <threads> [-ORB... options]
//
// doStop sleeps 1.5 s and returns, so that run() comes back.
#include "OrbService.h"
#include "PlatformProbe.hh"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

std::FILE* gs_events = nullptr;
std::mutex gs_eventsMutex;
std::thread::id gs_mainThread;

void event(const std::string& line)
{
    std::lock_guard<std::mutex> lock(gs_eventsMutex);
    std::fprintf(gs_events, "%s\n", line.c_str());
    std::fflush(gs_events);
}

class SleeperImpl : public POA_PlatformProbe::Sleeper {
public:
    void sleepMs(CORBA::Long ms) override
    {
        const int now = ++m_active;
        for (int peak = m_peak; now > peak && !m_peak.compare_exchange_weak(peak, now);) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        --m_active;
    }
    CORBA::Long ping() override
    {
        event("ping");
        return static_cast<CORBA::Long>(::getpid());
    }
    CORBA::Long peakConcurrency() override { return m_peak; }

private:
    std::atomic<int> m_active{0};
    std::atomic<int> m_peak{0};
};

class ProbeService : public OrbService {
public:
    explicit ProbeService(int threads)
        : OrbService("ProbeService", 450, nullptr, false, "Platform probe", false, 1024, nullptr), m_threads(threads)
    {
    }

protected:
    void doPreInit(bool) override { event("doPreInit"); }
    void doInit() override
    {
        event("doInit");
        getOrb()->setThreadCount(m_threads);
        auto* servant = new SleeperImpl;
        CORBA::Object_var sleeper = servant->_this();
        servant->_remove_ref();
        getOrb()->advertiseObject("Probe.Sleeper", sleeper);
    }
    int doRun() override
    {
        event("doRun");
        return 0;
    }
    void doStop() override
    {
        event(std::string("doStop thread=") + (std::this_thread::get_id() == gs_mainThread ? "main" : "other"));
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        event("doStop end");
    }
    int fini() override
    {
        event("fini");
        return 0;
    }
    void doExit() override { event("doExit"); }

private:
    int m_threads;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3 || (gs_events = std::fopen(argv[1], "a")) == nullptr) return 2;
    gs_mainThread = std::this_thread::get_id();
    ProbeService service(std::atoi(argv[2]));
    service.setOrbArguments(argc, argv);
    const int rc = service.run(true);
    event("run returned " + std::to_string(rc));
    return rc;
}
