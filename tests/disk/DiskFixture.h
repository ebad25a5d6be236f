// The disk plug-in in a fresh install root, reached through our storage
// framework either directly or through a running service: a keldpxy on the
// same root and the remote plug-in, with the service as sd_proxy.  The
// storage-API tests run both ways (the Conformance fixture) and must give
// the same results, numbers included; tests of the disk plug-in's own
// operator tools use the direct Disk fixture.
#ifndef KELD_TESTS_DISK_DISKFIXTURE_H
#define KELD_TESTS_DISK_DISKFIXTURE_H

#include "DiskStore.h"
#include "RemoteTestSupport.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>

// Runs a command line through the shell: its exit status, its output (both
// streams) in out.
inline int runTool(const std::string& cmd, std::string* out = nullptr)
{
    FILE* pipe = popen((cmd + " 2>&1").c_str(), "r");
    std::string text;
    char chunk[256];
    while (size_t n = std::fread(chunk, 1, sizeof(chunk), pipe)) text.append(chunk, n);
    const int status = pclose(pipe);
    if (out != nullptr) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

enum class Route { Direct, ThroughService };

inline void PrintTo(Route r, std::ostream* os)
{
    *os << (r == Route::Direct ? "direct" : "through a service");
}

class Disk : public ::testing::Test {
protected:
    virtual Route route() const { return Route::Direct; }

    // The framework, a session (through the service when there is one) and
    // the default server.
    void SetUp() override
    {
        if (route() == Route::ThroughService) {
            service.start();
            std::snprintf(sd.sd_proxy, sizeof(sd.sd_proxy), "%s", service.hop().c_str());
        }
        ASSERT_EQ(0, stsm_init(11, (root.path() + "/lib").c_str(), &api));
        sd.sd_id = "disk-test";
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
        if (route() == Route::ThroughService) {
            EXPECT_EQ(0, service.stop()) << "the service did not end cleanly";
        }
    }

    static sts_image_def_t def(const char* base, const char* date = "20261123")
    {
        sts_image_def_t d = {};
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

    // The service's root is the tests' root: the disk plug-in's files stay
    // where the tests and the operator's tools look for them.
    remotetest::Service service;
    keldtest::TempRoot& root = service.root();
    std::string server = remotetest::diskServer();
    sts_api_t* api = nullptr;
    sts_session_def_t sd = {};
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
    sts_lsu_t lsu = {};
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
