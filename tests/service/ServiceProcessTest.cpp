// The service as a process: start, stop command, idle exit, a second
// instance on a taken endpoint, operator mistakes and usage.
#include "TestSupport.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;
using keldtest::Child;
using keldtest::TempRoot;

namespace {

std::string fileText(const std::string& path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

bool logHas(const TempRoot& root, const std::string& text)
{
    return root.readLog().find(text) != std::string::npos;
}

class ServiceProcess : public ::testing::Test {
protected:
    TempRoot root;
    int port = keldtest::freePort();

    std::vector<std::string> startArgs(std::vector<std::string> extra = {}) const
    {
        std::vector<std::string> args = {"-start", "-ORBListenEndPoints", keldtest::endpointArg(port)};
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    }

    bool waitStarted(Child& service)
    {
        return keldtest::waitFor([&] {
            return !service.running() || logHas(root, "doInit]succeed to cleanup shared memory") ||
                   logHas(root, "continue to start proxy service");
        }, 20s);
    }
};

// Each service registers under its own root; a stop command of one root
// leaves the other's service running, and the pid file goes with the service.
TEST_F(ServiceProcess, StopCommandStopsTheServiceOfItsOwnRootOnly)
{
    EXPECT_EQ(0, keldtest::runKeldpxy({"-stop"}, 20s)) << "nothing to stop is no failure";
    const std::string rootA = root.path();
    Child serviceA(keldtest::keldpxyPath(), startArgs());
    ASSERT_TRUE(waitStarted(serviceA));
    EXPECT_TRUE(logHas(root, "[INFO][dummy][main]start to run proxy service, interval is 0"));
    const std::string pidFileA = rootA + "/keldrive/logs/keldpxy." + std::to_string(serviceA.pid()) + ".pid";
    EXPECT_TRUE(keldtest::waitFor([&] { return access(pidFileA.c_str(), F_OK) == 0; }, 5s));

    TempRoot other;   // KELDV_ROOT now names the other root
    Child serviceB(keldtest::keldpxyPath(), {"-start", "-ORBListenEndPoints", keldtest::endpointArg(keldtest::freePort())});
    ASSERT_TRUE(keldtest::waitFor([&] { return logHas(other, "doInit]succeed to cleanup shared memory"); }, 20s));
    EXPECT_EQ(0, keldtest::runKeldpxy({"-stop"}, 20s));
    EXPECT_EQ(0, serviceB.wait(30s));
    EXPECT_TRUE(logHas(other, "doStop called abnormally"));
    EXPECT_TRUE(logHas(other, "end of doStop"));
    EXPECT_TRUE(serviceA.running());

    EXPECT_EQ(0, keldtest::runKeldpxy({"-stop"}, 20s, {"KELDV_ROOT=" + rootA}));
    EXPECT_EQ(0, serviceA.wait(30s));
    EXPECT_NE(0, access(pidFileA.c_str(), F_OK));
}

TEST_F(ServiceProcess, ExitZeroStopsRightAfterStart)
{
    Child service(keldtest::keldpxyPath(), startArgs({"-exit", "0"}));
    EXPECT_EQ(0, service.wait(30s));
    const std::string log = root.readLog();
    EXPECT_NE(std::string::npos, log.find("stop proxy service"));
    // An idle stop does not wait for work.
    EXPECT_EQ(std::string::npos, log.find("doStop called abnormally"));
    EXPECT_NE(std::string::npos, log.find("end of doStop"));
    // A one-shot timer is gone once it fired: nobody looks for it again.
    EXPECT_EQ(std::string::npos, log.find("was not found"));
}

TEST_F(ServiceProcess, SecondInstanceOnTheSameEndpointExits255WithTheReason)
{
    Child first(keldtest::keldpxyPath(), startArgs());
    ASSERT_TRUE(waitStarted(first));
    ASSERT_TRUE(first.running());

    const std::string errors = root.path() + "/second.err";
    Child second(keldtest::keldpxyPath(), startArgs(), {}, errors);
    EXPECT_EQ(255, second.wait(30s));
    EXPECT_TRUE(logHas(root, "start proxy service failed, there might be another proxy service running in your host"));
    EXPECT_TRUE(logHas(root, "the reason: INITIALIZE"));
    EXPECT_NE(std::string::npos, fileText(errors).find("Address in use?")) << "also told on standard error";
    EXPECT_TRUE(first.running());
    first.signal(SIGKILL);
}

// Mistakes an operator makes are refused or explained, and the service
// still starts where it can: huge intervals and thread counts, options of
// another ORB, an install root without plug-ins, a log that cannot be
// written.
TEST_F(ServiceProcess, OperatorMistakesAreExplainedNotFatal)
{
    root.writeFile("keldrive/logs/KELDPXY_TIMEOUT", "35791395\n");
    root.writeFile("keldrive/logs/PROXY_SERVER_THREAD_NUMBER", "99999999999\n");
    Child service(keldtest::keldpxyPath(),
                  startArgs({"-exit", "99999999", "-ORBDottedDecimalAddresses", "1"}));
    ASSERT_TRUE(waitStarted(service));
    std::this_thread::sleep_for(500ms);
    EXPECT_TRUE(service.running()) << "a huge interval must not turn into an immediate stop";
    const std::string log = root.readLog();
    EXPECT_NE(std::string::npos, log.find("-exit asks for more than 525600 minutes (a year)"));
    EXPECT_NE(std::string::npos, log.find("timeout 35791395 (minutes) in touch file is beyond the maximum of 525600, use 525600"));
    EXPECT_NE(std::string::npos, log.find("thread_number 99999999999 in touch file is beyond the maximum of 1024, use default 30"));
    EXPECT_NE(std::string::npos, log.find("set thread number to 30"));
    EXPECT_NE(std::string::npos, log.find("ORB option -ORBDottedDecimalAddresses 1 is not known to this ORB, passed over"));
    service.signal(SIGTERM);
    EXPECT_EQ(0, service.wait(30s));

    TempRoot bare(false, false);
    const std::string errors = bare.path() + "/err";
    std::ofstream(bare.path() + "/keldrive/logs/keldpxy") << "a file where the log directory goes";
    Child lonely(keldtest::keldpxyPath(), startArgs(), {}, errors);
    ASSERT_TRUE(keldtest::waitFor([&] { return fileText(errors).find("cannot be written") != std::string::npos; }, 20s));
    EXPECT_NE(std::string::npos, fileText(errors).find("no storage plug-in in " + bare.path() + "/lib/stsplugins"));
    lonely.signal(SIGTERM);
    EXPECT_EQ(0, lonely.wait(30s));

    Child nowhere(keldtest::keldpxyPath(), startArgs(), {"KELDV_ROOT=" + bare.path() + "/missing"}, errors);
    ASSERT_TRUE(keldtest::waitFor([&] { return fileText(errors).find("does not exist") != std::string::npos; }, 20s));
    nowhere.signal(SIGTERM);
    nowhere.wait(30s);
}

// Words that select no mode get the usage; the master configuration's
// VERBOSE is read first, a misspelt name is named in the log and passed
// over, and a malformed value refuses the start.
TEST_F(ServiceProcess, UsageVerboseAndAMalformedMasterConfiguration)
{
    root.writeFile("keldrive/keldrive.conf", "# product settings\nVERBSOE = 9\n  VERBOSE = 5 # chatty\n"
                                             "a line without a setting\n[not a section]\nVERBOSE = 7#twice\n");
    const std::string errors = root.path() + "/usage.err";
    Child usage(keldtest::keldpxyPath(), {"foo"}, {}, errors);
    EXPECT_EQ(0, usage.wait(20s));
    EXPECT_NE(std::string::npos, fileText(errors).find("Please run keldpxy"));
    EXPECT_EQ(0, keldtest::runKeldpxy({"-exit", "5"}, 20s));
    EXPECT_TRUE(logHas(root, "[WARN][dummy][main]Please run keldpxy [-start | -stop] [-exit n(minutes)] or no argument to start"));
    EXPECT_TRUE(logHas(root, "VERBOSE setting: 7"));
    const std::string conf = root.path() + "/keldrive/keldrive.conf";
    EXPECT_TRUE(logHas(root, "[WARN][dummy][main]unknown key VERBSOE at line 2 of " + conf + ", ignored"));
    EXPECT_EQ(std::string::npos, root.readLog().find("unknown key VERBOSE")) << root.readLog();

    root.writeFile("keldrive/keldrive.conf", "# product settings\nVERBOSE = lots\n");
    EXPECT_EQ(255, keldtest::runKeldpxy(startArgs(), 20s));
    EXPECT_TRUE(logHas(root, "fail to read VERBOSE setting, error code:"));
}

} // namespace
