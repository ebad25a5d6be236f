// A chain of two proxies on this machine: the client reaches service a,
// whose own session goes on to service b through the remote plug-in
// installed beside it, where the disk server is.
#include "RemoteTestSupport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vector>

using namespace remotetest;

namespace {

bool exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

class Chain : public ::testing::Test {
protected:
    void SetUp() override
    {
        // a gives up on b after two quick tries.
        a.root().writeFile("keldrive/zvsclient.conf", "retry_tries = 2\nretry_backoff_ms = 1\n");
        a.start();
        b.start();
    }
    // a held a session onward through the plug-in: it still ends cleanly.
    void TearDown() override
    {
        EXPECT_EQ(0, a.stop());
        b.stop();
    }
    std::string chain() const { return a.hop() + "#" + b.hop(); }

    Service a;
    Service b;
};

TEST_F(Chain, AFileGoesInAndOutThroughTwoHops)
{
    Client client("max_transfer = 1048576\n");   // five pieces for the file below
    sts_api_t* api = client.api();
    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(client.session(chain(), "chained"), diskServer().c_str(), nullptr, "", &svh));
    // a opened its own session onward, b opened the disk server.
    EXPECT_EQ(1u, a.logCount("init object StorageServerImpl"));
    EXPECT_EQ(1u, b.logCount("init object StorageServerImpl"));

    sts_lsu_t lsu = lsuOf(svh, "lsu0");
    sts_image_def_t def = imageDef("through-two");
    sts_handle_t img = nullptr;
    ASSERT_EQ(0, api->stsa_create_image(&lsu, &def, 0, &img));
    std::vector<unsigned char> data(5 << 20);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7 + i / 4096);
    sts_uint64_t done = 0;
    ASSERT_EQ(0, api->stsa_write_image(img, nullptr, data.data(), data.size(), 0, &done));
    EXPECT_EQ(data.size(), done);
    ASSERT_EQ(0, api->stsa_close_handle(img, 0));

    ASSERT_EQ(0, api->stsa_open_image(&lsu, &def, 1, &img));
    std::vector<unsigned char> back(data.size() + 4096);
    ASSERT_EQ(0, api->stsa_read_image(img, back.data(), back.size(), 0, &done));
    EXPECT_EQ(data.size(), done);   // fewer than asked: the end of the image
    back.resize(done);
    EXPECT_TRUE(back == data);
    EXPECT_EQ(0, api->stsa_close_handle(img, 0));
    EXPECT_EQ(0, api->stsa_close_handle(svh, 0));

    // The image is at b; a kept nothing.
    const std::string images = "/keldrive/storage/" + hostName() + "/lsus/lsu0/images/";
    EXPECT_TRUE(exists(b.root().path() + images + "through-two@20260101@20260101000000.img"));
    EXPECT_FALSE(exists(a.root().path() + images + "through-two@20260101@20260101000000.img"));
}

TEST_F(Chain, AHopThatIsDownIsNamed)
{
    b.stop();
    Client client;
    sts_handle_t svh = nullptr;
    EXPECT_EQ(REMOTE_EHOP + 1, client.api()->stsa_open_server(client.session(chain(), "down"), diskServer().c_str(),
                                                              nullptr, "", &svh));
    EXPECT_NE(std::string::npos, client.lines().find("proxy hop " + b.hop() + " cannot be reached"));
}

} // namespace
