// The service's binding and our storage framework through the table: the
// counted init and terminate, routing by server name and by handle, and the
// shared-memory plug-in.
#include "StsBinding.h"
#include "sts_plugin.h"
#include "TestSupport.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <unistd.h>

namespace {

class Binding : public ::testing::Test {
protected:
    void TearDown() override
    {
        while (sts_api != nullptr) sts_terminate();
    }
    std::string libDir() const { return root.path() + "/lib"; }
    keldtest::TempRoot root;
};

TEST_F(Binding, VersionAndDirectoryAreCheckedFirst)
{
    EXPECT_EQ(2060007, sts_init(10, libDir().c_str()));
    EXPECT_EQ(2060007, sts_init(12, nullptr));
    EXPECT_EQ(nullptr, sts_api);
    EXPECT_EQ(2060001, sts_init(11, nullptr));
    EXPECT_EQ(nullptr, sts_api);
}

TEST_F(Binding, TableStaysUntilTheLastUserTerminates)
{
    ASSERT_EQ(0, sts_init(11, libDir().c_str()));
    sts_api_t* first = sts_api;
    ASSERT_EQ(0, sts_init(11, libDir().c_str()));
    EXPECT_EQ(first, sts_api);
    EXPECT_EQ(0, sts_terminate());            // another user remains
    EXPECT_NE(nullptr, sts_api);
    EXPECT_EQ(0, sts_terminate());
    EXPECT_EQ(nullptr, sts_api);
    // Every call site now gets "not initialised".
    sts_handle_t h = nullptr;
    sts_session_def_t sd = {};
    EXPECT_EQ(2060010, STS_CALL(stsa_open_session, &sd, &h));
    // An unbalanced terminate is reported by the framework.
    EXPECT_NE(0, sts_terminate());
}

TEST_F(Binding, MissingPluginDirectoryFailsInit)
{
    EXPECT_EQ(STSP_ENOPLUGINDIR, sts_init(11, (root.path() + "/nowhere").c_str()));
    EXPECT_EQ(nullptr, sts_api);
}

TEST_F(Binding, RoutingByNameAndHandle)
{
    ASSERT_EQ(0, sts_init(11, libDir().c_str()));
    sts_session_def_t sd = {};
    sd.sd_id = "binding-test";
    sts_handle_t ssn = nullptr;
    ASSERT_EQ(0, STS_CALL(stsa_open_session, &sd, &ssn));
    EXPECT_STREQ("binding-test", stsp_session_def(ssn)->sd_id);

    sts_handle_t svh = nullptr;
    EXPECT_EQ(STSP_ENOSERVER, STS_CALL(stsa_open_server, ssn, "Nobody:x", nullptr, "", &svh));
    EXPECT_EQ(STSP_EBADHANDLE, STS_CALL(stsa_flush, nullptr));

    char host[512] = {0};
    gethostname(host, sizeof(host) - 1);
    const std::string name = std::string("ShMem:") + host;
    ASSERT_EQ(0, STS_CALL(stsa_open_server, ssn, name.c_str(), nullptr, "", &svh));
    // A slot the plug-in does not implement answers, never crashes.
    EXPECT_EQ(STSP_ENOSLOT, STS_CALL(stsa_flush, svh));
    EXPECT_EQ(0, STS_CALL(stsa_close_handle, svh, 0));
    EXPECT_EQ(0, STS_CALL(stsa_close_handle, ssn, 0));
}

TEST(NextProxyName, TakesWhatFollowsTheFirstHash)
{
    char target[512] = "stale";
    sts_get_next_proxy_name("a#b#c", target);
    EXPECT_STREQ("b#c", target);
    sts_get_next_proxy_name("a", target);
    EXPECT_STREQ("", target);
    sts_get_next_proxy_name("a##b", target);
    EXPECT_STREQ("", target);
    const std::string longChain = "a#" + std::string(600, 'x');
    sts_get_next_proxy_name(longChain.c_str(), target);
    EXPECT_EQ(511u, std::string(target).size());
}

// The shared-memory plug-in, with LSUs made by its operator tool.
class SharedMemory : public Binding {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, sts_init(11, libDir().c_str()));
        sts_session_def_t sd = {};
        ASSERT_EQ(0, STS_CALL(stsa_open_session, &sd, &ssn));
        char host[512] = {0};
        gethostname(host, sizeof(host) - 1);
        ASSERT_EQ(0, STS_CALL(stsa_open_server, ssn, (std::string("ShMem:") + host).c_str(), nullptr, "", &svh));
    }
    void TearDown() override
    {
        for (const char* n : {"a", "b"}) tool("remove " + prefix + n + " 2>/dev/null");
        STS_CALL(stsa_close_handle, svh, 0);
        STS_CALL(stsa_close_handle, ssn, 0);
        Binding::TearDown();
    }
    int tool(const std::string& args)
    {
        return std::system((std::string(KELDV_SHMEM_TOOL) + " " + args + " >/dev/null").c_str());
    }
    std::set<std::string> listed()
    {
        std::set<std::string> names;
        sts_handle_t llh = nullptr;
        sts_lsu_def_t all = {};
        EXPECT_EQ(0, STS_CALL(stsa_open_lsu_list, svh, &all, &llh));
        sts_lsu_name_t name;
        int rc;
        while ((rc = STS_CALL(stsa_list_lsu, llh, &name)) == 0) names.insert(name.sln_name);
        EXPECT_EQ(2060013, rc);
        EXPECT_EQ(0, STS_CALL(stsa_close_handle, llh, 0));
        return names;
    }
    int remove(const std::string& name)
    {
        sts_lsu_t lsu = {};
        lsu.stl_server_handle = svh;
        std::snprintf(lsu.stl_lsu_name.sln_name, sizeof(lsu.stl_lsu_name.sln_name), "%s", name.c_str());
        return STS_CALL(stsa_delete_lsu, &lsu);
    }

    std::string prefix = "bind" + std::to_string(getpid()) + "_";
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
};

TEST_F(SharedMemory, ListsDeletesAndRefusesABusyLsu)
{
    ASSERT_EQ(0, tool("create " + prefix + "a"));
    ASSERT_EQ(0, tool("create " + prefix + "b 4096"));
    std::set<std::string> names = listed();
    EXPECT_EQ(1u, names.count(prefix + "a"));
    EXPECT_EQ(1u, names.count(prefix + "b"));

    sts_lsu_t lsu = {};
    lsu.stl_server_handle = svh;
    std::snprintf(lsu.stl_lsu_name.sln_name, sizeof(lsu.stl_lsu_name.sln_name), "%s", (prefix + "b").c_str());
    sts_lsu_info_t info;
    ASSERT_EQ(0, STS_CALL(stsa_get_lsu_prop_byname, &lsu, &info));
    EXPECT_EQ(4096u, info.lsu_capacity);

    {
        keldtest::Child holder(KELDV_SHMEM_TOOL, {"hold", prefix + "a"});
        usleep(300000);
        EXPECT_EQ(2060005, remove(prefix + "a"));
    }
    EXPECT_EQ(0, remove(prefix + "a"));
    EXPECT_EQ(0, remove(prefix + "b"));
    EXPECT_EQ(2060013, remove(prefix + "b"));
    names = listed();
    EXPECT_EQ(0u, names.count(prefix + "a"));
}

} // namespace
