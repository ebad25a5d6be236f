// The entry objects seen from a client in another process: a running
// keldpxy with a temporary install root, reached over IIOP by corbaloc.
#include "CredentialCipher.h"
#include "ServiceClient.h"

#include "Proxy.hh"

#include <chrono>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <unistd.h>

using namespace std::chrono_literals;
namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;
using keldtest::hostName;
using keldtest::noCredential;
using keldtest::raises;
using keldtest::session;

namespace {

CORBA::ORB_var g_orb;

class ClientOrb : public ::testing::Environment {
public:
    void SetUp() override
    {
        int argc = 1;
        static char name[] = "client";
        static char* argv[] = {name, nullptr};
        g_orb = CORBA::ORB_init(argc, argv);
    }
    void TearDown() override { g_orb->destroy(); }
};
const auto* const g_env = ::testing::AddGlobalTestEnvironment(new ClientOrb);

API::Credential rawCredential(API::UInt32 len, const std::vector<unsigned char>& cert)
{
    API::Credential cred;
    cred.len = len;
    cred.type = 0;
    cred.cert.length(static_cast<CORBA::ULong>(cert.size()));
    std::copy(cert.begin(), cert.end(), cred.cert.get_buffer());
    return cred;
}

// text encrypted under the service's key, as a client sends it.
API::Credential encryptedCredential(const std::vector<unsigned char>& der, const std::string& text)
{
    std::vector<unsigned char> cipher;
    EXPECT_EQ(CredentialCipher::OK, CredentialCipher::encrypt(der, {text.begin(), text.end()}, cipher));
    return rawCredential(static_cast<API::UInt32>(text.size()), cipher);
}

struct Objects {
    API::StorageServerManager_var ssm;
    API::EventChannelManager_var ecm;
    API::RemoteLogger_var logger;
    API::StorageServer_var server;
};

class EntryObjects : public ::testing::Test {
protected:
    void start(const std::vector<std::string>& env = {})
    {
        service = std::make_unique<keldtest::Child>(
            keldtest::keldpxyPath(),
            std::vector<std::string>{"-start", "-ORBListenEndPoints", keldtest::endpointArg(port)}, env);
        ASSERT_TRUE(keldtest::waitFor([&] { return logHas("succeed to advertise object EventChannelManager"); }, 20s));
        CORBA::Object_var obj = g_orb->string_to_object(keldtest::corbaloc(port, "Proxy.StorageServerManager").c_str());
        o.ssm = API::StorageServerManager::_narrow(obj);
        obj = g_orb->string_to_object(keldtest::corbaloc(port, "Proxy.EventChannelManager").c_str());
        o.ecm = API::EventChannelManager::_narrow(obj);
        ASSERT_FALSE(CORBA::is_nil(o.ssm));
        ASSERT_FALSE(CORBA::is_nil(o.ecm));
    }
    bool logHas(const std::string& text) const { return root.readLog().find(text) != std::string::npos; }
    size_t logCount(const std::string& text) const
    {
        const std::string log = root.readLog();
        size_t n = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
        return n;
    }
    API::StorageServer_ptr openShm(API::UInt64 seq, const char* id)
    {
        return o.ssm->openServerV12(seq, session(id), ("ShMem:" + hostName()).c_str(), noCredential(), "", 0);
    }
    bool pluginMapped(const char* name) const
    {
        std::ifstream maps("/proc/" + std::to_string(service->pid()) + "/maps");
        std::stringstream ss;
        ss << maps.rdbuf();
        return ss.str().find(name) != std::string::npos;
    }

