// Thirty clients, each a thread with its own session, open and close
// servers and ask for properties, the key and the name of one running
// keldpxy over IIOP at the same time, some draining mailboxes of its log;
// then the service stops cleanly.
#include "TestSupport.h"

#include "Proxy.hh"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

namespace {

const int CLIENTS = 30;

std::string hostName()
{
    char host[512] = {0};
    gethostname(host, sizeof(host) - 1);
    return host;
}

// Rounds per client: a few by default, KELD_LOAD_ROUNDS for a longer run.
int rounds()
{
    const char* text = std::getenv("KELD_LOAD_ROUNDS");
    const int n = text != nullptr ? std::atoi(text) : 0;
    return n > 0 ? n : 20;
}

API::SessionDefinition session(const std::string& id)
{
    API::SessionDefinition ssd;
    ssd.proxy = CORBA::string_dup("");
    ssd.id = CORBA::string_dup(id.c_str());
    ssd.flags = 0;
    return ssd;
}

API::Credential noCredential()
{
    API::Credential cred;
    cred.len = 0;
    cred.type = 0;
    return cred;
}

// What the clients saw go wrong, for the test's report.
class Failures {
public:
    void add(const std::string& what)
    {
        std::lock_guard<std::mutex> hold(m_lock);
        if (m_seen.size() < 20) m_seen.push_back(what);
        ++m_count;
    }
    int count() const { return m_count; }
    std::string text() const
    {
        std::string all;
        for (const std::string& s : m_seen) all += s + "\n";
        return all;
    }

private:
    mutable std::mutex m_lock;
    std::vector<std::string> m_seen;
    int m_count = 0;
};

// Takes what a mailbox holds, a few lines at most.
void drain(API::RemoteLogger_ptr mailbox, const std::string& who, Failures& failures)
{
    for (API::UInt64 poll = 1; poll <= 10; ++poll) {
        API::SessionDefinition_var sd;
        CORBA::String_var line;
        if (mailbox->getRemoteLogV12(poll, sd, line) != 0) return;
        if (std::strlen(line.in()) == 0) failures.add(who + ": an empty line from a mailbox");
    }
}

// One client: the rounds of one session on one server, the disk server for
// even clients and the shared-memory one for odd ones.
void client(CORBA::ORB_ptr orb, int port, int id, Failures& failures)
{
    const std::string who = "load-" + std::to_string(id);
    const std::string server = (id % 2 == 0 ? "Disk:" : "ShMem:") + hostName();
    try {
        CORBA::Object_var obj = orb->string_to_object(keldtest::corbaloc(port, "Proxy.StorageServerManager").c_str());
        API::StorageServerManager_var ssm = API::StorageServerManager::_narrow(obj);
        obj = orb->string_to_object(keldtest::corbaloc(port, "Proxy.EventChannelManager").c_str());
        API::EventChannelManager_var ecm = API::EventChannelManager::_narrow(obj);
        API::UInt64 seq = 1;
        // Every fifth client also drains a mailbox of the service's log
        // while the others' calls fill it.
        API::RemoteLogger_var mailbox;
        if (id % 5 == 0) mailbox = ssm->openRmtLoggerV12(seq++, session(who));
        for (int round = 0; round < rounds(); ++round) {
            if (!CORBA::is_nil(mailbox)) drain(mailbox, who, failures);
            CORBA::String_var name = ssm->getString();
            CORBA::String_var channelName = ecm->getString();
            API::Bytes_var key = ssm->getPublicKey();
            if (key->length() == 0) failures.add(who + ": empty public key");

            API::ServerInformation_var byName;
            ssm->getServerPropByNameV12(seq++, session(who), server.c_str(), byName);
            if (server != byName->srv_server.in()) failures.add(who + ": property query names " + byName->srv_server.in());

            API::StorageServer_var opened = ssm->openServerV12(seq++, session(who), server.c_str(), noCredential(), "", 0);
            if (round % 2 == 0) {
                ssm->closeServerV12(seq++, session(who), opened);
            } else {
                opened->closeServerV12(1);
            }
        }
        if (!CORBA::is_nil(mailbox)) ssm->closeRmtLoggerV12(seq++, session(who), mailbox);
    } catch (const API::STSError& e) {
        failures.add(who + ": STSError " + std::to_string(e.stsErrorNo) + " " + e.errorMsg.in());
    } catch (const CORBA::Exception& e) {
        failures.add(who + ": " + e._name());
    }
}

TEST(Load, ThirtyClientsOpenCloseAndQueryThenTheServiceStopsCleanly)
{
    keldtest::TempRoot root;
    const int port = keldtest::freePort();
    keldtest::Child service(keldtest::keldpxyPath(), {"-start", "-ORBListenEndPoints", keldtest::endpointArg(port)});
    ASSERT_TRUE(keldtest::waitFor([&] {
        return root.readLog().find("succeed to advertise object EventChannelManager") != std::string::npos;
    }, 60s));

    int argc = 1;
    static char name[] = "load-client";
    static char* argv[] = {name, nullptr};
    CORBA::ORB_var orb = CORBA::ORB_init(argc, argv);
    Failures failures;
    std::vector<std::thread> clients;
    for (int id = 0; id < CLIENTS; ++id) clients.emplace_back(client, orb.in(), port, id, std::ref(failures));
    for (std::thread& t : clients) t.join();
    orb->destroy();

    EXPECT_EQ(0, failures.count()) << failures.text();
    service.signal(SIGTERM);
    EXPECT_EQ(0, service.wait(120s));
    EXPECT_EQ(std::string::npos, root.readLog().find("[ERROR]")) << root.readLog();
}

} // namespace
