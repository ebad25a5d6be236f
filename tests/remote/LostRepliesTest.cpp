// A backup and a restore of a 256 MiB file through a relay that loses
// replies after the service has run the call: at least 1,000 are lost on
// the way in, yet the image the disk plug-in wrote took each transfer once
// and the file comes back byte for byte.
//
// The longer run loses over 10,000 replies on the way in (8 KiB transfers):
//     KELD_LOST_REPLIES_LONG=1 build/tests/remote/lost_replies_tests
#include "GiopRelay.h"
#include "RemoteTestSupport.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <vector>

using namespace remotetest;

namespace {

const std::uint64_t FILE_SIZE = 256ull << 20;
const std::uint64_t RESTORE_CHUNK = 1u << 20;

bool longRun()
{
    const char* v = std::getenv("KELD_LOST_REPLIES_LONG");
    return v != nullptr && std::strcmp(v, "1") == 0;
}

// Content that differs in every 8 bytes, so a piece written at the wrong
// place or twice over another shows.
void fill(std::vector<unsigned char>& buf, std::uint64_t offset)
{
    for (size_t i = 0; i + 8 <= buf.size(); i += 8) {
        std::uint64_t v = (offset + i) * 0x9E3779B97F4A7C15ull;
        std::memcpy(&buf[i], &v, 8);
    }
}

std::string makeFile(const std::string& path)
{
    std::ofstream out(path, std::ios::binary);
    std::vector<unsigned char> buf(RESTORE_CHUNK);
    for (std::uint64_t off = 0; off < FILE_SIZE; off += buf.size()) {
        fill(buf, off);
        out.write(reinterpret_cast<const char*>(buf.data()), static_cast<std::streamsize>(buf.size()));
    }
    return path;
}

bool sameFiles(const std::string& a, const std::string& b)
{
    std::ifstream fa(a, std::ios::binary);
    std::ifstream fb(b, std::ios::binary);
    std::vector<char> ba(RESTORE_CHUNK);
    std::vector<char> bb(RESTORE_CHUNK);
    while (fa && fb) {
        fa.read(ba.data(), static_cast<std::streamsize>(ba.size()));
        fb.read(bb.data(), static_cast<std::streamsize>(bb.size()));
        if (fa.gcount() != fb.gcount() || std::memcmp(ba.data(), bb.data(), static_cast<size_t>(fa.gcount())) != 0) {
            return false;
        }
    }
    return fa.eof() && fb.eof();
}

TEST(LostReplies, ABackupAndRestoreSurviveThousandsOfLostReplies)
{
    // Every third reply is lost (not every second: a call that follows the
    // manager's location forward takes two replies, and would lose the same
    // one each time).
    const std::uint64_t chunk = longRun() ? 8u << 10 : 64u << 10;
    const unsigned dropEvery = 3;
    const unsigned long wantLost = longRun() ? 10000 : 1000;

    Service service;
    GiopRelay relay(service.port(), dropEvery);
    service.start({"-ORBendPointPublish", "giop:tcp:127.0.0.1:" + std::to_string(relay.port())});
    Client client("retry_backoff_ms = 0\n");
    sts_api_t* api = client.api();

    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(client.session("127.0.0.1:" + std::to_string(relay.port()), "lost-replies"),
                                       diskServer().c_str(), nullptr, "", &svh));
    sts_lsu_t lsu = lsuOf(svh, "lsu0");
    sts_image_def_t def = imageDef("big");
    sts_handle_t img = nullptr;
    ASSERT_EQ(0, api->stsa_create_image(&lsu, &def, 0, &img));
    const std::string source = makeFile(service.root().path() + "/source.bin");
    const std::string restored = service.root().path() + "/restored.bin";

    // The backup, in transfers of one chunk each.
    const unsigned long lostBefore = relay.dropped();
    std::ifstream in(source, std::ios::binary);
    std::vector<unsigned char> buf(chunk);
    for (std::uint64_t off = 0; off < FILE_SIZE; off += chunk) {
        in.read(reinterpret_cast<char*>(buf.data()), static_cast<std::streamsize>(chunk));
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
    std::ofstream out(restored, std::ios::binary);
    std::vector<unsigned char> back(RESTORE_CHUNK);
    for (std::uint64_t off = 0;;) {
        sts_uint64_t got = 0;
        ASSERT_EQ(0, api->stsa_read_image(img, back.data(), back.size(), off, &got)) << off;
        out.write(reinterpret_cast<const char*>(back.data()), static_cast<std::streamsize>(got));
        off += got;
        if (got < back.size()) break;
    }
    out.close();
    EXPECT_EQ(0, api->stsa_close_handle(img, 0));
    EXPECT_EQ(0, api->stsa_close_handle(svh, 0));
    EXPECT_TRUE(sameFiles(source, restored));
    RecordProperty("lost_replies", static_cast<int>(relay.dropped()));
}

} // namespace