    keldtest::TempRoot root;
    int port = keldtest::freePort();
    std::unique_ptr<keldtest::Child> service;
    Objects o;
};

TEST_F(EntryObjects, ManagersAnswerBeforeAnySession)
{
    start();
    CORBA::String_var level = o.ssm->getString();
    EXPECT_STREQ("ZVS_VERSION=13", level);
    CORBA::String_var text = o.ecm->getString();
    EXPECT_STREQ("EventChannelManagerImpl::getString", text);

    API::Bytes_var key = o.ssm->getPublicKey();
    API::Bytes_var again = o.ecm->getPublicKey();
    std::vector<unsigned char> der(key->get_buffer(), key->get_buffer() + key->length());
    EXPECT_EQ(CredentialCipher::OK, CredentialCipher(der).status());   // DER RSAPublicKey
    EXPECT_EQ(140u, der.size());
    EXPECT_TRUE(std::equal(der.begin(), der.end(), again->get_buffer()));
}

TEST_F(EntryObjects, ContractIdentityAndBounds)
{
    start();
    EXPECT_TRUE(o.ssm->_is_a("IDL:Orvanis/Keldrive/DiskMediaServer/STS/Proxy/API/StorageServerManager:1.0"));
    EXPECT_TRUE(o.ssm->_is_a("IDL:omg.org/CORBA/Object:1.0"));
    EXPECT_FALSE(o.ssm->_is_a("IDL:Orvanis/Keldrive/DiskMediaServer/STS/Proxy/API/StorageServer:1.0"));

    // A name beyond its bound fails in marshalling; no servant sees it.
    API::ServerInformation_var info;
    EXPECT_THROW(o.ssm->getServerPropByNameV12(1, session("b"), std::string(513, 'x').c_str(), info),
                 CORBA::SystemException);
    API::StorageServer_var server = openShm(1, "bounds");
    EXPECT_THROW(server->deleteLsuV12(0, std::string(1025, 'l').c_str()), CORBA::SystemException);
    EXPECT_FALSE(logHas("get one request of getting server prop byname"));
}

TEST_F(EntryObjects, OpenRetryAndClose)
{
    start();
    API::StorageServer_var first = openShm(5, "retry");
    API::StorageServer_var replay = openShm(5, "retry");
    EXPECT_TRUE(first->_is_equivalent(replay));
    EXPECT_EQ(1u, logCount("succeed to open sts session"));
    EXPECT_TRUE(raises(2060058, [&] { openShm(4, "retry"); }, "out of order call sequence"));

    // A sequenced close leaves the object for a retried close.
    o.ssm->closeServerV12(6, session("retry"), first);
    EXPECT_FALSE(first->_non_existent());
    o.ssm->closeServerV12(6, session("retry"), first);
    // The object's own record still says the server is closed.
    EXPECT_TRUE(raises(2060014, [&] { first->closeServerV12(1); }, "server has not been opened"));
    // The session's next sequenced call deactivates it.
    API::ServerInformation_var info;
    o.ssm->getServerPropByNameV12(7, session("retry"), ("ShMem:" + hostName()).c_str(), info);
    EXPECT_TRUE(first->_non_existent());
    // The POA was its only owner: the deactivation freed it.
    EXPECT_EQ(1u, logCount("object of StorageServerImpl is destroyed here"));

    // A failed open leaves no servant behind, and its retry replays the error.
    EXPECT_TRUE(raises(2061002, [&] {
        o.ssm->openServerV12(8, session("retry"), "Nobody:x", noCredential(), "", 0);
    }, "fail to open the sts server"));
    EXPECT_EQ(2u, logCount("object of StorageServerImpl is destroyed here"));
    EXPECT_TRUE(raises(2061002, [&] {
        o.ssm->openServerV12(8, session("retry"), "Nobody:x", noCredential(), "", 0);
    }, "fail to open the sts server"));
    EXPECT_EQ(2u, logCount("init object StorageServerImpl"));

    API::StorageServer_var once = openShm(0, "zero");
    o.ssm->closeServerV12(0, session("zero"), once);
    EXPECT_TRUE(once->_non_existent());
}

TEST_F(EntryObjects, ClientShutdownEndsTheServiceCleanly)
{
    start();
    API::StorageServer_var open = openShm(1, "s");
    o.ssm->shutdownV12(2, session("s"));   // 1 would replay the open
    EXPECT_EQ(0, service->wait(20s));
    EXPECT_TRUE(logHas("let us shutdown this server"));
    EXPECT_TRUE(logHas("proxy service exits"));
}

TEST_F(EntryObjects, PropertyQueryLoadsTheLibraryOnlyForTheCall)
{
    start();
    API::ServerInformation_var info;
    const std::string name = "ShMem:" + hostName();
    EXPECT_EQ(0, o.ssm->getServerPropByNameV12(1, session("p"), name.c_str(), info));
    EXPECT_EQ(name, std::string(info->srv_server));
    EXPECT_FALSE(pluginMapped("libsts_shmem.so"));
    EXPECT_TRUE(raises(2061002, [&] { o.ssm->getServerPropByNameV12(2, session("p"), "Nobody:x", info); },
                       "fail to call sts_get_server_prop_byname"));
    EXPECT_FALSE(pluginMapped("libsts_shmem.so"));
}

TEST_F(EntryObjects, DefaultDiskServerOpensAndCreateNeedsTheLibraryUp)
{
    start();
    API::StorageServer_var disk = o.ssm->openServerV12(1, session("d"), ("Disk:" + hostName()).c_str(),
                                                       noCredential(), "", 0);
    ASSERT_FALSE(CORBA::is_nil(disk));
    o.ssm->closeServerV12(2, session("d"), disk);

    // Nothing holds the library now: the create cannot open its session.
    API::STSHostSeq hosts;
    EXPECT_TRUE(raises(2060010, [&] {
        o.ssm->createServerV12(1, session("c"), "Disk:made", noCredential(), "", hosts, 0);
    }, "fail to open the STS session"));
    // With a server open it creates a disk server.
    API::StorageServer_var holder = openShm(1, "holder");
    API::StorageServer_var made =
        o.ssm->createServerV12(2, session("c"), "Disk:made", noCredential(), "", hosts, 0);
    EXPECT_FALSE(CORBA::is_nil(made));
    EXPECT_TRUE(keldtest::waitFor([&] { return std::ifstream(root.path() + "/keldrive/storage/made/server.conf").good(); }, 2s));
}

TEST_F(EntryObjects, EncryptedCredentialAndTargetServer)
{
    root.usePluginsFrom(KELD_FAULT_PLUGIN_DIR);
    root.writeFile("keldrive/keldrive.conf", "VERBOSE = 5\n");   // session lines with debug
    start({"KELD_FAULT_CERT=top-secret-certificate"});
    API::Bytes_var key = o.ssm->getPublicKey();
    const std::vector<unsigned char> der(key->get_buffer(), key->get_buffer() + key->length());
    auto credential = [&](const std::string& text) { return encryptedCredential(der, text); };
    EXPECT_TRUE(raises(2060077, [&] {
        o.ssm->openServerV12(1, session("k"), "ShMem:fault", credential("wrong-certificate-text"), "", 0);
    }, "fail to open the sts server"));
    API::StorageServer_var server =
        o.ssm->openServerV12(2, session("k"), "ShMem:fault", credential("top-secret-certificate"), "", 0);
    ASSERT_FALSE(CORBA::is_nil(server));

    API::StorageServer_var target = server->openTargetServerV12(1, "ShMem:other", noCredential(), "");
    target->closeServerV12(1);
    EXPECT_TRUE(logHas("needn't to close sts session because this is the target server"));
    server->closeServerV12(2);   // the parent's session was left open for it
    EXPECT_EQ(1u, logCount("[StorageServerImpl::closeServer]succeed to close sts session"));
}

// A client may send a credential of any size: whatever does not decrypt
// into the certificate's 1024 bytes is a wrong credential, on every path
// that decrypts, and the service goes on serving.
TEST_F(EntryObjects, OversizedCredentialsAreRefusedAndTheServiceGoesOn)
{
    root.usePluginsFrom(KELD_FAULT_PLUGIN_DIR);
    start({"KELD_FAULT_CERT=top-secret-certificate"});
    API::Bytes_var key = o.ssm->getPublicKey();
    const std::vector<unsigned char> der(key->get_buffer(), key->get_buffer() + key->length());
    std::vector<API::Credential> hostile;
    for (size_t blocks : {11u, 12u, 14u, 40u, 400u}) {
        hostile.push_back(encryptedCredential(der, std::string(blocks * 86, 'c')));
    }
    hostile.push_back(rawCredential(40, std::vector<unsigned char>(300, 0xA5)));   // not whole blocks

    API::StorageServer_var server = o.ssm->openServerV12(
        1, session("h"), "ShMem:fault", encryptedCredential(der, "top-secret-certificate"), "", 0);
    API::UInt64 seq = 2;
    for (const API::Credential& cred : hostile) {
        EXPECT_TRUE(raises(2060077, [&] { o.ssm->openServerV12(seq++, session("h"), "ShMem:fault", cred, "", 0); }));
        try {
            API::StorageServer_var target = server->openTargetServerV12(seq++, "ShMem:fault", cred, "");
        } catch (const API::STSError&) {
            // The stand-in takes no credential for targets; answering is what counts.
        }
        API::STSHostSeq hosts;
        hosts.length(1);
        hosts[0].sh_name = CORBA::string_dup("h1");
        hosts[0].sh_cred = cred;
        hosts[0].sh_iface = CORBA::string_dup("");
        EXPECT_THROW(o.ssm->createServerV12(seq++, session("h"), "ShMem:made", cred, "", hosts, 1), API::STSError);
        EXPECT_THROW(o.ssm->shutdownServerV12(seq++, session("h"), "ShMem:fault", cred, 0), API::STSError);
    }
    CORBA::String_var level = o.ssm->getString();
    EXPECT_STREQ("ZVS_VERSION=13", level);
    EXPECT_TRUE(service->running());
}

TEST_F(EntryObjects, RemoteLoggersReceiveEveryLineInOrder)
{
    start();
    API::RemoteLogger_var a = o.ssm->openRmtLoggerV12(1, session("la"));
    API::RemoteLogger_var b = o.ssm->openRmtLoggerV12(1, session("lb"));
    API::RemoteLogger_var c = o.ecm->openRmtLoggerV12(1);
    API::ServerInformation_var info;
    EXPECT_THROW(o.ssm->getServerPropByNameV12(1, session("q"), "Nobody:x", info), API::STSError);

    auto drain = [](API::RemoteLogger_ptr logger) {
        std::vector<std::string> lines;
        for (;;) {
            API::SessionDefinition_var sd;
            CORBA::String_var line;
            const CORBA::Long rc = logger->getRemoteLogV12(0, sd, line);
            if (rc == 2060043) {
                EXPECT_STREQ("", line);
                EXPECT_STREQ("", sd->proxy);
                EXPECT_EQ(0u, sd->flags);
                break;
            }
            EXPECT_EQ(0, rc);
            EXPECT_EQ(0u, std::string(sd->proxy).rfind("remote log from storage server:" + hostName(), 0));
            lines.emplace_back(line);
        }
        return lines;
    };
    const std::vector<std::string> fromA = drain(a);
    const std::vector<std::string> fromB = drain(b);
    ASSERT_FALSE(fromB.empty());
    // a opened first, so it holds b's lines and more before them.
    ASSERT_GE(fromA.size(), fromB.size());
    EXPECT_TRUE(std::equal(fromB.begin(), fromB.end(), fromA.end() - fromB.size()));
    bool sawFailure = false;
    for (const std::string& l : fromB) sawFailure |= l.find("sts_get_server_prop_byname failed") != std::string::npos;
    EXPECT_TRUE(sawFailure);

    o.ssm->closeRmtLoggerV12(0, session("la"), a);
    API::RemoteLogger_var d = o.ecm->openRmtLoggerV12(1);
    for (int id = 1; id <= 4; ++id) EXPECT_TRUE(logHas("The RemoteLogger Id is " + std::to_string(id)));
}

TEST_F(EntryObjects, EveryRefusedFormAnswersNotSupported)
{
    start();
    o.logger = o.ecm->openRmtLoggerV12(0);
    o.server = openShm(1, "refused");
    struct Call {
        const char* name;
        bool declaresSTSError;
        std::function<void(Objects&)> run;
    };
    const std::vector<Call> calls = {
#include "RefusedCalls.inc"
    };
    EXPECT_EQ(62u, calls.size());
    for (const Call& call : calls) {
        if (call.declaresSTSError) {
            EXPECT_TRUE(raises(2060016, [&] { call.run(o); }, "operation not supported")) << call.name;
        } else {
            // An operation without a raises clause cannot carry the error:
            // the client sees the ORB's UNKNOWN.
            EXPECT_THROW(call.run(o), CORBA::UNKNOWN) << call.name;
        }
    }
}

} // namespace
