// The image calls the plug-in tests make over and over, on one LSU of an
// open server through the storage API.  A fixture derives from it and sets
// api and lsu once its session and server are open.
#ifndef KELD_TEST_IMAGE_CALLS_H
#define KELD_TEST_IMAGE_CALLS_H

#include "sts_api.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>

class ImageCalls {
protected:
    static sts_image_def_t def(const char* base, const char* date = "20261123")
    {
        sts_image_def_t d = {};
        std::snprintf(d.img_basename, sizeof(d.img_basename), "%s", base);
        std::snprintf(d.img_date, sizeof(d.img_date), "%s", date);
        std::snprintf(d.img_fulldate, sizeof(d.img_fulldate), "%s", "20261123T0101");
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
        std::string buf(len, '#');   // not zeros: a gap must read as zeros by itself
        sts_uint64_t done = 0;
        EXPECT_EQ(0, api->stsa_read_image(h, &buf[0], len, off, &done));
        buf.resize(done);
        return buf;
    }
    sts_image_info_t info(const char* base, int expect = 0)
    {
        sts_image_info_t i = {};
        const sts_image_def_t d = def(base);
        EXPECT_EQ(expect, api->stsa_get_image_prop_byname(&lsu, &d, &i)) << base;
        return i;
    }
    sts_uint32_t status(const char* base) { return info(base).imo_status; }

    sts_api_t* api = nullptr;
    sts_lsu_t lsu = {};
};

#endif
