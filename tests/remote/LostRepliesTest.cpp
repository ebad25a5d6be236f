// Calls through a relay that loses replies after the service has run the
// call: opens and closes of a server still happen once each at the service,
// answered from its record when resent; a backup of a 256 MiB file loses at
// least 1,000 replies on the way in, yet the image the disk plug-in wrote
// took each transfer once and the file comes back byte for byte.
//
// The longer run loses over 10,000 replies on the way in (8 KiB transfers):
//     KELD_LOST_REPLIES_LONG=1 build/tests/remote/lost_replies_tests
#include "GiopRelay.h"
#include "RemoteTestSupport.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <vector>

using namespace remotetest;

namespace {

const std::uint64_t FILE_SIZE = 256ull << 20;
const std::uint64_t RESTORE_CHUNK = 1u << 20;

// Content that differs in every 8 bytes, so a piece written at the wrong
// place or twice over another shows.
void fill(std::vector<unsigned char>& buf, std::uint64_t offset)
{
    for (size_t i = 0; i + 8 <= buf.size(); i += 8) {
        std::uint64_t v = (offset + i) * 0x9E3779B97F4A7C15ull;
        std::memcpy(&buf[i], &v, 8);
    }
}

TEST(LostReplies, OpensClosesABackupAndARestoreSurviveThousandsOfLostReplies)
{
    // Every third reply is lost (not every second: a call that follows the
    // manager's location forward takes two replies, and would lose the same
    // one each time).
    const bool longRun = std::getenv("KELD_LOST_REPLIES_LONG") != nullptr && std::string(std::getenv("KELD_LOST_REPLIES_LONG")) == "1";
    const std::uint64_t chunk = longRun ? 8u << 10 : 64u << 10;
    const unsigned long wantLost = longRun ? 10000 : 1000;
    Service service;
    // The service names the relay in its references, so that every call,
    // not just the first to the manager, goes through it.
    GiopRelay relay(service.port(), 3);
    service.start({"-ORBendPointPublish", "giop:tcp:127.0.0.1:" + std::to_string(relay.port())});
    Client client("retry_backoff_ms = 0\n");
    sts_api_t* api = client.api();
    const std::string hop = "127.0.0.1:" + std::to_string(relay.port());

    sts_handle_t ssn = client.session(hop, "lossy");
    const int rounds = 20;
    for (int i = 0; i < rounds; ++i) {
        sts_handle_t h = nullptr;
        ASSERT_EQ(0, api->stsa_open_server(ssn, diskServer().c_str(), nullptr, "", &h)) << i;
        sts_server_info_t info;
        ASSERT_EQ(0, api->stsa_get_server_prop_byname(stsp_session_def(ssn), diskServer().c_str(), &info)) << i;
        ASSERT_EQ(0, api->stsa_close_handle(h, 0)) << i;
    }
    EXPECT_GE(relay.dropped(), static_cast<unsigned long>(rounds));
    EXPECT_EQ(static_cast<size_t>(rounds), service.logCount("init object StorageServerImpl"));
    EXPECT_EQ(static_cast<size_t>(rounds), service.logCount("starting: StorageServerImpl::closeServer"));
    EXPECT_GT(service.logCount("hit retry"), 0u);
    EXPECT_NE(std::string::npos, client.lines().find("was lost (COMM_FAILURE)"));

    sts_handle_t svh = client.server(hop, "lost-replies");
    sts_lsu_t lsu = lsuOf(svh, "lsu0");
    sts_image_def_t def = imageDef("big");
    sts_handle_t img = nullptr;
    ASSERT_EQ(0, api->stsa_create_image(&lsu, &def, 0, &img));

    // The backup, in transfers of one chunk each.
    const unsigned long lostBefore = relay.dropped();
    std::vector<unsigned char> buf(chunk);
    for (std::uint64_t off = 0; off < FILE_SIZE; off += chunk) {
        fill(buf, off);
        sts_uint64_t done = 0;
        ASSERT_EQ(0, api->stsa_write_image(img, nullptr, buf.data(), chunk, off, &done)) << off;
        ASSERT_EQ(chunk, done);
    }
    ASSERT_EQ(0, api->stsa_close_handle(img, 0));
    const unsigned long lostOnBackup = relay.dropped() - lostBefore;
    EXPECT_GE(lostOnBackup, wantLost);
    // Each transfer reached the disk once.
    const std::string written = "image big closed after " + std::to_string(FILE_SIZE / chunk) + " writes of " +
                                std::to_string(FILE_SIZE) + " bytes";
    EXPECT_EQ(1u, service.logCount(written)) << "lost on the way in: " << lostOnBackup;

    // The restore, in larger transfers, still losing replies.
    ASSERT_EQ(0, api->stsa_open_image(&lsu, &def, 1, &img));
    std::vector<unsigned char> back(RESTORE_CHUNK), want(RESTORE_CHUNK);
    std::uint64_t restored = 0;
    for (sts_uint64_t got = RESTORE_CHUNK; got == RESTORE_CHUNK; restored += got) {
        ASSERT_EQ(0, api->stsa_read_image(img, back.data(), back.size(), restored, &got)) << restored;
        fill(want, restored);
        ASSERT_TRUE(std::equal(back.begin(), back.begin() + got, want.begin())) << "wrong bytes at " << restored;
    }
    EXPECT_EQ(FILE_SIZE, restored);
    EXPECT_EQ(0, api->stsa_close_handle(img, 0));
    EXPECT_EQ(0, api->stsa_close_handle(svh, 0));
    RecordProperty("lost_replies", static_cast<int>(relay.dropped()));
}

} // namespace
