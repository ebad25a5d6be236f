// Thirty clients, each a thread with its own session, open and close
// servers and ask for properties, the key and the name of one running
// keldpxy over IIOP at the same time, some draining mailboxes of its log;
// then the service stops cleanly.
#include "ServiceClient.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

using namespace std::chrono_literals;
using namespace keldtest;

namespace {

class Load : public ServiceFixture {
protected:
    void client(int id);
};

// One client: the rounds of one session on one server, the disk server for
// even clients and the shared-memory one for odd ones.  Every fifth client
// also drains a mailbox of the service's log while the others fill it.
void Load::client(int id)
{
    const std::string who = "load-" + std::to_string(id);
    const std::string server = (id % 2 == 0 ? "Disk:" : "ShMem:") + hostName();
    try {
        CORBA::Object_var obj = clientOrb()->string_to_object(corbaloc(port, "Proxy.EventChannelManager").c_str());
        API::EventChannelManager_var ecm = API::EventChannelManager::_narrow(obj);
        API::UInt64 seq = 1;
        API::RemoteLogger_var mailbox;
        if (id % 5 == 0) mailbox = ssm->openRmtLoggerV12(seq++, session(who.c_str()));
        // A few rounds by default, KELD_LOAD_ROUNDS for a longer run.
        const int rounds = std::getenv("KELD_LOAD_ROUNDS") != nullptr ? std::max(1, std::atoi(std::getenv("KELD_LOAD_ROUNDS"))) : 20;
        for (int round = 0; round < rounds; ++round) {
            for (API::UInt64 poll = 1; !CORBA::is_nil(mailbox) && poll <= 10; ++poll) {
                API::SessionDefinition_var sd;
                CORBA::String_var line;
                if (mailbox->getRemoteLogV12(poll, sd, line) != 0) break;
                if (std::strlen(line.in()) == 0) ADD_FAILURE() << who << ": an empty line from a mailbox";
            }
            CORBA::String_var name = ssm->getString();
            CORBA::String_var channelName = ecm->getString();
            API::Bytes_var key = ssm->getPublicKey();
            EXPECT_NE(0u, key->length()) << who;
            API::ServerInformation_var byName;
            ssm->getServerPropByNameV12(seq++, session(who.c_str()), server.c_str(), byName);
            EXPECT_EQ(server, byName->srv_server.in()) << who;
            API::StorageServer_var opened =
                ssm->openServerV12(seq++, session(who.c_str()), server.c_str(), noCredential(), "", 0);
            if (round % 2 == 0) {
                ssm->closeServerV12(seq++, session(who.c_str()), opened);
            } else {
                opened->closeServerV12(1);
            }
        }
        if (!CORBA::is_nil(mailbox)) ssm->closeRmtLoggerV12(seq++, session(who.c_str()), mailbox);
    } catch (const API::STSError& e) {
        ADD_FAILURE() << who << ": STSError " << e.stsErrorNo << " " << e.errorMsg.in();
    } catch (const CORBA::Exception& e) {
        ADD_FAILURE() << who << ": " << e._name();
    }
}

TEST_F(Load, ThirtyClientsOpenCloseAndQueryThenTheServiceStopsCleanly)
{
    start();
    std::vector<std::thread> clients;
    for (int id = 0; id < 30; ++id) clients.emplace_back([this, id] { client(id); });
    for (std::thread& t : clients) t.join();
    service->signal(SIGTERM);
    EXPECT_EQ(0, service->wait(120s));
    EXPECT_EQ(std::string::npos, root.readLog().find("[ERROR]")) << root.readLog();
}

} // namespace
