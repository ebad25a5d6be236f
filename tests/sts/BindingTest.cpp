// The service's binding: the version and directory checks of sts_init, the
// counted terminate, the calling rule once the table is gone, the helpers
// every user of the library goes through, and the next hop of a chain.
#include "ProxyLogger.h"
#include "StsBinding.h"
#include "StsLibrary.h"
#include "StsTestSupport.h"

#include <gtest/gtest.h>
#include <string>

using namespace ststest;

namespace {

class Binding : public ::testing::Test {
protected:
    void SetUp() override { plugins.add(SHMEM_PLUGIN); }
    void TearDown() override
    {
        while (sts_api != nullptr) sts_terminate();
        nInitCount = 0;
    }
    std::string dir() const { return plugins.libDir(); }

    PluginRoot plugins;
};

TEST_F(Binding, VersionIsCheckedBeforeTheDirectoryAndLeavesTheTableAlone)
{
    EXPECT_EQ(2060007, sts_init(10, dir().c_str()));
    EXPECT_EQ(2060007, sts_init(12, nullptr));
    EXPECT_EQ(nullptr, sts_api);
    EXPECT_EQ(2060001, sts_init(11, nullptr));
    EXPECT_EQ(nullptr, sts_api);

    // With a table loaded, a refused init neither replaces it nor takes a
    // use: one terminate is enough to let it go.
    ASSERT_EQ(0, sts_init(11, dir().c_str()));
    sts_api_t* table = sts_api;
    EXPECT_EQ(2060007, sts_init(10, dir().c_str()));
    EXPECT_EQ(2060007, sts_init(12, dir().c_str()));
    EXPECT_EQ(2060001, sts_init(11, nullptr));
    EXPECT_EQ(table, sts_api);
    EXPECT_EQ(0, sts_terminate());
    EXPECT_EQ(nullptr, sts_api);
}

TEST_F(Binding, TerminateIsCountedAndTheLastOneClearsTheTable)
{
    ASSERT_EQ(0, sts_init(11, dir().c_str()));
    sts_api_t* table = sts_api;
    ASSERT_EQ(0, sts_init(11, dir().c_str()));
    EXPECT_EQ(table, sts_api);

    // The framework answers 2060012: another user remains, a success here.
    EXPECT_EQ(0, sts_terminate());
    ASSERT_EQ(table, sts_api);
    sts_session_def_t sd = {};
    sts_handle_t ssn = nullptr;
    ASSERT_EQ(0, STS_CALL(stsa_open_session, &sd, &ssn));
    EXPECT_EQ(0, STS_CALL(stsa_close_handle, ssn, 0));

    EXPECT_EQ(0, sts_terminate());
    EXPECT_EQ(nullptr, sts_api);

    // Every call site now yields 2060010, whatever the slot.
    sts_lsu_t lsu = lsuOf(nullptr, "x");
    sts_uint64_t n = 0;
    EXPECT_EQ(2060010, STS_CALL(stsa_open_session, &sd, &ssn));
    EXPECT_EQ(2060010, STS_CALL(stsa_delete_lsu, &lsu));
    EXPECT_EQ(2060010, STS_CALL(stsa_read_image, nullptr, nullptr, 0, 0, &n));
    // A caller that kept the old pointer gets the same answer, not a crash.
    EXPECT_EQ(2060010, table->stsa_open_session(&sd, &ssn));

    // One terminate too many: the framework's "no user" passes through.
    EXPECT_EQ(2060010, sts_terminate());
    EXPECT_EQ(nullptr, sts_api);
}

TEST_F(Binding, InitWithoutPluginDirectoryFails)
{
    PluginRoot empty;
    const std::string nowhere = empty.libDir() + "/missing";
    EXPECT_EQ(STSP_ENOPLUGINDIR, sts_init(11, nowhere.c_str()));
    EXPECT_EQ(nullptr, sts_api);
}

// The helpers work on <KELDV_ROOT>/lib, which PluginRoot provides.
class LibraryUse : public Binding {
protected:
    bool logHas(const std::string& text) const
    {
        return plugins.root().readLog().find(text) != std::string::npos;
    }
    ProxyLogger logger{1};
    sts_session_def_t sd = makeSd();

private:
    static sts_session_def_t makeSd()
    {
        sts_session_def_t s = {};
        s.sd_id = "binding";
        s.sd_flags = 15;
        return s;
    }
};

TEST_F(LibraryUse, BalancedUseCountsAndRaisesNoAlarm)
{
    ASSERT_EQ(0, initStorageLibrary());
    ASSERT_EQ(0, initStorageLibrary());
    EXPECT_EQ(2, nInitCount);
    EXPECT_EQ(0, terminateStorageLibrary(&logger, &sd, "BindingTest", "SUPER1!WRONG"));
    EXPECT_NE(nullptr, sts_api);
    EXPECT_EQ(0, terminateStorageLibrary(&logger, &sd, "BindingTest", "SUPER1!WRONG"));
    EXPECT_EQ(0, nInitCount);
    EXPECT_EQ(nullptr, sts_api);
    EXPECT_FALSE(logHas("SUPER1!WRONG"));
}

TEST_F(LibraryUse, UnbalancedTerminateLogsItsLabelAndGoesNegative)
{
    ASSERT_EQ(0, initStorageLibrary());
    EXPECT_EQ(0, terminateStorageLibrary(&logger, &sd, "BindingTest", "SUPER1!WRONG"));
    EXPECT_EQ(2060010, terminateStorageLibrary(&logger, &sd, "BindingTest", "SUPER4!WRONG"));
    EXPECT_EQ(-1, nInitCount);
    EXPECT_TRUE(logHas("[ERROR][binding][BindingTest]SUPER4!WRONG"));
    EXPECT_FALSE(logHas("SUPER1!WRONG"));
}

TEST_F(LibraryUse, FailedInitIsNotCounted)
{
    ASSERT_EQ(0, std::system(("rm -rf '" + dir() + "/stsplugins'").c_str()));
    EXPECT_EQ(STSP_ENOPLUGINDIR, initStorageLibrary());
    EXPECT_EQ(0, nInitCount);
    EXPECT_EQ(nullptr, sts_api);
}

TEST(NextProxyName, TakesWhatFollowsTheFirstHash)
{
    char target[512] = "stale";
    sts_get_next_proxy_name("a#b#c", target);
    EXPECT_STREQ("b#c", target);
    sts_get_next_proxy_name("a#", target);
    EXPECT_STREQ("", target);
    sts_get_next_proxy_name("a", target);
    EXPECT_STREQ("", target);
    sts_get_next_proxy_name("a##b", target);
    EXPECT_STREQ("", target);
    const std::string longChain = "a#" + std::string(600, 'x');
    sts_get_next_proxy_name(longChain.c_str(), target);
    EXPECT_EQ(511u, std::string(target).size());
}

} // namespace
