// Memory of a service whose remote log mailboxes nobody reads: the resident
// size of a running keldpxy (log on, VERBOSE 6) under threads of server opens
// and closes, first with no mailbox open, then with mailboxes that are opened
// and never polled, and last after those clients have gone without closing
// them (the service's idle limit for mailboxes is set to a few seconds more
// than a phase).
//   log_mailbox_memory [seconds of each load phase, default 25] [mailboxes, default 10]
//                      [call threads, default 2]
#include "ProcessStats.h"
#include "TestSupport.h"

#include "Proxy.hh"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

namespace {

API::SessionDefinition session(const std::string& id)
{
    API::SessionDefinition ssd;
    ssd.proxy = CORBA::string_dup("");
    ssd.id = CORBA::string_dup(id.c_str());
    ssd.flags = 0;
    return ssd;
}

// Ordinary calls: each thread opens and closes the disk server under its
// own session id until told to stop; every cycle writes a few dozen lines.
class Load {
public:
    // Each phase's threads number their calls afresh, under session ids of their own.
    Load(API::StorageServerManager_ptr ssm, const std::string& server, int threads, const std::string& phase)
    {
        for (int t = 0; t < threads; ++t) {
            m_threads.emplace_back([this, ssm, server, phase, t] { run(ssm, server, phase + std::to_string(t)); });
        }
    }
    ~Load()
    {
        m_stop = true;
        for (std::thread& t : m_threads) t.join();
    }
    long cycles() const { return m_cycles; }

private:
    void run(API::StorageServerManager_ptr ssm, const std::string& server, const std::string& id)
    {
        API::UInt64 seq = 0;
        API::Credential none;
        none.len = 0;
        none.type = 0;
        while (!m_stop) {
            try {
                API::StorageServer_var s = ssm->openServerV12(++seq, session(id), server.c_str(), none, "", 0);
                ssm->closeServerV12(++seq, session(id), s);
                ++m_cycles;
            } catch (const CORBA::Exception&) {
                std::this_thread::sleep_for(10ms);
            }
        }
    }

    std::atomic<bool> m_stop{false};
    std::atomic<long> m_cycles{0};
    std::vector<std::thread> m_threads;
};

void row(const char* phase, int seconds, int mailboxes, pid_t service, long cycles)
{
    std::printf("%-34s %6d %10d %10ld %10ld\n", phase, seconds, mailboxes, residentKiB(service) / 1024, cycles);
    std::fflush(stdout);
}

// Load for the given seconds, a row every five.
void loadPhase(const char* phase, int seconds, int mailboxes, API::StorageServerManager_ptr ssm,
               const std::string& server, int threads, pid_t service)
{
    Load load(ssm, server, threads, phase);
    for (int elapsed = 5; elapsed <= seconds; elapsed += 5) {
        std::this_thread::sleep_for(5s);
        row(phase, elapsed, mailboxes, service, load.cycles());
    }
}

} // namespace

int main(int argc, char** argv)
{
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 25;
    const int mailboxes = argc > 2 ? std::atoi(argv[2]) : 10;
    const int threads = argc > 3 ? std::atoi(argv[3]) : 2;
    const int idleSeconds = seconds + 5;   // the mailboxes stay open through their phase
    int orbArgc = 0;
    CORBA::ORB_var orb = CORBA::ORB_init(orbArgc, nullptr);
    keldtest::TempRoot root(true);
    root.writeFile("keldrive/keldrive.conf",
                   "VERBOSE = 6\nREMOTE_LOG_IDLE_SECONDS = " + std::to_string(idleSeconds) + "\n");
    const int port = keldtest::freePort();
    keldtest::Child service(keldtest::keldpxyPath(),
                            {"-start", "-ORBListenEndPoints", keldtest::endpointArg(port)});
    CORBA::Object_var obj = orb->string_to_object(keldtest::corbaloc(port, "Proxy.StorageServerManager").c_str());
    API::StorageServerManager_var ssm;
    if (!keldtest::waitFor([&] {
            try {
                ssm = API::StorageServerManager::_narrow(obj);
                return !CORBA::is_nil(ssm) && !ssm->_non_existent();
            } catch (const CORBA::Exception&) {
                return false;
            }
        }, 30s)) {
        std::fprintf(stderr, "log_mailbox_memory: the service did not start\n");
        return 1;
    }
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    const std::string disk = std::string("Disk:") + host;

    std::printf("%-34s %6s %10s %10s %10s\n", "phase", "s", "mailboxes", "RSS MiB", "cycles");
    row("start", 0, 0, service.pid(), 0);
    loadPhase("no mailbox", seconds, 0, ssm, disk, threads, service.pid());
    {
        std::vector<API::RemoteLogger_var> unread;
        for (int i = 0; i < mailboxes; ++i) {
            unread.emplace_back(ssm->openRmtLoggerV12(1, session("reader" + std::to_string(i))));
        }
        loadPhase("mailboxes never polled", seconds, mailboxes, ssm, disk, threads, service.pid());
    }   // the readers go without closing
    std::this_thread::sleep_for(std::chrono::seconds(idleSeconds - seconds + 1));
    loadPhase("readers gone, idle limit passed", 5, 0, ssm, disk, threads, service.pid());
    service.signal(SIGTERM);
    service.wait(60s);
    return 0;
}
