#include "ServiceClient.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <unistd.h>

using namespace std::chrono_literals;

namespace keldtest {

std::string hostName()
{
    char host[512] = {0};
    gethostname(host, sizeof(host) - 1);
    return host;
}

API::SessionDefinition session(const char* id)
{
    API::SessionDefinition ssd = API::SessionDefinition();
    ssd.proxy = CORBA::string_dup("");
    ssd.id = CORBA::string_dup(id);
    return ssd;
}

API::ImageDefinitionV13 imageDefinition(const char* baseName, const char* date)
{
    API::ImageDefinitionV13 imd = API::ImageDefinitionV13();   // numbers and enums zeroed
    imd.base_name = CORBA::string_dup(baseName);
    imd.shortdate = CORBA::string_dup(date);
    return imd;
}

namespace {

// What call threw: judged when it is an Expected, a failure otherwise.
template <class Expected, class Judge>
::testing::AssertionResult thrown(const std::function<void()>& call, Judge judge)
{
    try {
        call();
    } catch (const Expected& e) {
        return judge(e);
    } catch (const CORBA::Exception& e) {
        return ::testing::AssertionFailure() << "other exception " << e._name();
    }
    return ::testing::AssertionFailure() << "no exception";
}

} // namespace

::testing::AssertionResult raises(int number, const std::function<void()>& call, const char* text)
{
    return thrown<API::STSError>(call, [&](const API::STSError& e) {
        const bool same = e.stsErrorNo == number && (text == nullptr || std::string(e.errorMsg) == text);
        return same ? ::testing::AssertionSuccess()
                    : ::testing::AssertionFailure() << "number " << e.stsErrorNo << " " << e.errorMsg;
    });
}

::testing::AssertionResult raisesVal(int number, API::UInt64 bytes, const std::function<void()>& call)
{
    return thrown<API::STSError_val>(call, [&](const API::STSError_val& e) {
        return e.stsErrorNo == number && e.bytesReturned == bytes
                   ? ::testing::AssertionSuccess()
                   : ::testing::AssertionFailure() << "number " << e.stsErrorNo << " bytes " << e.bytesReturned;
    });
}

::testing::AssertionResult raisesSystem(const std::function<void()>& call)
{
    return thrown<CORBA::SystemException>(call, [](const CORBA::SystemException&) { return ::testing::AssertionSuccess(); });
}

CORBA::ORB_ptr clientOrb()
{
    // A client that may send more than any service takes, so that the
    // service's own limit is what a test meets.
    static const char* options[][2] = {{"giopMaxMsgSize", "268435456"}, {nullptr, nullptr}};
    static CORBA::ORB_ptr orb = [] {
        int argc = 0;
        return CORBA::ORB_init(argc, nullptr, "omniORB4", options);
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

void ServiceFixture::startWithFaultPlugin(const std::vector<std::string>& extraArgs, const std::string& settings)
{
    root.usePluginsFrom(KELD_FAULT_PLUGIN_DIR);
    root.writeFile("keldrive/keldrive.conf", "VERBOSE = 5\n" + settings);
    faultControl("");
    start({"KELD_FAULT_PREFIX=Fault:", "KELD_FAULT_CALLS=" + root.path() + "/fault.calls",
           "KELD_FAULT_CONTROL=" + root.path() + "/fault.control"},
          extraArgs);
}

size_t ServiceFixture::faultCalls(const std::string& prefix) const
{
    std::ifstream in(root.path() + "/fault.calls");
    size_t n = 0;
    for (std::string line; std::getline(in, line);) n += line.compare(0, prefix.size(), prefix) == 0;
    return n;
}

void ServiceFixture::makeLsu(const std::string& name) const
{
    ASSERT_EQ(0, std::system(("mkdir -p '" + lsuDir(name) + "/images'").c_str()));
}

size_t ServiceFixture::logCount(const std::string& text) const
{
    const std::string log = root.readLog();
    size_t n = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
    return n;
}

} // namespace keldtest
