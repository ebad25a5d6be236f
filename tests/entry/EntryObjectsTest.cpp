// The entry objects seen from a client in another process: a running
// keldpxy with a temporary install root, reached over IIOP by corbaloc.
#include "CredentialCipher.h"
#include "DiskClient.h"
#include "FaultNumbers.h"
#include "sts_plugin.h"

#include <filesystem>

using namespace keldtest;
using namespace std::chrono_literals;

namespace {

API::Credential rawCredential(API::UInt32 len, const std::vector<unsigned char>& cert)
{
    API::Credential cred = noCredential();
    cred.len = len;
    cred.cert.length(static_cast<CORBA::ULong>(cert.size()));
    std::copy(cert.begin(), cert.end(), cred.cert.get_buffer());
    return cred;
}

class EntryObjects : public ServiceFixture {
protected:
    API::EventChannelManager_ptr eventManager()
    {
        CORBA::Object_var obj = clientOrb()->string_to_object(corbaloc(port, "Proxy.EventChannelManager").c_str());
        return API::EventChannelManager::_narrow(obj);
    }
    API::StorageServer_ptr openShm(API::UInt64 seq, const char* id)
    {
        return ssm->openServerV12(seq, session(id), ("ShMem:" + hostName()).c_str(), noCredential(), "", 0);
    }
    bool pluginMapped(const char* name) const
    {
        return fileText("/proc/" + std::to_string(service->pid()) + "/maps").find(name) != std::string::npos;
    }
    // text encrypted under the running service's key, as a client sends it.
    API::Credential encrypted(const std::string& text)
    {
        API::Bytes_var key = ssm->getPublicKey();
        std::vector<unsigned char> cipher;
        EXPECT_EQ(CredentialCipher::OK, CredentialCipher({key->get_buffer(), key->get_buffer() + key->length()})
                                            .encrypt({text.begin(), text.end()}, cipher));
        return rawCredential(static_cast<API::UInt32>(text.size()), cipher);
    }
};

TEST_F(EntryObjects, OpensReplayCloseLeavesTheObjectForItsRetryAndADomainServersShutdownEndsCleanly)
{
    start();
    API::StorageServer_var first = openShm(5, "retry");
    API::StorageServer_var replay = openShm(5, "retry");
    EXPECT_TRUE(first->_is_equivalent(replay));
    EXPECT_EQ(1u, logCount("succeed to open sts session"));
    EXPECT_TRUE(raises(STS_ESEQUENCE, [&] { openShm(4, "retry"); }, "out of order call sequence"));

    // A sequenced close leaves the object for a retried close; the object's
    // own record says the server is closed; the session's next sequenced
    // call deactivates it, and the POA, its only owner, frees it.
    ssm->closeServerV12(6, session("retry"), first);
    ssm->closeServerV12(6, session("retry"), first);
    EXPECT_FALSE(first->_non_existent());
    EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { first->closeServerV12(1); }, "server has not been opened"));
    API::ServerInformation_var info;
    ssm->getServerPropByNameV12(7, session("retry"), ("ShMem:" + hostName()).c_str(), info);
    EXPECT_TRUE(first->_non_existent());
    EXPECT_EQ(1u, logCount("object of StorageServerImpl is destroyed here"));

    // A failed open leaves no servant behind, and its retry replays the error.
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_TRUE(raises(STSP_ENOSERVER, [&] { ssm->openServerV12(8, session("retry"), "Nobody:x", noCredential(), "", 0); },
                           "fail to open the sts server"));
    }
    EXPECT_EQ(2u, logCount("object of StorageServerImpl is destroyed here"));
    EXPECT_EQ(2u, logCount("init object StorageServerImpl"));
    API::StorageServer_var once = openShm(0, "zero");
    ssm->closeServerV12(0, session("zero"), once);
    EXPECT_TRUE(once->_non_existent()) << "number 0 deactivates at once";

    // Only a server of the domain may shut the service down, loopback
    // included; a refusal leaves the session's record as it was.
    API::StorageServer_var open = openShm(1, "s");
    root.writeFile("keldrive/servers", "# the domain\n127.0.0.2\n");
    EXPECT_TRUE(raises(STS_ENOT_SUPPORTED, [&] { ssm->shutdownV12(2, session("s")); }, "operation not supported"));
    EXPECT_TRUE(logHas("refused to shut the service down for giop:tcp:127.0.0.1:"));
    EXPECT_TRUE(service->running());
    root.writeFile("keldrive/servers", "# the domain\n127.0.0.2 127.0.0.1\n");
    ssm->shutdownV12(2, session("s"));   // 1 would replay the open
    EXPECT_EQ(0, service->wait(20s));
    EXPECT_TRUE(logHas("proxy service exits"));
}

