// The disk plug-in in a fresh install root, reached through our storage
// framework either directly or through a running service: a keldpxy on the
// same root and the remote plug-in, with the service as sd_proxy.  The
// storage-API tests run both ways (the Conformance fixture) and must give
// the same results, numbers included; tests of the disk plug-in's own
// operator tools use the direct Disk fixture.
#ifndef KELD_TESTS_DISK_DISKFIXTURE_H
#define KELD_TESTS_DISK_DISKFIXTURE_H

#include "DiskStore.h"
#include "sts_plugin.h"
#include "TestSupport.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <unistd.h>

inline std::string host()
{
    char name[512] = {0};
    gethostname(name, sizeof(name) - 1);
    return name;
}

enum class Route { Direct, ThroughService };

inline void PrintTo(Route r, std::ostream* os)
{
    *os << (r == Route::Direct ? "direct" : "through a service");
}

class Disk : public ::testing::Test {
protected:
    virtual Route route() const { return Route::Direct; }

    void SetUp() override
    {
        if (route() == Route::ThroughService) {
            if (access(KELD_REMOTE_PLUGIN, F_OK) != 0) {
                GTEST_SKIP() << "the remote plug-in (libsts_remote.so) is not built: the run through a service waits for it";
            }
            startService();
            if (HasFatalFailure()) return;
        }
        openAll();
    }
    void TearDown() override
    {
        closeAll();
        if (service) {
            service->signal(SIGTERM);
            EXPECT_EQ(0, service->wait(std::chrono::seconds(20))) << "the service did not end cleanly";
        }
    }

    // The framework, a session (through the service when there is one) and
    // the default server.
    void openAll()
    {
        ASSERT_EQ(0, stsm_init(11, (root.path() + "/lib").c_str(), &api));
        std::memset(&sd, 0, sizeof(sd));
        sd.sd_id = "disk-test";
        if (service) std::snprintf(sd.sd_proxy, sizeof(sd.sd_proxy), "127.0.0.1:%d", port);
        ASSERT_EQ(0, api->stsa_open_session(&sd, &ssn));
        ASSERT_EQ(0, api->stsa_open_server(ssn, server.c_str(), nullptr, "", &svh));
        lsu.stl_server_handle = svh;
        std::strcpy(lsu.stl_lsu_name.sln_name, "lsu0");
    }
    void closeAll()
    {
        if (api == nullptr) return;
        if (svh != nullptr) api->stsa_close_handle(svh, 0);
        if (ssn != nullptr) api->stsa_close_handle(ssn, 0);
        svh = ssn = nullptr;
        EXPECT_EQ(0, stsm_terminate());
        api = nullptr;
    }

    static sts_image_def_t def(const char* base, const char* date = "20261123")
    {
        sts_image_def_t d;
        std::memset(&d, 0, sizeof(d));
        std::strcpy(d.img_basename, base);
        std::strcpy(d.img_date, date);
        std::strcpy(d.img_fulldate, "20261123T0101");
        return d;
    }
    sts_handle_t create(const char* base)
    {
        sts_handle_t h = nullptr;
        const sts_image_def_t d = def(base);
        EXPECT_EQ(0, api->stsa_create_image(&lsu, &d, 0, &h));
        return h;
    }
    sts_handle_t open(const char* base, int mode)
    {
        sts_handle_t h = nullptr;
        const sts_image_def_t d = def(base);
        EXPECT_EQ(0, api->stsa_open_image(&lsu, &d, mode, &h));
        return h;
    }
    void write(sts_handle_t h, const std::string& data, sts_uint64_t off)
    {
        sts_uint64_t done = 0;
        ASSERT_EQ(0, api->stsa_write_image(h, nullptr, const_cast<char*>(data.data()), data.size(), off, &done));
        ASSERT_EQ(data.size(), done);
    }
    std::string read(sts_handle_t h, sts_uint64_t len, sts_uint64_t off)
    {
        std::string buf(len, '\0');
        sts_uint64_t done = 0;
        EXPECT_EQ(0, api->stsa_read_image(h, &buf[0], len, off, &done));
        buf.resize(done);
        return buf;
    }
    sts_uint32_t status(const char* base)
    {
        sts_image_info_t info;
        const sts_image_def_t d = def(base);
        EXPECT_EQ(0, api->stsa_get_image_prop_byname(&lsu, &d, &info));
        return info.imo_status;
    }

    keldtest::TempRoot root;
    std::string server = "Disk:" + host();
    sts_api_t* api = nullptr;
    sts_session_def_t sd = {};
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
    sts_lsu_t lsu = {};

private:
    // A keldpxy on this root; the disk plug-in's files stay where the tests
    // and the operator's tools look for them.
    void startService()
    {
        port = keldtest::freePort();
        service = std::make_unique<keldtest::Child>(
            keldtest::keldpxyPath(), std::vector<std::string>{"-start", "-ORBListenEndPoints", keldtest::endpointArg(port)},
            std::vector<std::string>{"KELDV_ROOT=" + root.path()});
        ASSERT_TRUE(keldtest::waitFor(
            [&] { return root.readLog().find("succeed to advertise object EventChannelManager") != std::string::npos; },
            std::chrono::seconds(20)))
            << "the service did not start";
    }

    int port = 0;
    std::unique_ptr<keldtest::Child> service;
};

// The storage-API tests, run directly and through a service.
class Conformance : public Disk, public ::testing::WithParamInterface<Route> {
protected:
    Route route() const override { return GetParam(); }
};

#define INSTANTIATE_BOTH_ROUTES(fixture)                                                              \
    INSTANTIATE_TEST_SUITE_P(Direct, fixture, ::testing::Values(Route::Direct));                      \
    INSTANTIATE_TEST_SUITE_P(ThroughService, fixture, ::testing::Values(Route::ThroughService))

#endif
