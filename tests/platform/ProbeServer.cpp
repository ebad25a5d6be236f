// A service built on the framework the way the proxy is built on it, for the
// tests to drive from outside.  Every hook writes one line to an event log.
//
//   platform_probe_server <eventlog> <threads> <mode> [-ORB... options]
//
// mode "return": doStop sleeps 1.5 s and returns, so run() comes back.
// mode "exit":   doStop sleeps 1.5 s and calls exit(0), as the proxy does.
// mode "failinit": doInit throws, as a failed start of the proxy does.
#include "OrbService.h"
#include "PlatformProbe.hh"

#include <ace/Event_Handler.h>
#include <ace/Reactor.h>

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

const char* threadName()
{
    return std::this_thread::get_id() == gs_mainThread ? "main" : "other";
}

class Ticker : public ACE_Event_Handler {
public:
    int handle_timeout(const ACE_Time_Value&, const void*) override
    {
        ++ticks;
        return 0;
    }
    std::atomic<int> ticks{0};
};

class ProbeService;

class SleeperImpl : public POA_PlatformProbe::Sleeper {
public:
    SleeperImpl(ProbeService& service, PortableServer::POA_ptr poa, Ticker& ticker)
        : m_service(service), m_poa(PortableServer::POA::_duplicate(poa)), m_ticker(ticker)
    {
    }

    void sleepMs(CORBA::Long ms) override
    {
        int now = ++m_active;
        int peak = m_peak.load();
        while (now > peak && !m_peak.compare_exchange_weak(peak, now)) {
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
    void resetPeak() override { m_peak = 0; }
    CORBA::Long timerTicks() override { return m_ticker.ticks; }
    void setThreadCount(CORBA::Long count) override;
    CORBA::Long threadCount() override;
    void requestStop() override;
    void shutdown() override;

private:
    ProbeService& m_service;
    PortableServer::POA_var m_poa;
    Ticker& m_ticker;
    std::atomic<int> m_active{0};
    std::atomic<int> m_peak{0};
};

class ProbeService : public OrbService {
public:
    ProbeService(int threads, const std::string& mode)
        : OrbService("ProbeService", 450, nullptr, false, "Platform probe", false, 1024, nullptr),
          m_threads(threads),
          m_mode(mode)
    {
    }

protected:
    void doPreInit(bool) override { event("doPreInit"); }

    void doInit() override
    {
        event("doInit");
        if (m_mode == "failinit") throw CORBA::INV_OBJREF(0, CORBA::COMPLETED_NO);
        Orb* orb = getOrb();
        CORBA::Object_var ref = orb->getOrb()->resolve_initial_references("RootPOA");
        PortableServer::POA_var root = PortableServer::POA::_narrow(ref);
        orb->setThreadCount(m_threads);
        auto* servant = new SleeperImpl(*this, root, m_ticker);
        CORBA::Object_var sleeper = servant->_this();
        servant->_remove_ref();
        orb->advertiseObject("Probe.Sleeper", sleeper);
        // Scheduled before the reactor runs, as the idle timer is.
        orb->getReactor()->schedule_timer(&m_ticker, nullptr, ACE_Time_Value(0, 50000),
                                          ACE_Time_Value(0, 50000));
    }

    int doRun() override
    {
        event("doRun");
        return 0;
    }

    void doStop() override
    {
        event(std::string("doStop thread=") + threadName());
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        getOrb()->getReactor()->cancel_timer(&m_ticker, 1);
        if (m_mode == "exit") {
            event("doStop exit");
            std::exit(0);
        }
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
    std::string m_mode;
    Ticker m_ticker;
};

void SleeperImpl::setThreadCount(CORBA::Long count)
{
    m_service.getOrb()->setThreadCount(count);
}

CORBA::Long SleeperImpl::threadCount()
{
    return m_service.getOrb()->getThreadCount();
}

void SleeperImpl::requestStop()
{
    m_service.stopByEvent(false);
}

void SleeperImpl::shutdown()
{
    m_poa->destroy(true, false);
    m_service.getOrb()->shutdown(false);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s <eventlog> <threads> <mode> [-ORB...]\n", argv[0]);
        return 2;
    }
    gs_mainThread = std::this_thread::get_id();
    gs_events = std::fopen(argv[1], "a");
    if (gs_events == nullptr) return 2;
    int rc = 0;
    try {
        ProbeService service(std::atoi(argv[2]), argv[3]);
        service.setOrbArguments(argc, argv);
        rc = service.run(true);
        event("run returned " + std::to_string(rc));
    } catch (const CORBA::SystemException& e) {
        event(std::string("start failed: ") + e._name());
        rc = 255;
    }
    return rc;
}
