// The storage side on its own: our framework's counted loading, its routing
// by server name and by handle across plug-ins, its sessions, the numbers
// for what nobody serves and what the plug-ins say of themselves; the
// service's binding to it (sts_init, the counted terminate, the calling rule
// once the table is gone, the next hop of a chain; the helpers that count
// the service's own uses are pinned by the cleanup tests).
#include "DiskStore.h"
#include "StsBinding.h"
#include "TestSupport.h"
#include "sts_plugin.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

const std::string SHMEM_PLUGIN = KELD_SHMEM_PLUGIN;
const std::string FAULT_PLUGIN = KELD_STS_FAULT_PLUGIN;
const std::string DISK_PLUGIN = KELD_DISK_PLUGIN;

// Links the plug-in into the root's lib/stsplugins (under its own name by default).
void addPlugin(const keldtest::TempRoot& root, const std::string& plugin, std::string name = "")
{
    if (name.empty()) name = plugin.substr(plugin.rfind('/') + 1);
    const std::string link = root.path() + "/lib/stsplugins/" + name;
    if (symlink(plugin.c_str(), link.c_str()) != 0) std::perror(link.c_str());
}

// Sets an environment variable for the life of the object.
struct ScopedEnv {
    ScopedEnv(const char* name, const std::string& value) : name(name) { setenv(name, value.c_str(), 1); }
    ~ScopedEnv() { unsetenv(name); }
    const char* name;
};

std::string hostName()
{
    char host[512] = {0};
    gethostname(host, sizeof(host) - 1);
    return host;
}

std::string shmemServerName()
{
    return "ShMem:" + hostName();
}

void collect(const char* name, void* names)
{
    static_cast<std::vector<std::string>*>(names)->emplace_back(name);
}

sts_lsu_t lsuOf(sts_handle_t server, const std::string& name)
{
    sts_lsu_t lsu = {};
    lsu.stl_server_handle = server;
    std::snprintf(lsu.stl_lsu_name.sln_name, sizeof(lsu.stl_lsu_name.sln_name), "%s", name.c_str());
    return lsu;
}

bool loaded(const std::string& plugin)
{
    void* dl = dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (dl != nullptr) dlclose(dl);
    return dl != nullptr;
}

class Framework : public ::testing::Test {
protected:
    void SetUp() override { addPlugin(root, SHMEM_PLUGIN); }
    void TearDown() override
    {
        while (sts_api != nullptr) sts_terminate();
        while (stsm_terminate() == STS_EIN_USE) {
        }
    }
    sts_api_t* init()
    {
        sts_api_t* api = nullptr;
        EXPECT_EQ(0, stsm_init(11, libDir.c_str(), &api));
        return api;
    }

    keldtest::TempRoot root{true, false};   // an empty lib/stsplugins
    const std::string libDir = root.path() + "/lib";
    sts_session_def_t sd = {};
};

std::vector<std::string> gLogged;
void remember(const char* who, const char* msg, sts_severity_t)
{
    gLogged.push_back(std::string(who) + ":" + msg);
}

