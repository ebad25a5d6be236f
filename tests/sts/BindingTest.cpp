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
    bool logHas(const std::string& text) const { return plugins.root().readLog().find(text) != std::string::npos; }

    PluginRoot plugins;
    const std::string dir = plugins.libDir();
};

TEST_F(Binding, InitChecksItsArgumentsAndTerminateIsCounted)
{
    EXPECT_EQ(2060007, sts_init(12, nullptr));   // the version before the directory
    EXPECT_EQ(2060001, sts_init(11, nullptr));
    EXPECT_EQ(STSP_ENOPLUGINDIR, sts_init(11, (dir + "/missing").c_str()));
    EXPECT_EQ(nullptr, sts_api);

    ASSERT_EQ(0, sts_init(11, dir.c_str()));
    sts_api_t* table = sts_api;
    EXPECT_EQ(2060007, sts_init(12, dir.c_str()));   // neither replaces the table nor takes a use
    ASSERT_EQ(0, sts_init(11, dir.c_str()));
    EXPECT_EQ(table, sts_api.load());
    // The framework answers 2060012: another user remains, a success here.
    EXPECT_EQ(0, sts_terminate());
    ASSERT_EQ(table, sts_api.load());
    sts_session_def_t sd = {};
    sts_handle_t ssn = nullptr;
    ASSERT_EQ(0, STS_CALL(stsa_open_session, &sd, &ssn));
    EXPECT_EQ(0, STS_CALL(stsa_close_handle, ssn, 0));
    EXPECT_EQ(0, sts_terminate());
    EXPECT_EQ(nullptr, sts_api);

    // Every call site now yields 2060010, whatever the slot; a caller that
    // kept the old pointer gets the same answer, not a crash.
    sts_uint64_t n = 0;
    EXPECT_EQ(2060010, STS_CALL(stsa_open_session, &sd, &ssn));
    EXPECT_EQ(2060010, STS_CALL(stsa_read_image, nullptr, nullptr, 0, 0, &n));
    EXPECT_EQ(2060010, table->stsa_open_session(&sd, &ssn));
    EXPECT_EQ(2060010, sts_terminate());   // one too many: the framework's "no user" passes through
}

// The helpers work on <KELDV_ROOT>/lib, which PluginRoot provides.
TEST_F(Binding, LibraryUseIsCountedAndAnUnbalancedTerminateRaisesItsAlarm)
{
    ProxyLogger logger{1};
    sts_session_def_t sd = {};
    sd.sd_id = "binding";
    sd.sd_flags = 15;
    ASSERT_EQ(0, initStorageLibrary());
    ASSERT_EQ(0, initStorageLibrary());
    EXPECT_EQ(0, terminateStorageLibrary(&logger, &sd, "BindingTest", "SUPER1!WRONG"));
    EXPECT_NE(nullptr, sts_api);
    EXPECT_EQ(0, terminateStorageLibrary(&logger, &sd, "BindingTest", "SUPER1!WRONG"));
    EXPECT_EQ(nullptr, sts_api);
    EXPECT_FALSE(logHas("SUPER1!WRONG"));
    EXPECT_EQ(2060010, terminateStorageLibrary(&logger, &sd, "BindingTest", "SUPER4!WRONG"));
    EXPECT_EQ(-1, nInitCount);
    EXPECT_TRUE(logHas("[ERROR][binding][BindingTest]SUPER4!WRONG"));

    nInitCount = 0;   // a failed init is not counted
    ASSERT_EQ(0, std::system(("rm -rf '" + dir + "/stsplugins'").c_str()));
    EXPECT_EQ(STSP_ENOPLUGINDIR, initStorageLibrary());
    EXPECT_EQ(0, nInitCount);
}

TEST(NextProxyName, TakesWhatFollowsTheFirstHash)
{
    char target[512] = "stale";
    for (const auto& c : {std::pair<const char*, const char*>{"a#b#c", "b#c"}, {"a#", ""}, {"a", ""}, {"a##b", ""}}) {
        sts_get_next_proxy_name(c.first, target);
        EXPECT_STREQ(c.second, target) << c.first;
    }
    sts_get_next_proxy_name(("a#" + std::string(600, 'x')).c_str(), target);
    EXPECT_EQ(511u, std::string(target).size());
}

} // namespace
