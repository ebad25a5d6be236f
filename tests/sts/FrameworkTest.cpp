// Our storage framework on its own: counted loading and unloading, routing
// by server name and by handle across two plug-ins, the framework's own
// sessions, and the numbers for what nobody serves.
#include "StsTestSupport.h"

#include <atomic>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <thread>
#include <vector>

using namespace ststest;

namespace {

bool loaded(const std::string& plugin)
{
    void* dl = dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (dl != nullptr) dlclose(dl);
    return dl != nullptr;
}

class Framework : public ::testing::Test {
protected:
    void TearDown() override
    {
        while (stsm_terminate() == 2060012) {
        }
    }
    sts_api_t* init()
    {
        sts_api_t* api = nullptr;
        EXPECT_EQ(0, stsm_init(11, plugins.libDir().c_str(), &api));
        return api;
    }
    sts_handle_t session(sts_api_t* api)
    {
        sts_handle_t ssn = nullptr;
        EXPECT_EQ(0, api->stsa_open_session(&sd, &ssn));
        return ssn;
    }

    PluginRoot plugins;
    sts_session_def_t sd = {};
};

TEST_F(Framework, PluginsStayLoadedUntilTheLastUserTerminates)
{
    sts_api_t* api = nullptr;
    EXPECT_EQ(2060007, stsm_init(12, plugins.libDir().c_str(), &api));
    EXPECT_EQ(2060001, stsm_init(11, nullptr, &api));
    EXPECT_EQ(STSP_ENOPLUGINDIR, stsm_init(11, "/nonexistent/keldv", &api));
    EXPECT_EQ(nullptr, api);

    plugins.add(SHMEM_PLUGIN);
    sts_api_t* first = init();
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(first, init());
    EXPECT_TRUE(loaded(SHMEM_PLUGIN));
    EXPECT_EQ(2060012, stsm_terminate());
    EXPECT_TRUE(loaded(SHMEM_PLUGIN));
    sts_handle_t ssn = session(first);
    sts_handle_t svh = nullptr;
    EXPECT_EQ(0, first->stsa_open_server(ssn, shmemServerName().c_str(), nullptr, "", &svh));
    EXPECT_EQ(0, first->stsa_close_handle(svh, 0));
    EXPECT_EQ(0, first->stsa_close_handle(ssn, 0));
    EXPECT_EQ(0, stsm_terminate());
    EXPECT_FALSE(loaded(SHMEM_PLUGIN));
    EXPECT_EQ(2060010, stsm_terminate());
    ASSERT_NE(nullptr, init());   // loading again after a full unload starts afresh
    EXPECT_TRUE(loaded(SHMEM_PLUGIN));
}

TEST_F(Framework, WhatNobodyServesAnswersWithTheFrameworkNumbers)
{
    plugins.add(SHMEM_PLUGIN);
    sts_api_t* api = init();
    ASSERT_NE(nullptr, api);
    sts_handle_t ssn = session(api);
    sts_handle_t h = nullptr;
    sts_server_info_t info;

    // No plug-in claims the name.
    EXPECT_EQ(STSP_ENOSERVER, api->stsa_open_server(ssn, "Nobody:x", nullptr, "", &h));
    EXPECT_EQ(STSP_ENOSERVER, api->stsa_get_server_prop_byname(&sd, "Nobody:x", &info));
    EXPECT_EQ(STSP_ENOSERVER, api->stsa_open_server(ssn, nullptr, nullptr, "", &h));

    // A proxied session goes to no plug-in by name, not even one that claims
    // the name, while no plug-in claims proxied sessions.
    sts_session_def_t viaProxy = sd;
    std::strcpy(viaProxy.sd_proxy, "127.0.0.1:1#b");
    sts_handle_t proxiedSsn = nullptr;
    ASSERT_EQ(0, api->stsa_open_session(&viaProxy, &proxiedSsn));
    EXPECT_EQ(STSP_ENOPROXY, api->stsa_open_server(proxiedSsn, shmemServerName().c_str(), nullptr, "", &h));
    EXPECT_EQ(STSP_ENOPROXY, api->stsa_get_server_prop_byname(&viaProxy, shmemServerName().c_str(), &info));
    EXPECT_EQ(0, api->stsa_close_handle(proxiedSsn, 0));

    // The plug-in claims the name or holds the handle but lacks the slot;
    // the slots the service never calls.
    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(ssn, shmemServerName().c_str(), nullptr, "", &svh));
    EXPECT_EQ(STSP_ENOSLOT, api->stsa_shutdown_server(&sd, shmemServerName().c_str(), nullptr, 0));
    EXPECT_EQ(STSP_ENOSLOT, api->stsa_flush(svh));
    EXPECT_EQ(STSP_ENOSLOT, api->stsa_nocrash());

