// A chain of two proxies on this machine: the client reaches service a,
// whose own session goes on to service b through the remote plug-in
// installed beside it, where the disk server is.
#include "RemoteTestSupport.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

using namespace remotetest;

namespace {

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
    sts_handle_t svh = client.server(chain(), "chained");
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
    const std::string image = "/keldrive/storage/" + hostName() + "/lsus/lsu0/images/through-two@20260101@20260101000000.img";
    EXPECT_EQ(0, access((b.root().path() + image).c_str(), F_OK));
    EXPECT_NE(0, access((a.root().path() + image).c_str(), F_OK));
}

// Each hop that cannot be reached has its own number and line; a chain
// whose first hop is no address is refused before any call.
TEST_F(Chain, BadChainsAndDownHopsGiveNamedErrors)
{
    b.stop();
    const std::string nobody = "127.0.0.1:" + std::to_string(keldtest::freePort());
    Client client("retry_tries = 2\nretry_backoff_ms = 1\n");
    sts_api_t* api = client.api();
    sts_handle_t h = nullptr;
    auto open = [&](const std::string& chain) {
        return api->stsa_open_server(client.session(chain), diskServer().c_str(), nullptr, "", &h);
    };
    EXPECT_EQ(REMOTE_EBADPROXY, open("host:port"));
    EXPECT_EQ(REMOTE_EBADPROXY, open("#x"));
    EXPECT_EQ(REMOTE_EHOP, open(nobody + "#" + a.hop()));
    EXPECT_NE(std::string::npos, client.lines().find("proxy hop " + nobody + " cannot be reached"));
    EXPECT_EQ(REMOTE_EHOP + 1, open(chain()));
    EXPECT_NE(std::string::npos, client.lines().find("proxy hop " + b.hop() + " cannot be reached"));
}

} // namespace
