// A stop while clients keep calling: signal 15 in the middle of a load of
// opens, closes and property queries that load and unload the storage
// library must end the service with status 0, every time.  The clients
// also call a form the service refuses, which the ORB logs on each of its
// threads at once.
#include "ServiceClient.h"

#include <atomic>
#include <thread>

using namespace keldtest;
using namespace std::chrono_literals;

namespace {

// One client: storage calls with number 0, until the service is gone.
void keepCalling(const std::string& ref, int n, std::atomic<int>& calls, int rounds = -1)
{
    const std::string server = diskServerName();
    try {
        CORBA::Object_var obj = clientOrb()->string_to_object(ref.c_str());
        API::StorageServerManager_var ssm = API::StorageServerManager::_narrow(obj);
        const API::SessionDefinition ssd = session(("load" + std::to_string(n)).c_str());
        for (int i = 0; i != rounds; ++i) {
            API::StorageServer_var s = ssm->openServerV12(0, ssd, server.c_str(), noCredential(), "", 0);
            ssm->closeServerV12(0, ssd, s);
            API::ServerInformation_var info;
            ssm->getServerPropByNameV12(0, ssd, server.c_str(), info);
            try {
                ssm->shutdown();   // an old form without a raises clause: the ORB logs its refusal
            } catch (const CORBA::UNKNOWN&) {
            }
            ++calls;
        }
    } catch (const API::STSError& e) {
        ADD_FAILURE() << "client " << n << ": " << e.stsErrorNo << " " << e.errorMsg;
    } catch (const CORBA::Exception&) {
        // The service went away under the call: what this test expects.
    }
}

class StopUnderLoad : public ServiceFixture {};

TEST_F(StopUnderLoad, SignalFifteenWhileEightClientsCallEndsWithStatusZero)
{
    for (size_t round = 0; round < 20; ++round) {
        port = freePort();
        Child service(keldpxyPath(), {"-start", "-ORBListenEndPoints", endpointArg(port)});
        ASSERT_TRUE(waitFor([&] { return logCount("doInit]succeed to cleanup shared memory") > round; }, 20s));
        const std::string ref = corbaloc(port, "Proxy.StorageServerManager");
        std::atomic<int> calls{0};
        if (round == 0) keepCalling(ref, 0, calls, 1);   // makes the default disk server
        std::vector<std::thread> clients;
        for (int n = 0; n < 8; ++n) clients.emplace_back([&, n] { keepCalling(ref, n, calls); });
        EXPECT_TRUE(waitFor([&] { return calls >= 16; }, 20s));
        service.signal(SIGTERM);
        EXPECT_EQ(0, service.wait(60s)) << "round " << round;
        for (std::thread& t : clients) t.join();
    }
}

} // namespace
