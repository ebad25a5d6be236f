// Removal of leftover shared-memory LSUs, against a stand-in "ShMem:"
// plug-in that injects failures (see tests/sts/faultplugin for its
// controls), and end to end with the real shared-memory plug-in.
#include "ProxyLogger.h"
#include "ProxyV9SVC.h"
#include "StsBinding.h"
#include "TestSupport.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

const char* const FAULT_VARS[] = {"KELD_FAULT_LSUS", "KELD_FAULT_BUSY", "KELD_FAULT_DELETE_FAIL",
                                  "KELD_FAULT_LIST_FAIL", "KELD_FAULT_OPEN_SERVER", "KELD_FAULT_LOG",
                                  "KELD_FAULT_DROP_USES"};

class Cleanup : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* v : FAULT_VARS) unsetenv(v);
        root.usePluginsFrom(KELD_FAULT_PLUGIN_DIR);
        deletedLog = root.path() + "/deleted.txt";
        setenv("KELD_FAULT_LOG", deletedLog.c_str(), 1);
        static char name[] = "keldpxy";
        static char* argv[] = {name, nullptr};
        svc = std::make_unique<ProxyV9SVC>(1, argv, &logger, true, false, 0, "ProxyV9SVC", false);
    }
    void TearDown() override
    {
        for (const char* v : FAULT_VARS) unsetenv(v);
    }

    std::string deleted() const
    {
        std::ifstream in(deletedLog);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    bool logHas(const std::string& text) const { return root.readLog().find(text) != std::string::npos; }

    keldtest::TempRoot root;
    ProxyLogger logger{1};
    std::unique_ptr<ProxyV9SVC> svc;
    std::string deletedLog;
};

TEST_F(Cleanup, NoLsuIsASuccess)
{
    EXPECT_EQ(0, svc->cleanupSharedMemory());
    EXPECT_TRUE(logHas("[DEBUG][cleanup][ProxyV9SVC::cleanupSharedMemory]reach the end of lsu"));
    EXPECT_TRUE(logHas("succeed to terminate sts"));
}

TEST_F(Cleanup, BusyLsuStaysAndTheOthersGo)
{
    setenv("KELD_FAULT_LSUS", "a,b,c", 1);
    setenv("KELD_FAULT_BUSY", "b", 1);
    setenv("KELD_FAULT_DELETE_FAIL", "c:2060099", 1);
    EXPECT_EQ(0, svc->cleanupSharedMemory());
    EXPECT_EQ("a\n", deleted());
    EXPECT_TRUE(logHas("sts_delete_lsu b failed is busy, return 2060005"));
    EXPECT_TRUE(logHas("[ERROR][cleanup][ProxyV9SVC::cleanupSharedMemory]sts_delete_lsu c failed, return 2060099"));
}

TEST_F(Cleanup, ListFailureAfterTwoIsTheResult)
{
    setenv("KELD_FAULT_LSUS", "a,b,c", 1);
    setenv("KELD_FAULT_LIST_FAIL", "2:2060077", 1);
    EXPECT_EQ(2060077, svc->cleanupSharedMemory());
    EXPECT_EQ("a\nb\n", deleted());
    EXPECT_TRUE(logHas("sts_list_lsu failed, return 2060077"));
}

TEST_F(Cleanup, OpenServerFailureStillClosesAndTerminates)
{
    setenv("KELD_FAULT_OPEN_SERVER", "2060088", 1);
    EXPECT_EQ(2060088, svc->cleanupSharedMemory());
    const std::string log = root.readLog();
    EXPECT_NE(std::string::npos, log.find("failed, return 2060088"));
    EXPECT_NE(std::string::npos, log.find("succeed to close sts session"));
    EXPECT_NE(std::string::npos, log.find("succeed to terminate sts"));
}

TEST_F(Cleanup, FailedTerminateWipesAnEarlierFailure)
{
    setenv("KELD_FAULT_OPEN_SERVER", "2060088", 1);
    setenv("KELD_FAULT_DROP_USES", "1", 1);   // the terminate will find no use left
    EXPECT_EQ(0, svc->cleanupSharedMemory());
    const std::string log = root.readLog();
    const size_t open = log.find("failed, return 2060088");
    const size_t terminate = log.find("sts_terminate failed, return 2060010");
    ASSERT_NE(std::string::npos, open);
    ASSERT_NE(std::string::npos, terminate);
    EXPECT_LT(open, terminate);
    EXPECT_EQ(0, nInitCount);
}

