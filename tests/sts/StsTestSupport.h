// Pieces shared by the storage tests: an install root whose lib/stsplugins
// holds exactly the plug-ins a test names, and short forms of the table
// calls the tests repeat.
#ifndef KELD_TESTS_STS_STSTESTSUPPORT_H
#define KELD_TESTS_STS_STSTESTSUPPORT_H

#include "TestSupport.h"
#include "sts_plugin.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace ststest {

const std::string SHMEM_PLUGIN = std::string(KELD_PLUGIN_OUTPUT_DIR) + "/libsts_shmem.so";
const std::string FAULT_PLUGIN = KELD_STS_FAULT_PLUGIN;

// A temporary install root with an empty lib/stsplugins.
class PluginRoot {
public:
    PluginRoot() : m_root(true, false) {}
    // Links the plug-in into lib/stsplugins under linkName (its own name by default).
    void add(const std::string& plugin, const std::string& linkName = "")
    {
        const std::string link =
            libDir() + "/stsplugins/" + (linkName.empty() ? plugin.substr(plugin.rfind('/') + 1) : linkName);
        if (symlink(plugin.c_str(), link.c_str()) != 0) std::perror(link.c_str());
    }
    std::string libDir() const { return m_root.path() + "/lib"; }
    const keldtest::TempRoot& root() const { return m_root; }

private:
    keldtest::TempRoot m_root;
};

// Sets an environment variable for the life of the object.
struct ScopedEnv {
    ScopedEnv(const char* name, const std::string& value) : name(name) { setenv(name, value.c_str(), 1); }
    ~ScopedEnv() { unsetenv(name); }
    const char* name;
};

inline std::string shmemServerName()
{
    char host[512] = {0};
    gethostname(host, sizeof(host) - 1);
    return std::string("ShMem:") + host;
}

inline sts_lsu_t lsuOf(sts_handle_t server, const std::string& name)
{
    sts_lsu_t lsu = {};
    lsu.stl_server_handle = server;
    std::snprintf(lsu.stl_lsu_name.sln_name, sizeof(lsu.stl_lsu_name.sln_name), "%s", name.c_str());
    return lsu;
}

// The names the server lists for the definition (every LSU by default); the
// list must end with 2060013, and stay ended.
inline std::vector<std::string> listLsus(sts_api_t* api, sts_handle_t server, const sts_lsu_def_t& def = {})
{
    std::vector<std::string> names;
    sts_handle_t llh = nullptr;
    EXPECT_EQ(0, api->stsa_open_lsu_list(server, &def, &llh));
    sts_lsu_name_t name;
    int rc = 0;
    while ((rc = api->stsa_list_lsu(llh, &name)) == 0) names.push_back(name.sln_name);
    EXPECT_EQ(STS_ENO_MORE, rc);
    EXPECT_EQ(STS_ENO_MORE, api->stsa_list_lsu(llh, &name));
    api->stsa_close_handle(llh, 0);
    return names;
}

} // namespace ststest

#endif
