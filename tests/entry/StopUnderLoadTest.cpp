// A stop while clients keep calling: signal 15 in the middle of a load of
// opens, closes and property queries that load and unload the storage
// library must end the service with status 0, every time.
#include "ServiceClient.h"

#include "Proxy.hh"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;
using keldtest::diskServerName;
using keldtest::session;

namespace {

// How many starts the log shows; every round adds one.
int startsLogged(const keldtest::TempRoot& root)
{
    const std::string log = root.readLog();
    const std::string mark = "doInit]succeed to cleanup shared memory";
    int n = 0;
    for (size_t at = log.find(mark); at != std::string::npos; at = log.find(mark, at + 1)) ++n;
    return n;
}

// One client: storage calls with number 0, until the service is gone.
void keepCalling(CORBA::ORB_ptr orb, const std::string& ref, int n, std::atomic<int>& calls,
                 int rounds = -1)
{
    const std::string server = diskServerName();
    const API::Credential none = keldtest::noCredential();
    try {
        CORBA::Object_var obj = orb->string_to_object(ref.c_str());
        API::StorageServerManager_var ssm = API::StorageServerManager::_narrow(obj);
        const API::SessionDefinition ssd = session(("load" + std::to_string(n)).c_str());
        for (int i = 0; i != rounds; ++i) {
            API::StorageServer_var s = ssm->openServerV12(0, ssd, server.c_str(), none, "", 0);
            ssm->closeServerV12(0, ssd, s);
            API::ServerInformation_var info;
            ssm->getServerPropByNameV12(0, ssd, server.c_str(), info);
            ++calls;
        }
    } catch (const API::STSError& e) {
        ADD_FAILURE() << "client " << n << ": " << e.stsErrorNo << " " << e.errorMsg;
    } catch (const CORBA::Exception& e) {
        // The service went away under the call: what this test expects.
    }
}

TEST(StopUnderLoad, SignalFifteenWhileEightClientsCallEndsWithStatusZero)
{
    int argc = 0;
    CORBA::ORB_var orb = CORBA::ORB_init(argc, nullptr);   // the binary's one client ORB
    keldtest::TempRoot root;
    for (int round = 0; round < 20; ++round) {
        const int port = keldtest::freePort();
        keldtest::Child service(keldtest::keldpxyPath(),
                                {"-start", "-ORBListenEndPoints", keldtest::endpointArg(port)});
        ASSERT_TRUE(keldtest::waitFor([&] { return startsLogged(root) > round; }, 20s));
        const std::string ref = keldtest::corbaloc(port, "Proxy.StorageServerManager");
        std::atomic<int> calls{0};
        if (round == 0) keepCalling(orb, ref, 0, calls, 1);   // makes the default disk server
        std::vector<std::thread> clients;
        for (int n = 0; n < 8; ++n) {
            clients.emplace_back([&, n] { keepCalling(orb.in(), ref, n, calls); });
        }
        EXPECT_TRUE(keldtest::waitFor([&] { return calls >= 16; }, 20s));
        service.signal(SIGTERM);
        EXPECT_EQ(0, service.wait(60s)) << "round " << round;
        for (std::thread& t : clients) t.join();
    }
}

} // namespace
