// Removal of leftover shared-memory LSUs, against a stand-in "ShMem:"
// plug-in that injects failures (see tests/sts/faultplugin for its
// controls), and end to end with the real shared-memory plug-in.
#include "FaultNumbers.h"
#include "ProxyLogger.h"
#include "ProxyV9SVC.h"
#include "StsBinding.h"
#include "TestSupport.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

using Lines = std::vector<std::string>;

// True when every line is in text, in this order.
bool inOrder(const std::string& text, const Lines& lines)
{
    size_t at = 0;
    for (const std::string& line : lines) {
        if ((at = text.find(line, at)) == std::string::npos) return false;
    }
    return true;
}

// A number as the log and the stand-in's settings write it.
std::string num(int number)
{
    return std::to_string(number);
}

// A service object on a root of its own whose plug-in is the stand-in,
// controlled by the KELD_FAULT_* settings given.
struct FaultedCleanup {
    explicit FaultedCleanup(const Lines& settings)
    {
        unsetAll();
        for (const std::string& kv : settings) setenv(kv.substr(0, kv.find('=')).c_str(), kv.substr(kv.find('=') + 1).c_str(), 1);
        root.usePluginsFrom(KELD_FAULT_PLUGIN_DIR);
        setenv("KELD_FAULT_LOG", (root.path() + "/deleted.txt").c_str(), 1);
    }
    ~FaultedCleanup() { unsetAll(); }
    static void unsetAll()
    {
        for (const char* v : {"KELD_FAULT_LSUS", "KELD_FAULT_BUSY", "KELD_FAULT_DELETE_FAIL", "KELD_FAULT_LIST_FAIL",
                              "KELD_FAULT_OPEN_SERVER", "KELD_FAULT_DROP_USES", "KELD_FAULT_LOG"}) {
            unsetenv(v);
        }
    }
    std::string deleted() const
    {
        std::ifstream in(root.path() + "/deleted.txt");
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

    keldtest::TempRoot root;
    ProxyLogger logger{1};
    char name[8] = "keldpxy";
    char* argv[2] = {name, nullptr};
    ProxyV9SVC svc{1, argv, &logger, true, false, 0, "ProxyV9SVC", false};
};

// Every LSU that can go goes; the first failure of the walk is the result,
// and the session is closed and the library terminated whatever failed.
TEST(Cleanup, RemovesWhatItCanAndReportsTheFirstFailure)
{
    const struct {
        Lines settings;
        int result;
        const char* deleted;
        Lines log;
    } cases[] = {
        {{}, 0, "", {"[DEBUG][cleanup][ProxyV9SVC::cleanupSharedMemory]reach the end of lsu", "succeed to terminate sts"}},
        {{"KELD_FAULT_LSUS=a,b,c", "KELD_FAULT_BUSY=b", "KELD_FAULT_DELETE_FAIL=c:" + num(FAULT_ECREATE)}, 0, "a\n",
         {"sts_delete_lsu b failed is busy, return " + num(STS_EBUSY_AGAIN),
          "[ERROR][cleanup][ProxyV9SVC::cleanupSharedMemory]sts_delete_lsu c failed, return " + num(FAULT_ECREATE)}},
        {{"KELD_FAULT_LSUS=a,b,c", "KELD_FAULT_LIST_FAIL=2:" + num(FAULT_EREFUSED)}, FAULT_EREFUSED, "a\nb\n",
         {"sts_list_lsu failed, return " + num(FAULT_EREFUSED)}},
        {{"KELD_FAULT_OPEN_SERVER=" + num(FAULT_EOPEN)}, FAULT_EOPEN, "",
         {"failed, return " + num(FAULT_EOPEN), "succeed to close sts session", "succeed to terminate sts"}},
        // A failed terminate (no use left) wipes the earlier failure.
        {{"KELD_FAULT_OPEN_SERVER=" + num(FAULT_EOPEN), "KELD_FAULT_DROP_USES=1"}, 0, "",
         {"failed, return " + num(FAULT_EOPEN), "sts_terminate failed, return " + num(STS_ENOT_INIT)}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.settings.empty() ? "no LSU" : c.settings.back());
        FaultedCleanup run(c.settings);
        EXPECT_EQ(c.result, run.svc.cleanupSharedMemory());
        EXPECT_EQ(c.deleted, run.deleted());
        EXPECT_TRUE(inOrder(run.root.readLog(), c.log)) << run.root.readLog();
        EXPECT_EQ(0, nInitCount);
    }
}

// A library that does not load opens and terminates nothing; a use count
// that was already wrong raises its alarm, and the walk goes on.
TEST(Cleanup, NoLibraryOrAnUnbalancedCount)
{
    {
        FaultedCleanup run({});
        ASSERT_EQ(0, std::system(("rm -rf '" + run.root.path() + "/lib'").c_str()));
        EXPECT_NE(0, run.svc.cleanupSharedMemory());
        const std::string log = run.root.readLog();
        EXPECT_NE(std::string::npos, log.find("sts_init failed, return"));
        EXPECT_EQ(std::string::npos, log.find("sts_open_session")) << "nothing opened";
        EXPECT_EQ(std::string::npos, log.find("sts_termiante will be called")) << "nothing terminated";
    }
    FaultedCleanup run({});
    nInitCount = -1;   // a terminate elsewhere that had no init
    EXPECT_EQ(0, run.svc.cleanupSharedMemory());
    EXPECT_EQ(-1, nInitCount);
    nInitCount = 0;
    EXPECT_NE(std::string::npos, run.root.readLog().find("[ERROR][cleanup][ProxyV9SVC::cleanupSharedMemory]SUPER6!WRONG"));
}

// The real shared-memory plug-in: a starting service removes the leftovers
// but not one in use, and the cleanup command removes the one it names.
TEST(ShmemEndToEnd, LeftoversGoAtStartAndByCommandButNotABusyOne)
{
    keldtest::TempRoot root;
    const std::string tool = KELDV_SHMEM_TOOL, prefix = "t" + std::to_string(getpid()) + "_";
    auto shm = [&](const std::string& args) { return std::system((tool + " " + args + " >/dev/null 2>&1").c_str()); };
    auto listed = [&](const std::string& n) { return std::system((tool + " list | grep -qx '" + prefix + n + "'").c_str()) == 0; };
    for (const char* n : {"a", "b", "busy"}) ASSERT_EQ(0, shm("create " + prefix + n));
    {
        keldtest::Child holder(tool, {"hold", prefix + "busy"});
        std::this_thread::sleep_for(300ms);
        keldtest::Child service(keldtest::keldpxyPath(),
                                {"-start", "-exit", "0", "-ORBListenEndPoints", keldtest::endpointArg(keldtest::freePort())});
        EXPECT_EQ(0, service.wait(30s));
        EXPECT_FALSE(listed("a") || listed("b"));
        EXPECT_TRUE(listed("busy"));
        EXPECT_NE(std::string::npos,
                  root.readLog().find("sts_delete_lsu " + prefix + "busy failed is busy, return " + num(STS_EBUSY_AGAIN)));
    }
    EXPECT_EQ(0, keldtest::runKeldpxy({"-cleanup", prefix + "busy"}, 30s));
    EXPECT_FALSE(listed("busy"));
    EXPECT_EQ(0, keldtest::runKeldpxy({"-cleanup", prefix + "absent"}, 30s)) << "an unknown name is no failure";
    EXPECT_TRUE(inOrder(root.readLog(), {"cleanup the left shared memory " + prefix + "busy",
                                         "sts_delete_lsu " + prefix + "absent failed, return"}));
    for (const char* n : {"a", "b", "busy"}) shm("remove " + prefix + n);
}

} // namespace