TEST_F(EntryObjects, PropertyQueryAndCreateHoldTheLibraryOnlyWhileTheyNeedIt)
{
    start();
    API::ServerInformation_var info;
    const std::string name = "ShMem:" + hostName();
    EXPECT_EQ(0, ssm->getServerPropByNameV12(1, session("p"), name.c_str(), info));
    EXPECT_EQ(name, std::string(info->srv_server));
    EXPECT_FALSE(pluginMapped("libsts_shmem.so"));
    EXPECT_TRUE(raises(STSP_ENOSERVER, [&] { ssm->getServerPropByNameV12(2, session("p"), "Nobody:x", info); },
                       "fail to call sts_get_server_prop_byname"));
    EXPECT_FALSE(pluginMapped("libsts_shmem.so"));

    API::StorageServer_var disk = openDisk(1, "d");
    ASSERT_FALSE(CORBA::is_nil(disk));
    ssm->closeServerV12(2, session("d"), disk);
    // Nothing holds the library now: the create cannot open its session;
    // with a server open it creates a disk server.
    API::STSHostSeq hosts;
    EXPECT_TRUE(raises(STS_ENOT_INIT, [&] { ssm->createServerV12(1, session("c"), "Disk:made", noCredential(), "", hosts, 0); },
                       "fail to open the STS session"));
    API::StorageServer_var holder = openShm(1, "holder");
    API::StorageServer_var made = ssm->createServerV12(2, session("c"), "Disk:made", noCredential(), "", hosts, 0);
    EXPECT_FALSE(CORBA::is_nil(made));
    EXPECT_TRUE(waitFor([&] { return exists(root.path() + "/keldrive/storage/made/server.conf"); }, 2s));
}

