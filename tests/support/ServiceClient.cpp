#include "ServiceClient.h"

#include <chrono>
#include <cstdlib>
#include <unistd.h>

using namespace std::chrono_literals;

namespace keldtest {

std::string hostName()
{
    char host[512] = {0};
    gethostname(host, sizeof(host) - 1);
    return host;
}

std::string diskServerName()
{
    return "Disk:" + hostName();
}

API::SessionDefinition session(const char* id)
{
    API::SessionDefinition ssd;
    ssd.proxy = CORBA::string_dup("");
    ssd.id = CORBA::string_dup(id);
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

API::ImageDefinitionV13 imageDefinition(const char* baseName, const char* date)
{
    API::ImageDefinitionV13 imd = API::ImageDefinitionV13();   // numbers and enums zeroed
    imd.base_name = CORBA::string_dup(baseName);
    imd.shortdate = CORBA::string_dup(date);
    return imd;
}

::testing::AssertionResult raises(int number, const std::function<void()>& call, const char* text)
{
    try {
        call();
    } catch (const API::STSError& e) {
        if (e.stsErrorNo != number) return ::testing::AssertionFailure() << "number " << e.stsErrorNo << " " << e.errorMsg;
        if (text != nullptr && std::string(e.errorMsg) != text) {
            return ::testing::AssertionFailure() << "text " << e.errorMsg;
        }
        return ::testing::AssertionSuccess();
    } catch (const CORBA::Exception& e) {
        return ::testing::AssertionFailure() << "other exception " << e._name();
    }
    return ::testing::AssertionFailure() << "no exception";
}

::testing::AssertionResult raisesVal(int number, API::UInt64 bytes, const std::function<void()>& call)
{
    try {
        call();
    } catch (const API::STSError_val& e) {
        if (e.stsErrorNo != number || e.bytesReturned != bytes) {
            return ::testing::AssertionFailure() << "number " << e.stsErrorNo << " bytes " << e.bytesReturned;
        }
        return ::testing::AssertionSuccess();
    } catch (const CORBA::Exception& e) {
        return ::testing::AssertionFailure() << "other exception " << e._name();
    }
    return ::testing::AssertionFailure() << "no exception";
}

::testing::AssertionResult raisesSystem(const std::function<void()>& call)
{
    try {
        call();
    } catch (const CORBA::SystemException&) {
        return ::testing::AssertionSuccess();
    } catch (const CORBA::Exception& e) {
        return ::testing::AssertionFailure() << "user exception " << e._name();
    }
    return ::testing::AssertionFailure() << "no exception";
}

CORBA::ORB_ptr clientOrb()
{
    static CORBA::ORB_ptr orb = [] {
        int argc = 0;
        return CORBA::ORB_init(argc, nullptr);
    }();
    return orb;
}

void ServiceFixture::start(const std::vector<std::string>& env, const std::vector<std::string>& extraArgs)
{
    std::vector<std::string> args = {"-start", "-ORBListenEndPoints", endpointArg(port)};
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    service = std::make_unique<Child>(keldpxyPath(), args, env);
    ASSERT_TRUE(waitFor([&] { return logHas("succeed to advertise object EventChannelManager"); }, 20s));
    CORBA::Object_var obj = clientOrb()->string_to_object(corbaloc(port, "Proxy.StorageServerManager").c_str());
    ssm = API::StorageServerManager::_narrow(obj);
    ASSERT_FALSE(CORBA::is_nil(ssm));
}

API::StorageServer_ptr ServiceFixture::openDisk(API::UInt64 seq, const char* id)
{
    return ssm->openServerV12(seq, session(id), diskServerName().c_str(), noCredential(), "", 0);
}

std::string ServiceFixture::lsuDir(const std::string& name) const
{
    return root.path() + "/keldrive/storage/" + hostName() + "/lsus/" + name;
}

void ServiceFixture::makeLsu(const std::string& name) const
{
    const std::string cmd = "mkdir -p '" + lsuDir(name) + "/images'";
    ASSERT_EQ(0, std::system(cmd.c_str()));
}

bool ServiceFixture::logHas(const std::string& text) const
{
    return root.readLog().find(text) != std::string::npos;
}

size_t ServiceFixture::logCount(const std::string& text) const
{
    const std::string log = root.readLog();
    size_t n = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
    return n;
}

} // namespace keldtest
