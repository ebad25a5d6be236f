// The conformance suite of the storage plug-ins: the same storage-API cases
// run on each plug-in, reached directly and through a running service (a
// keldpxy on the same root and the remote plug-in, with the service as
// sd_proxy).  Both routes and every plug-in must give the same results; a
// number a plug-in answers is its own, named in its Plugin.  The cases are
// in PluginConformance.cpp, compiled into each plug-in's test program,
// which instantiates them with its Plugin:
//   INSTANTIATE_TEST_SUITE_P(Direct, Conformance, ::testing::Values(Param{&plugin, Route::Direct}));
#ifndef KELD_PLUGIN_CONFORMANCE_H
#define KELD_PLUGIN_CONFORMANCE_H

#include "ImageCalls.h"
#include "RemoteTestSupport.h"

#include <cstring>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <vector>

namespace conformance {

using remotetest::Route;

// What the suite must know of a plug-in: its numbers and how its operator
// sets a server up.
struct Plugin {
    const char* prefix;   // "Disk:", "Rados:"
    int enoent, eexist, ebusy, einval, ereadonly;
    int openRead, openWrite;  // modes of stsa_open_image
    sts_uint64_t maxExtent;   // the largest offset + length of a transfer
    // A server of its own under root with the LSU lsu0; its name.
    std::string (*prepare)(keldtest::TempRoot& root);
    // Makes another LSU of the server; the tool's exit status.
    int (*addLsu)(keldtest::TempRoot& root, const std::string& server, const std::string& lsu);
    // The operator's snapshot tool: "COMMAND SERVER REST"; its exit status
    // and output.
    int (*snapshotTool)(keldtest::TempRoot& root, const std::string& server, const std::string& command,
                        const std::string& rest, std::string* out);
    // The data of an image (its name as a list gives it) as the snapshot of
    // the properties holds it.
    std::string (*snapshotData)(const sts_snap_info_t& snapshot, const std::string& image);
};

struct Param {
    const Plugin* plugin;
    Route route;
};

class Conformance : public ::testing::TestWithParam<Param>, protected ImageCalls {
protected:
    const Plugin& plugin() const { return *GetParam().plugin; }

    void SetUp() override
    {
        server = plugin().prepare(root);
        ASSERT_FALSE(server.empty());
        if (GetParam().route == Route::ThroughService) {
            service.start();
            std::snprintf(sd.sd_proxy, sizeof(sd.sd_proxy), "%s", service.hop().c_str());
        }
        ASSERT_EQ(0, stsm_init(11, (root.path() + "/lib").c_str(), &api));
        sd.sd_id = "conformance";
        ASSERT_EQ(0, api->stsa_open_session(&sd, &ssn));
        ASSERT_EQ(0, api->stsa_open_server(ssn, server.c_str(), nullptr, "", &svh));
        lsu = remotetest::lsuOf(svh, "lsu0");
    }
    void TearDown() override
    {
        if (api != nullptr) {
            if (svh != nullptr) api->stsa_close_handle(svh, 0);
            if (ssn != nullptr) api->stsa_close_handle(ssn, 0);
            EXPECT_EQ(0, stsm_terminate());
        }
        if (GetParam().route == Route::ThroughService) {
            EXPECT_EQ(0, service.stop()) << "the service did not end cleanly";
        }
    }

    static std::string file(const char* base) { return std::string(base) + "@20261123@20261123T0101"; }

    void closedImage(const char* base, const std::string& data)
    {
        sts_handle_t h = create(base);
        write(h, data, 0);
        ASSERT_EQ(0, api->stsa_close_handle(h, 0));
    }
    int snapshotTool(const std::string& command, const std::string& rest, std::string* out = nullptr)
    {
        return plugin().snapshotTool(root, server, command, rest, out);
    }

    // The service's root is the tests' root: the plug-ins' configuration
    // and files are where the tests and the operator's tools look for them.
    remotetest::Service service;
    keldtest::TempRoot& root = service.root();
    std::string server;
    sts_session_def_t sd = {};
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
};

// A case's parameter in gtest's messages.
inline void PrintTo(const Param& param, std::ostream* os)
{
    *os << param.plugin->prefix << (param.route == Route::Direct ? " direct" : " through a service");
}

// The suite's names for a plug-in's instantiation: Direct, ThroughService.
inline std::vector<Param> bothRoutes(const Plugin& plugin)
{
    return {Param{&plugin, Route::Direct}, Param{&plugin, Route::ThroughService}};
}
inline std::string routeName(const ::testing::TestParamInfo<Param>& info)
{
    return info.param.route == Route::Direct ? "Direct" : "ThroughService";
}

} // namespace conformance

#endif
