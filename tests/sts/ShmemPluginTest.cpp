// The "ShMem:" plug-in through the framework's table, with LSUs made, held
// and listed by its operator tool.  Every LSU name carries the test
// process's id and is removed at the end.
#include "StsTestSupport.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

using namespace ststest;
using namespace std::chrono_literals;

namespace {

class SharedMemory : public ::testing::Test {
protected:
    void SetUp() override
    {
        plugins.add(SHMEM_PLUGIN);
        ASSERT_EQ(0, stsm_init(11, plugins.libDir().c_str(), &api));
        ASSERT_EQ(0, api->stsa_open_session(&sd, &ssn));
        ASSERT_EQ(0, api->stsa_open_server(ssn, shmemServerName().c_str(), nullptr, "", &svh));
    }
    void TearDown() override
    {
        holder.reset();
        for (const std::string& n : {a, b}) tool("remove " + n + " 2>/dev/null");
        if (api != nullptr) {
            api->stsa_close_handle(svh, 0);
            api->stsa_close_handle(ssn, 0);
            stsm_terminate();
        }
    }

    static int tool(const std::string& args)
    {
        return std::system((std::string(KELDV_SHMEM_TOOL) + " " + args + " >/dev/null").c_str());
    }
    bool toolLists(const std::string& name) const
    {
        std::string out;
        if (FILE* p = popen(KELDV_SHMEM_TOOL " list", "r")) {
            char buf[256];
            while (std::fgets(buf, sizeof(buf), p) != nullptr) out += buf;
            pclose(p);
        }
        return out.find(name + "\n") != std::string::npos;
    }
    int remove(const std::string& name)
    {
        sts_lsu_t lsu = lsuOf(svh, name);
        return api->stsa_delete_lsu(&lsu);
    }
    bool listed(const std::string& name)
    {
        const std::vector<std::string> names = listLsus(api, svh);
        return std::find(names.begin(), names.end(), name) != names.end();
    }

    const std::string a = "stst" + std::to_string(getpid()) + "_a";
    const std::string b = "stst" + std::to_string(getpid()) + "_b";
    PluginRoot plugins;
    sts_api_t* api = nullptr;
    sts_session_def_t sd = {};
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
    std::unique_ptr<keldtest::Child> holder;
};

TEST_F(SharedMemory, ListsReportsAndDeletesItsLsusButNotABusyOne)
{
    ASSERT_EQ(0, tool("create " + a));
    ASSERT_EQ(0, tool("create " + b + " 8192"));
    EXPECT_TRUE(toolLists(a));
    EXPECT_TRUE(listed(a));
    EXPECT_TRUE(listed(b));
    sts_lsu_def_t one = {};
    std::snprintf(one.sld_name.sln_name, sizeof(one.sld_name.sln_name), "%s", b.c_str());
    EXPECT_EQ(std::vector<std::string>{b}, listLsus(api, svh, one));

    sts_lsu_t lsu = lsuOf(svh, b);
    sts_lsu_info_t info;
    ASSERT_EQ(0, api->stsa_get_lsu_prop_byname(&lsu, &info));
    EXPECT_EQ(8192u, info.lsu_capacity);
    EXPECT_EQ(b, info.lsu_def.sld_name.sln_name);
    EXPECT_EQ(shmemServerName(), info.lsu_server);
    lsu = lsuOf(svh, b + "x");
    EXPECT_EQ(2060013, api->stsa_get_lsu_prop_byname(&lsu, &info));
    sts_server_info_t server;
    ASSERT_EQ(0, api->stsa_get_server_prop_byname(&sd, shmemServerName().c_str(), &server));
    EXPECT_EQ(shmemServerName(), server.srv_server);

    // A holder process keeps a busy until it is killed.
    holder = std::make_unique<keldtest::Child>(KELDV_SHMEM_TOOL, std::vector<std::string>{"hold", a});
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(2060005, remove(a));
    EXPECT_NE(0, tool("remove " + a + " 2>/dev/null"));
    EXPECT_EQ(0, remove(b));
    EXPECT_EQ(2060013, remove(b));
    EXPECT_TRUE(listed(a));
    EXPECT_FALSE(listed(b));
    holder.reset();
    EXPECT_EQ(0, remove(a));
    EXPECT_FALSE(toolLists(a));
}

TEST_F(SharedMemory, NamesOutsideTheServerAreRefused)
{
    EXPECT_EQ(2060001, remove(""));
    EXPECT_EQ(2060001, remove("../" + a));
    sts_handle_t llh = nullptr;
    sts_lsu_def_t all = {};
    ASSERT_EQ(0, api->stsa_open_lsu_list(svh, &all, &llh));
    sts_lsu_t listAsServer = lsuOf(llh, a);
    EXPECT_EQ(STSP_EBADHANDLE, api->stsa_delete_lsu(&listAsServer));
    EXPECT_EQ(0, api->stsa_close_handle(llh, 0));
    // The prefix is ours, the host is not.
    sts_handle_t other = nullptr;
    EXPECT_EQ(STSP_ENOSERVER, api->stsa_open_server(ssn, "ShMem:no-such-host.invalid", nullptr, "", &other));
}

} // namespace