TEST_F(Framework, SessionsKeepACopyOfTheirDefinitionAndWhatNobodyServesGetsTheFrameworkNumbers)
{
    sts_api_t* api = init();
    ASSERT_NE(nullptr, api);
    sts_handle_t ssn = nullptr;
    ASSERT_EQ(0, api->stsa_open_session(&sd, &ssn));
    sts_handle_t h = nullptr;
    sts_server_info_t info;

    // No plug-in claims the name.
    EXPECT_EQ(STSP_ENOSERVER, api->stsa_open_server(ssn, "Nobody:x", nullptr, "", &h));
    EXPECT_EQ(STSP_ENOSERVER, api->stsa_get_server_prop_byname(&sd, "Nobody:x", &info));
    EXPECT_EQ(STSP_ENOSERVER, api->stsa_open_server(ssn, nullptr, nullptr, "", &h));

    // A session keeps its own copy of the definition.
    char id[32] = "job-17";
    sts_session_def_t viaProxy = {};
    viaProxy.sd_id = id;
    viaProxy.sd_flags = 0x20f;
    viaProxy.sd_log = remember;
    std::strcpy(viaProxy.sd_proxy, "127.0.0.1:1#b");
    sts_handle_t proxiedSsn = nullptr;
    ASSERT_EQ(0, api->stsa_open_session(&viaProxy, &proxiedSsn));
    std::strcpy(id, "overwritten");
    const sts_session_def_t* copy = stsp_session_def(proxiedSsn);
    ASSERT_NE(nullptr, copy);
    EXPECT_STREQ("job-17", copy->sd_id);
    EXPECT_STREQ("127.0.0.1:1#b", copy->sd_proxy);
    EXPECT_EQ(0x20fu, copy->sd_flags);
    stsp_log(proxiedSsn, STS_ESINFO, "hello");
    EXPECT_EQ(std::vector<std::string>{"job-17:hello"}, gLogged);

    // A proxied session goes to no plug-in by name, not even one that claims
    // the name, while no plug-in claims proxied sessions.
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

// What the plug-ins say of themselves, in their name order, and only while
// they are loaded: the stand-in offers no hooks and is not asked; the
// framework's own numbers keep their texts without a user.
TEST_F(Framework, PluginsDescribeThemselvesOnlyWhileLoaded)
{
    ScopedEnv prefix("KELD_FAULT_PREFIX", "Fault:");
    addPlugin(root, DISK_PLUGIN);
    addPlugin(root, FAULT_PLUGIN);
    const char* installRoot = root.path().c_str();
    std::vector<std::string> names;
    EXPECT_EQ(STS_ENOT_INIT, stsm_list_servers(installRoot, collect, &names));

    ASSERT_NE(nullptr, init());
    EXPECT_EQ(STS_EINVAL_ARG, stsm_list_servers(nullptr, collect, &names));
    EXPECT_EQ(STS_EINVAL_ARG, stsm_list_servers(installRoot, nullptr, &names));
    EXPECT_EQ(0, stsm_list_servers(installRoot, collect, &names));
    EXPECT_EQ((std::vector<std::string>{"Disk:" + hostName(), shmemServerName()}), names);
    EXPECT_STREQ("no such server, LSU, image or snapshot", stsm_error_text(DISK_ENOENT));
    EXPECT_STREQ("bad handle", stsm_error_text(STSP_EBADHANDLE));
    EXPECT_STREQ("not found (or end of list)", stsm_error_text(STS_ENO_MORE));
    EXPECT_EQ(nullptr, stsm_error_text(2069999));

    EXPECT_EQ(0, stsm_terminate());
    EXPECT_EQ(STS_ENOT_INIT, stsm_list_servers(installRoot, collect, &names));
    EXPECT_EQ(nullptr, stsm_error_text(DISK_ENOENT));   // its plug-in is gone, and not called
    EXPECT_STREQ("bad handle", stsm_error_text(STSP_EBADHANDLE));
}

// Two plug-ins, the shared-memory server and the stand-in under "Fault:",
// beside files that are no plug-ins and are passed over.
TEST_F(Framework, EachCallReachesThePluginThatOwnsTheNameOrHandle)
{
    const std::string calls = libDir + "/calls.txt";
    ScopedEnv prefix("KELD_FAULT_PREFIX", "Fault:");
    ScopedEnv lsus("KELD_FAULT_LSUS", "f1,f2");
    ScopedEnv log("KELD_FAULT_CALLS", calls);
    root.writeFile("lib/stsplugins/aaa-garbage.so", "not an object file");
    addPlugin(root, KELD_NOT_A_PLUGIN, "bbb-no-entry.so");
    addPlugin(root, FAULT_PLUGIN);
    sts_api_t* api = init();
    ASSERT_NE(nullptr, api);
    sts_handle_t ssn = nullptr;
    ASSERT_EQ(0, api->stsa_open_session(&sd, &ssn));

    sts_handle_t shm = nullptr, fault = nullptr, target = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(ssn, shmemServerName().c_str(), nullptr, "", &shm));
    ASSERT_EQ(0, api->stsa_open_server(ssn, "Fault:one", nullptr, "", &fault));
    // A target goes by its own name, not by the server it is opened from.
    ASSERT_EQ(0, api->stsa_open_target_server(shm, "Fault:two", nullptr, "", &target));
    sts_handle_t list = nullptr;   // the stand-in's LSUs, the end of the list staying the end
    ASSERT_EQ(0, api->stsa_open_lsu_list(fault, nullptr, &list));
    sts_lsu_name_t name;
    std::string names;
    while (api->stsa_list_lsu(list, &name) == 0) names += std::string(name.sln_name) + " ";
    EXPECT_EQ("f1 f2 ", names);
    EXPECT_EQ(STS_ENO_MORE, api->stsa_list_lsu(list, &name));
    EXPECT_EQ(0, api->stsa_close_handle(list, 0));
    // The LSU goes by its server handle: the stand-in deletes anything.
    sts_lsu_t viaFault = lsuOf(target, "f1");
    EXPECT_EQ(0, api->stsa_delete_lsu(&viaFault));

    // The shared-memory server refuses LSU names outside it, handles that are
    // not its servers' and hosts that are not this one.
    for (const char* bad : {"", "../x"}) {
        sts_lsu_t lsu = lsuOf(shm, bad);
        EXPECT_EQ(STS_EINVAL_ARG, api->stsa_delete_lsu(&lsu)) << bad;
    }
    ASSERT_EQ(0, api->stsa_open_lsu_list(shm, nullptr, &list));
    sts_lsu_t listAsServer = lsuOf(list, "x");
    EXPECT_EQ(STSP_EBADHANDLE, api->stsa_delete_lsu(&listAsServer));
    EXPECT_EQ(STSP_ENOSERVER, api->stsa_open_server(ssn, "ShMem:no-such-host.invalid", nullptr, "", &list));
    for (sts_handle_t h : {list, target, fault, shm, ssn}) EXPECT_EQ(0, api->stsa_close_handle(h, 0));
    std::ifstream in(calls);
    std::stringstream seen;
    seen << in.rdbuf();
    EXPECT_EQ("open_server Fault:one\nopen_target_server Fault:two\nopen_lsu_list\nlist_lsu\nlist_lsu\nlist_lsu\n"
              "list_lsu\nclose list\ndelete_lsu f1\nclose server\nclose server\n",
              seen.str());
}