    // Handles that are not a plug-in's.
    char notAHandle[64] = {0};
    sts_lsu_t orphan = lsuOf(nullptr, "x");
    EXPECT_EQ(STSP_EBADHANDLE, api->stsa_flush(nullptr));
    EXPECT_EQ(STSP_EBADHANDLE, api->stsa_flush(reinterpret_cast<sts_handle_t>(notAHandle)));
    EXPECT_EQ(STSP_EBADHANDLE, api->stsa_flush(ssn));
    EXPECT_EQ(STSP_EBADHANDLE, api->stsa_delete_lsu(&orphan));
    EXPECT_EQ(STSP_EBADHANDLE, api->stsa_delete_lsu(nullptr));
    EXPECT_EQ(STSP_EBADHANDLE, api->stsa_close_handle(nullptr, 0));
    EXPECT_EQ(0, api->stsa_close_handle(svh, 0));
    EXPECT_EQ(0, api->stsa_close_handle(ssn, 0));
}

std::vector<std::string> gLogged;
void remember(const char* who, const char* msg, sts_severity_t)
{
    gLogged.push_back(std::string(who) + ":" + msg);
}

TEST_F(Framework, SessionsKeepTheirOwnCopyOfTheDefinition)
{
    sts_api_t* api = init();
    ASSERT_NE(nullptr, api);
    char id[32] = "job-17";
    sd.sd_id = id;
    sd.sd_flags = 0x20f;
    sd.sd_log = remember;
    std::snprintf(sd.sd_proxy, sizeof(sd.sd_proxy), "next-hop");
    sts_handle_t ssn = session(api);
    std::snprintf(id, sizeof(id), "overwritten");
    sd = {};

    const sts_session_def_t* copy = stsp_session_def(ssn);
    ASSERT_NE(nullptr, copy);
    EXPECT_STREQ("job-17", copy->sd_id);
    EXPECT_STREQ("next-hop", copy->sd_proxy);
    EXPECT_EQ(0x20fu, copy->sd_flags);
    stsp_log(ssn, STS_ESINFO, "hello");
    EXPECT_EQ(std::vector<std::string>{"job-17:hello"}, gLogged);
    EXPECT_EQ(0, api->stsa_close_handle(ssn, 0));
}

// Two plug-ins, the shared-memory server and the stand-in under "Fault:",
// beside files that are no plug-ins and are passed over.
TEST_F(Framework, EachCallReachesThePluginThatOwnsTheNameOrHandle)
{
    const std::string calls = plugins.libDir() + "/calls.txt";
    ScopedEnv prefix("KELD_FAULT_PREFIX", "Fault:");
    ScopedEnv lsus("KELD_FAULT_LSUS", "f1,f2");
    ScopedEnv log("KELD_FAULT_CALLS", calls);
    plugins.root().writeFile("lib/stsplugins/aaa-garbage.so", "not an object file");
    plugins.add(std::string(KELD_PLUGIN_OUTPUT_DIR) + "/../libstsMT.so", "bbb-no-entry.so");
    plugins.add(SHMEM_PLUGIN);
    plugins.add(FAULT_PLUGIN);
    sts_api_t* api = init();
    ASSERT_NE(nullptr, api);
    sts_handle_t ssn = session(api);

    sts_handle_t shm = nullptr, fault = nullptr, target = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(ssn, shmemServerName().c_str(), nullptr, "", &shm));
    ASSERT_EQ(0, api->stsa_open_server(ssn, "Fault:one", nullptr, "", &fault));
    // A target goes by its own name, not by the server it is opened from.
    ASSERT_EQ(0, api->stsa_open_target_server(shm, "Fault:two", nullptr, "", &target));
    EXPECT_EQ((std::vector<std::string>{"f1", "f2"}), listLsus(api, fault));
    // The LSU goes by its server handle: the stand-in deletes anything.
    sts_lsu_t viaFault = lsuOf(target, "f1");
    EXPECT_EQ(0, api->stsa_delete_lsu(&viaFault));

    for (sts_handle_t h : {target, fault, shm, ssn}) EXPECT_EQ(0, api->stsa_close_handle(h, 0));
    std::ifstream in(calls);
    std::stringstream seen;
    seen << in.rdbuf();
    EXPECT_EQ("open_server Fault:one\nopen_target_server Fault:two\nopen_lsu_list\nlist_lsu\nlist_lsu\nlist_lsu\n"
              "list_lsu\nclose list\ndelete_lsu f1\nclose server\nclose server\n",
              seen.str());
}

TEST_F(Framework, ConcurrentUsersLeaveNothingBehind)
{
    plugins.add(SHMEM_PLUGIN);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                sts_api_t* api = nullptr;
                sts_session_def_t def = {};
                sts_handle_t ssn = nullptr;
                if (stsm_init(11, plugins.libDir().c_str(), &api) != 0 || api->stsa_open_session(&def, &ssn) != 0 ||
                    api->stsa_close_handle(ssn, 0) != 0) {
                    ++failures;
                }
                const int rc = stsm_terminate();
                if (rc != 0 && rc != 2060012) ++failures;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(2060010, stsm_terminate());
    EXPECT_FALSE(loaded(SHMEM_PLUGIN));
}

} // namespace
