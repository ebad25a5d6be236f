// Memory of a service that runs for months: the resident size of a running
// keldpxy after 1,000 and after 100,000 server opens and closes (and after
// as many failed opens), measured in one run.  Clients number their calls
// and close with a number, as real jobs do, over a few session ids.
//   server_memory [cycles, default 100000] [client threads, default 4]
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

// One job's client: opens and closes servers under its own session id,
// each call with the next number; failures are counted, not fatal.
struct Job {
    API::StorageServerManager_var ssm;
    API::SessionDefinition ssd;
    API::UInt64 seq = 0;

    void cycle(const std::string& server, long& failures)
    {
        API::Credential none;
        none.len = 0;
        none.type = 0;
        try {
            API::StorageServer_var s = ssm->openServerV12(++seq, ssd, server.c_str(), none, "", 0);
            ssm->closeServerV12(++seq, ssd, s);
        } catch (const CORBA::Exception&) {
            ++failures;
        }
    }
};

// Runs count cycles spread over the jobs, in parallel.
long runCycles(std::vector<Job>& jobs, long count, const std::string& server)
{
    std::atomic<long> failures{0};
    std::vector<std::thread> threads;
    for (size_t j = 0; j < jobs.size(); ++j) {
        threads.emplace_back([&, j] {
            long f = 0;
            for (long i = static_cast<long>(j); i < count; i += static_cast<long>(jobs.size())) {
                jobs[j].cycle(server, f);
            }
            failures += f;
        });
    }
    for (std::thread& t : threads) t.join();
    return failures;
}

} // namespace

int main(int argc, char** argv)
{
    const long cycles = argc > 1 ? std::atol(argv[1]) : 100000;
    const int threads = argc > 2 ? std::atoi(argv[2]) : 4;
    int orbArgc = 0;
    CORBA::ORB_var orb = CORBA::ORB_init(orbArgc, nullptr);
    keldtest::TempRoot root(false);
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
        std::fprintf(stderr, "server_memory: the service did not start\n");
        return 1;
    }
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    const std::string disk = std::string("Disk:") + host;

    std::vector<Job> jobs(static_cast<size_t>(threads));
    for (int j = 0; j < threads; ++j) {
        jobs[static_cast<size_t>(j)].ssm = API::StorageServerManager::_duplicate(ssm);
        jobs[static_cast<size_t>(j)].ssd = session("job" + std::to_string(j));
    }
    std::printf("%-32s %10s %12s\n", "after", "RSS KiB", "failures");
    std::printf("%-32s %10ld %12s\n", "start", residentKiB(service.pid()), "-");
    long failures = runCycles(jobs, 1000, disk);
    const long afterFirst = residentKiB(service.pid());
    std::printf("%-32s %10ld %12ld\n", "1,000 open/close", afterFirst, failures);
    const auto start = std::chrono::steady_clock::now();
    failures = runCycles(jobs, cycles - 1000, disk);
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const long afterAll = residentKiB(service.pid());
    std::printf("%-32s %10ld %12ld\n", (std::to_string(cycles) + " open/close").c_str(), afterAll, failures);
    failures = runCycles(jobs, cycles / 10, "Disk:no-such-server");
    const long afterFailed = residentKiB(service.pid());
    std::printf("%-32s %10ld %12ld\n", ("+" + std::to_string(cycles / 10) + " failed opens").c_str(),
                afterFailed, failures);
    std::printf("growth from 1,000 to %ld cycles: %ld KiB (%.0f cycles/s); failed opens: %ld KiB\n",
                cycles, afterAll - afterFirst, (cycles - 1000) / secs, afterFailed - afterAll);
    service.signal(SIGTERM);
    service.wait(60s);
    return 0;
}
