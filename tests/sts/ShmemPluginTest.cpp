// The "ShMem:" plug-in through the framework's table, with LSUs made, held
// and listed by its operator tool.  Every LSU name carries the test
// process's id and is removed at the end.
#include "StsTestSupport.h"

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
        sts_session_def_t sd = {};
        ASSERT_EQ(0, api->stsa_open_session(&sd, &ssn));
        ASSERT_EQ(0, api->stsa_open_server(ssn, shmemServerName().c_str(), nullptr, "", &svh));
    }
    void TearDown() override
    {
        holder.reset();
        for (const char* n : {"a", "b"}) tool("remove " + name(n) + " 2>/dev/null");
        if (api != nullptr) {
            api->stsa_close_handle(svh, 0);
            api->stsa_close_handle(ssn, 0);
            stsm_terminate();
        }
    }

    static std::string name(const char* suffix) { return "stst" + std::to_string(getpid()) + "_" + suffix; }
    static int tool(const std::string& args)
    {
        return std::system((std::string(KELDV_SHMEM_TOOL) + " " + args + " >/dev/null").c_str());
    }
    std::string toolList() const
    {
        std::string out;
        if (FILE* p = popen((std::string(KELDV_SHMEM_TOOL) + " list").c_str(), "r")) {
            char buf[256];
            while (std::fgets(buf, sizeof(buf), p) != nullptr) out += buf;
            pclose(p);
        }
        return out;
    }
    int remove(const std::string& lsuName)
    {
        sts_lsu_t lsu = lsuOf(svh, lsuName);
        return api->stsa_delete_lsu(&lsu);
    }
    // A holder process keeps the LSU busy until it is killed.
    void hold(const std::string& lsuName)
    {
        holder = std::make_unique<keldtest::Child>(KELDV_SHMEM_TOOL, std::vector<std::string>{"hold", lsuName});
        std::this_thread::sleep_for(300ms);
    }

    PluginRoot plugins;
    sts_api_t* api = nullptr;
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
    std::unique_ptr<keldtest::Child> holder;
};

TEST_F(SharedMemory, ListsEveryLsuOrOneByNameAndEndsWith2060013)
{
    ASSERT_EQ(0, tool("create " + name("a")));
    ASSERT_EQ(0, tool("create " + name("b") + " 4096"));
    EXPECT_NE(std::string::npos, toolList().find(name("a") + "\n"));

    sts_lsu_def_t all = {};
    Listing listed = listLsus(api, svh, all);
    EXPECT_EQ(0, listed.openResult);
    EXPECT_TRUE(contains(listed.names, name("a")));
    EXPECT_TRUE(contains(listed.names, name("b")));
    EXPECT_EQ(2060013, listed.endResult);

    sts_lsu_def_t one = {};
    std::snprintf(one.sld_name.sln_name, sizeof(one.sld_name.sln_name), "%s", name("b").c_str());
    listed = listLsus(api, svh, one);
    EXPECT_EQ(std::vector<std::string>{name("b")}, listed.names);

    // The end stays the end.
    sts_handle_t llh = nullptr;
    sts_lsu_name_t lsuName;
    ASSERT_EQ(0, api->stsa_open_lsu_list(svh, &one, &llh));
    EXPECT_EQ(0, api->stsa_list_lsu(llh, &lsuName));
    EXPECT_EQ(2060013, api->stsa_list_lsu(llh, &lsuName));
    EXPECT_EQ(2060013, api->stsa_list_lsu(llh, &lsuName));
    EXPECT_EQ(0, api->stsa_close_handle(llh, 0));
}

TEST_F(SharedMemory, DeletesAFreeLsuAndRefusesABusyOne)
{
    ASSERT_EQ(0, tool("create " + name("a")));
    ASSERT_EQ(0, tool("create " + name("b")));
    hold(name("a"));
    EXPECT_EQ(2060005, remove(name("a")));
    EXPECT_NE(0, tool("remove " + name("a") + " 2>/dev/null"));
    EXPECT_EQ(0, remove(name("b")));
    EXPECT_EQ(2060013, remove(name("b")));

    sts_lsu_def_t all = {};
    Listing listed = listLsus(api, svh, all);
    EXPECT_TRUE(contains(listed.names, name("a")));
    EXPECT_FALSE(contains(listed.names, name("b")));

    holder.reset();
    EXPECT_EQ(0, remove(name("a")));
    EXPECT_EQ(std::string::npos, toolList().find(name("a") + "\n"));
}

TEST_F(SharedMemory, NamesOutsideTheServerAreRefused)
{
    EXPECT_EQ(2060001, remove(""));
    EXPECT_EQ(2060001, remove("../" + name("a")));
    sts_lsu_t listAsServer = {};
    sts_handle_t llh = nullptr;
    sts_lsu_def_t all = {};
    ASSERT_EQ(0, api->stsa_open_lsu_list(svh, &all, &llh));
    listAsServer = lsuOf(llh, name("a"));
    EXPECT_EQ(STSP_EBADHANDLE, api->stsa_delete_lsu(&listAsServer));
    EXPECT_EQ(0, api->stsa_close_handle(llh, 0));

    // The prefix is ours, the host is not.
    sts_handle_t other = nullptr;
    EXPECT_EQ(STSP_ENOSERVER, api->stsa_open_server(ssn, "ShMem:no-such-host.invalid", nullptr, "", &other));
}

TEST_F(SharedMemory, ReportsTheLsuSizeAndTheServer)
{
    ASSERT_EQ(0, tool("create " + name("b") + " 8192"));
    sts_lsu_t lsu = lsuOf(svh, name("b"));
    sts_lsu_info_t info;
    ASSERT_EQ(0, api->stsa_get_lsu_prop_byname(&lsu, &info));
    EXPECT_EQ(8192u, info.lsu_capacity);
    EXPECT_STREQ(name("b").c_str(), info.lsu_def.sld_name.sln_name);
    EXPECT_EQ(shmemServerName(), info.lsu_server);
    lsu = lsuOf(svh, name("absent"));
    EXPECT_EQ(2060013, api->stsa_get_lsu_prop_byname(&lsu, &info));

    sts_server_info_t server;
    sts_session_def_t sd = {};
    ASSERT_EQ(0, api->stsa_get_server_prop_byname(&sd, shmemServerName().c_str(), &server));
    EXPECT_EQ(shmemServerName(), server.srv_server);
}

} // namespace