// A client may send a credential of any size: whatever does not decrypt
// into the certificate's 1024 bytes is a wrong credential, on every path
// that decrypts, and the service goes on serving.  No credential is written
// in clear, neither to the log nor to the remote log's readers, and the
// log's and pid's files are the owner's and the group's alone.
TEST_F(EntryObjects, CredentialsDecryptTargetsShareTheSessionHostileOnesAreRefusedAndNoneIsLogged)
{
    const mode_t umaskBefore = ::umask(0);   // the service's files must not rely on it
    startWithFaultPlugin({}, "VERBOSE = 6\n");
    ::umask(umaskBefore);
    API::RemoteLogger_var watcher = ssm->openRmtLoggerV12(1, session("watcher"));
    faultControl("KELD_FAULT_CERT=top-secret-certificate\n");
    const auto open = [&](API::UInt64 seq, const API::Credential& cred) {
        return ssm->openServerV12(seq, session("k"), "Fault:test", cred, "", 0);
    };
    EXPECT_TRUE(raises(FAULT_EREFUSED, [&] { open(1, encrypted("wrong-certificate-text")); }, "fail to open the sts server"));
    API::StorageServer_var server = open(2, encrypted("top-secret-certificate"));
    ASSERT_FALSE(CORBA::is_nil(server));
    API::StorageServer_var target = server->openTargetServerV12(1, "Fault:other", noCredential(), "");
    target->closeServerV12(1);
    EXPECT_TRUE(logHas("needn't to close sts session because this is the target server"));
    server->closeServerV12(2);   // the parent's session was left open for it
    EXPECT_EQ(1u, logCount("[StorageServerImpl::closeServer]succeed to close sts session"));

    server = open(3, encrypted("top-secret-certificate"));
    std::vector<API::Credential> hostile;
    for (size_t blocks : {11u, 12u, 14u, 40u, 400u}) hostile.push_back(encrypted(std::string(blocks * 86, 'c')));
    hostile.push_back(rawCredential(40, std::vector<unsigned char>(300, 0xA5)));   // not whole blocks
    API::UInt64 seq = 4;
    for (const API::Credential& cred : hostile) {
        EXPECT_TRUE(raises(FAULT_EREFUSED, [&] { open(seq++, cred); }));
        try {
            API::StorageServer_var t = server->openTargetServerV12(seq++, "Fault:test", cred, "");
        } catch (const API::STSError&) {
            // The stand-in takes no credential for targets; answering is what counts.
        }
        API::STSHostSeq hosts;
        hosts.length(1);
        hosts[0].sh_cred = cred;
        EXPECT_THROW(ssm->createServerV12(seq++, session("k"), "Fault:made", cred, "", hosts, 1), API::STSError);
        EXPECT_THROW(ssm->shutdownServerV12(seq++, session("k"), "Fault:test", cred, 0), API::STSError);
    }
    EXPECT_THROW(ssm->shutdownServerV12(seq++, session("k"), "Fault:test", encrypted("top-secret-certificate"), 0),
                 API::STSError);
    target = server->openTargetServerV12(seq++, "Fault:test", encrypted("top-secret-certificate"), "");

    std::string streamed;
    for (const std::string& line : drain(watcher)) streamed += line;
    for (const std::string& text : {root.readLog(), streamed}) {
        EXPECT_EQ(std::string::npos, text.find("top-secret-certificate"));
        EXPECT_EQ(std::string::npos, text.find("wrong-certificate-text"));
        EXPECT_NE(std::string::npos, text.find("cr_cert [*** 22 bytes]"));
    }
    EXPECT_EQ(5u, logCount("cr_cert [*** 22 bytes]")) << "three opens, the shutdown and the target";
    std::vector<std::string> files = {root.path() + "/keldrive/logs/keldpxy." + std::to_string(service->pid()) + ".pid"};
    for (const auto& entry : std::filesystem::directory_iterator(root.logDir())) files.push_back(entry.path());
    for (const std::string& file : files) {
        struct stat st;
        ASSERT_EQ(0, ::stat(file.c_str(), &st)) << file;
        EXPECT_EQ(0640u, st.st_mode & 07777) << file;
    }
}

TEST_F(EntryObjects, RemoteLoggersReceiveEveryLineInOrder)
{
    start();
    API::EventChannelManager_var ecm = eventManager();
    API::RemoteLogger_var a = ssm->openRmtLoggerV12(1, session("la"));
    API::RemoteLogger_var b = ssm->openRmtLoggerV12(1, session("lb"));
    API::RemoteLogger_var c = ecm->openRmtLoggerV12(1);
    API::ServerInformation_var info;
    EXPECT_THROW(ssm->getServerPropByNameV12(1, session("q"), "Nobody:x", info), API::STSError);

    const auto drain = [](API::RemoteLogger_ptr logger) {
        std::vector<std::string> lines;
        for (;;) {
            API::SessionDefinition_var sd;
            CORBA::String_var line;
            const CORBA::Long rc = logger->getRemoteLogV12(0, sd, line);
            if (rc == STS_ENO_EVENT) {
                EXPECT_STREQ("", line);
                return lines;
            }
            EXPECT_EQ(0, rc);
            EXPECT_EQ(0u, std::string(sd->proxy).rfind("remote log from storage server:" + hostName(), 0));
            lines.emplace_back(line);
        }
    };
    const std::vector<std::string> fromA = drain(a);
    const std::vector<std::string> fromB = drain(b);
    // a opened first, so it holds b's lines and more before them.
    ASSERT_FALSE(fromB.empty());
    ASSERT_GE(fromA.size(), fromB.size());
    EXPECT_TRUE(std::equal(fromB.begin(), fromB.end(), fromA.end() - fromB.size()));
    EXPECT_TRUE(std::any_of(fromB.begin(), fromB.end(), [](const std::string& l) {
        return l.find("sts_get_server_prop_byname failed") != std::string::npos;
    }));
    ssm->closeRmtLoggerV12(0, session("la"), a);
    EXPECT_TRUE(a->_non_existent());
}

} // namespace
