// The disk plug-in loaded through the framework in a fresh install root,
// with its default server open and short forms of the image calls.
#ifndef KELD_TESTS_DISK_DISKFIXTURE_H
#define KELD_TESTS_DISK_DISKFIXTURE_H

#include "DiskStore.h"
#include "sts_plugin.h"
#include "TestSupport.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

inline std::string host()
{
    char name[512] = {0};
    gethostname(name, sizeof(name) - 1);
    return name;
}

class Disk : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, stsm_init(11, (root.path() + "/lib").c_str(), &api));
        sts_session_def_t sd = {};
        sd.sd_id = "disk-test";
        ASSERT_EQ(0, api->stsa_open_session(&sd, &ssn));
        ASSERT_EQ(0, api->stsa_open_server(ssn, server.c_str(), nullptr, "", &svh));
        lsu.stl_server_handle = svh;
        std::strcpy(lsu.stl_lsu_name.sln_name, "lsu0");
    }
    void TearDown() override
    {
        if (svh != nullptr) api->stsa_close_handle(svh, 0);
        api->stsa_close_handle(ssn, 0);
        EXPECT_EQ(0, stsm_terminate());
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
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
    sts_lsu_t lsu = {};
};

#endif
