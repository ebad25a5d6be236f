// The failure-injecting stand-in does what its controls say, so that the
// tests of the leftover cleanup can trust it.
#include "StsTestSupport.h"

#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>

using namespace ststest;

namespace {

class FaultPlugin : public ::testing::Test {
protected:
    void SetUp() override { plugins.add(FAULT_PLUGIN); }
    void TearDown() override
    {
        if (api != nullptr) {
            if (svh != nullptr) api->stsa_close_handle(svh, 0);
            api->stsa_close_handle(ssn, 0);
            stsm_terminate();
        }
    }
    // Loads the stand-in once the test's controls are set.
    int openServer()
    {
        if (api == nullptr) {
            EXPECT_EQ(0, stsm_init(11, plugins.libDir().c_str(), &api));
            sts_session_def_t sd = {};
            EXPECT_EQ(0, api->stsa_open_session(&sd, &ssn));
        }
        return api->stsa_open_server(ssn, shmemServerName().c_str(), nullptr, "", &svh);
    }
    int remove(const std::string& name)
    {
        sts_lsu_t lsu = lsuOf(svh, name);
        return api->stsa_delete_lsu(&lsu);
    }
    std::string file(const std::string& name) const
    {
        std::ifstream in(plugins.libDir() + "/" + name);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    PluginRoot plugins;
    sts_api_t* api = nullptr;
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
    sts_lsu_def_t all = {};
};

TEST_F(FaultPlugin, ListsTheNamedLsusAndFailsAfterN)
{
    ScopedEnv lsus("KELD_FAULT_LSUS", "a,b,c");
    ASSERT_EQ(0, openServer());
    Listing listed = listLsus(api, svh, all);
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), listed.names);
    EXPECT_EQ(2060013, listed.endResult);

    ScopedEnv fail("KELD_FAULT_LIST_FAIL", "2:2060077");
    listed = listLsus(api, svh, all);
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), listed.names);
    EXPECT_EQ(2060077, listed.endResult);

    ScopedEnv openFail("KELD_FAULT_OPEN_LSU_LIST", "2060066");
    EXPECT_EQ(2060066, listLsus(api, svh, all).openResult);
}

TEST_F(FaultPlugin, DeletesAsToldAndRecordsWhatWentAway)
{
    ScopedEnv busy("KELD_FAULT_BUSY", "b,c");
    ScopedEnv fail("KELD_FAULT_DELETE_FAIL", "d:2060099,dd:2060098");
    ScopedEnv log("KELD_FAULT_LOG", plugins.libDir() + "/deleted.txt");
    ASSERT_EQ(0, openServer());
    EXPECT_EQ(2060005, remove("b"));
    EXPECT_EQ(2060005, remove("c"));
    EXPECT_EQ(2060099, remove("d"));
    EXPECT_EQ(2060098, remove("dd"));
    EXPECT_EQ(0, remove("a"));
    EXPECT_EQ(0, remove("d2"));
    EXPECT_EQ("a\nd2\n", file("deleted.txt"));
}

TEST_F(FaultPlugin, ServerFailuresAndTheControlFileThatOverridesTheEnvironment)
{
    const std::string control = plugins.libDir() + "/control";
    ScopedEnv controlFile("KELD_FAULT_CONTROL", control);
    ScopedEnv fromEnv("KELD_FAULT_OPEN_SERVER", "2060088");
    EXPECT_EQ(2060088, openServer());
    // The file is read at every call and wins over the environment.
    plugins.root().writeFile("lib/control", "KELD_FAULT_OPEN_SERVER=2060044\n");
    EXPECT_EQ(2060044, openServer());
    plugins.root().writeFile("lib/control", "KELD_FAULT_LSUS=x\nKELD_FAULT_OPEN_SERVER=0\n");
    ASSERT_EQ(0, openServer());
    EXPECT_EQ(std::vector<std::string>{"x"}, listLsus(api, svh, all).names);

    plugins.root().writeFile("lib/control", "KELD_FAULT_CLOSE=2060055\n");
    EXPECT_EQ(2060055, api->stsa_close_handle(svh, 0));
    svh = nullptr;

    sts_handle_t created = nullptr;
    EXPECT_EQ(2060099, api->stsa_create_server(ssn, "ShMem:new", nullptr, "", nullptr, 0, &created));
}

TEST_F(FaultPlugin, AServerMayRequireACertificate)
{
    ScopedEnv cert("KELD_FAULT_CERT", "secret");
    ASSERT_EQ(0, stsm_init(11, plugins.libDir().c_str(), &api));
    sts_session_def_t sd = {};
    ASSERT_EQ(0, api->stsa_open_session(&sd, &ssn));
    sts_cred_t cred = {};
    EXPECT_EQ(2060077, api->stsa_open_server(ssn, "ShMem:h", &cred, "", &svh));
    cred.cr_len = 6;
    std::snprintf(cred.cr_cert, sizeof(cred.cr_cert), "secret");
    EXPECT_EQ(0, api->stsa_open_server(ssn, "ShMem:h", &cred, "", &svh));
}

} // namespace