TEST_F(Framework, ConcurrentUsersLeaveNothingBehind)
{
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                sts_api_t* api = nullptr;
                sts_session_def_t def = {};
                sts_handle_t ssn = nullptr;
                if (stsm_init(11, libDir.c_str(), &api) != 0 || api->stsa_open_session(&def, &ssn) != 0 ||
                    api->stsa_close_handle(ssn, 0) != 0) {
                    ++failures;
                }
                const int rc = stsm_terminate();
                if (rc != 0 && rc != STS_EIN_USE) ++failures;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(STS_ENOT_INIT, stsm_terminate());
    EXPECT_FALSE(loaded(SHMEM_PLUGIN));
}

// The service's binding, on the same root.
class Binding : public Framework {
};

// The framework loads the plug-ins at the first init and unloads them at the
// last terminate; the binding takes "other users remain" for a success and
// lets the table go with the last.
TEST_F(Binding, InitChecksItsArgumentsAndTheLastTerminateUnloads)
{
    sts_api_t* api = nullptr;
    EXPECT_EQ(STS_EBAD_VERSION, stsm_init(12, libDir.c_str(), &api));   // the framework's own checks
    EXPECT_EQ(STS_EINVAL_ARG, stsm_init(11, nullptr, &api));
    EXPECT_EQ(STSP_ENOPLUGINDIR, stsm_init(11, "/nonexistent/keldv", &api));
    EXPECT_EQ(STS_EBAD_VERSION, sts_init(12, nullptr));   // the version before the directory
    EXPECT_EQ(STS_EINVAL_ARG, sts_init(11, nullptr));
    EXPECT_EQ(nullptr, sts_api);

    ASSERT_EQ(0, sts_init(11, libDir.c_str()));
    sts_api_t* table = sts_api;
    EXPECT_EQ(STS_EBAD_VERSION, sts_init(12, libDir.c_str()));   // neither replaces the table nor takes a use
    ASSERT_EQ(0, sts_init(11, libDir.c_str()));
    EXPECT_EQ(table, sts_api.load());
    EXPECT_EQ(0, sts_terminate());
    ASSERT_EQ(table, sts_api.load());
    EXPECT_TRUE(loaded(SHMEM_PLUGIN));
    sts_session_def_t sd = {};
    sts_handle_t ssn = nullptr;
    ASSERT_EQ(0, STS_CALL(stsa_open_session, &sd, &ssn));
    EXPECT_EQ(0, STS_CALL(stsa_close_handle, ssn, 0));
    EXPECT_EQ(0, sts_terminate());
    EXPECT_EQ(nullptr, sts_api);
    EXPECT_FALSE(loaded(SHMEM_PLUGIN));

    // Every call site now yields STS_ENOT_INIT, whatever the slot; a caller that
    // kept the old pointer gets the same answer, not a crash.
    sts_uint64_t n = 0;
    EXPECT_EQ(STS_ENOT_INIT, STS_CALL(stsa_open_session, &sd, &ssn));
    EXPECT_EQ(STS_ENOT_INIT, STS_CALL(stsa_read_image, nullptr, nullptr, 0, 0, &n));
    EXPECT_EQ(STS_ENOT_INIT, table->stsa_open_session(&sd, &ssn));
    EXPECT_EQ(STS_ENOT_INIT, sts_terminate());   // one too many: the framework's "no user" passes through
    ASSERT_EQ(0, sts_init(11, libDir.c_str()));   // loading again after a full unload starts afresh
    EXPECT_TRUE(loaded(SHMEM_PLUGIN));
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