TEST_F(Cleanup, InitFailureOpensNothingAndTerminatesNothing)
{
    ASSERT_EQ(0, std::system(("rm -rf '" + root.path() + "/lib'").c_str()));
    EXPECT_NE(0, svc->cleanupSharedMemory());
    const std::string log = root.readLog();
    EXPECT_NE(std::string::npos, log.find("sts_init failed, return"));
    EXPECT_EQ(std::string::npos, log.find("sts_open_session"));
    EXPECT_EQ(std::string::npos, log.find("sts_termiante will be called"));
}

TEST_F(Cleanup, UnbalancedCountRaisesItsAlarmAndGoesOn)
{
    nInitCount = -1;   // a terminate elsewhere that had no init
    EXPECT_EQ(0, svc->cleanupSharedMemory());
    EXPECT_EQ(-1, nInitCount);
    EXPECT_TRUE(logHas("[ERROR][cleanup][ProxyV9SVC::cleanupSharedMemory]SUPER6!WRONG"));
    nInitCount = 0;
}

TEST_F(Cleanup, OneUnknownLsuLogsTheErrorThenSucceed)
{
    setenv("KELD_FAULT_DELETE_FAIL", "nosuch:2060013", 1);
    char name[] = "nosuch";
    EXPECT_EQ(2060013, svc->cleanupOneSharedMemory(name));
    const std::string log = root.readLog();
    const size_t error = log.find("sts_delete_lsu nosuch failed, return 2060013");
    const size_t ok = log.find("succeed to delete lsu nosuch");
    ASSERT_NE(std::string::npos, error);
    ASSERT_NE(std::string::npos, ok);
    EXPECT_LT(error, ok);
}

// The real shared-memory plug-in, through the service process.
class ShmemEndToEnd : public ::testing::Test {
protected:
    keldtest::TempRoot root;
    std::string tool = KELDV_SHMEM_TOOL;
    std::string prefix = "t" + std::to_string(getpid()) + "_";

    int shm(const std::string& args) { return std::system((tool + " " + args + " >/dev/null").c_str()); }
    bool listed(const std::string& name)
    {
        return std::system((tool + " list | grep -qx '" + name + "'").c_str()) == 0;
    }
    void TearDown() override
    {
        for (const char* n : {"a", "b", "busy", "one"}) shm("remove " + prefix + n + " 2>/dev/null");
    }
};

TEST_F(ShmemEndToEnd, StartRemovesLeftoversButNotABusyOne)
{
    ASSERT_EQ(0, shm("create " + prefix + "a"));
    ASSERT_EQ(0, shm("create " + prefix + "b"));
    ASSERT_EQ(0, shm("create " + prefix + "busy"));
    keldtest::Child holder(tool, {"hold", prefix + "busy"});
    std::this_thread::sleep_for(300ms);

    const int port = keldtest::freePort();
    keldtest::Child service(keldtest::keldpxyPath(),
                            {"-start", "-exit", "0", "-ORBListenEndPoints", keldtest::endpointArg(port)});
    EXPECT_EQ(0, service.wait(30s));
    EXPECT_FALSE(listed(prefix + "a"));
    EXPECT_FALSE(listed(prefix + "b"));
    EXPECT_TRUE(listed(prefix + "busy"));
    const std::string log = root.readLog();
    EXPECT_NE(std::string::npos, log.find("succeed to delete lsu " + prefix + "a"));
    EXPECT_NE(std::string::npos, log.find("sts_delete_lsu " + prefix + "busy failed is busy, return 2060005"));
}

TEST_F(ShmemEndToEnd, CleanupCommandRemovesOneAndExitsZero)
{
    ASSERT_EQ(0, shm("create " + prefix + "one"));
    EXPECT_EQ(0, keldtest::runKeldpxy({"-cleanup", prefix + "one"}, 30s));
    EXPECT_FALSE(listed(prefix + "one"));
    EXPECT_EQ(0, keldtest::runKeldpxy({"-cleanup", prefix + "absent"}, 30s));
    const std::string log = root.readLog();
    EXPECT_NE(std::string::npos, log.find("cleanup the left shared memory " + prefix + "one"));
    EXPECT_NE(std::string::npos, log.find("sts_delete_lsu " + prefix + "absent failed, return"));
    EXPECT_NE(std::string::npos, log.find("proxy server exits"));
}

} // namespace
