// An image handle's writes left in flight and reads ahead of the caller,
// on the run's cluster: a stream of transfers comes back byte for byte
// whatever order it is read in, a reader never takes the zeros of an image
// deleted under it for its bytes, and a write the cluster refuses after it
// was acknowledged is never lost from sight.
#include "RadosInFlight.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace radosstore;

namespace {

const std::uint64_t kObjectSize = 64 * 1024;
const std::uint64_t kTransfer = 48 * 1024;   // transfers straddle objects
const char* const kImage = "stream";

// The byte at an offset of the test image: no two nearby extents alike.
std::vector<char> pattern(std::uint64_t off, std::uint64_t len)
{
    std::vector<char> bytes(len);
    for (std::uint64_t i = 0; i < len; ++i) {
        const std::uint64_t at = off + i;
        bytes[i] = static_cast<char>((at * 2654435761u) >> 13 ^ at >> 16);
    }
    return bytes;
}

class InFlight : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* conf = std::getenv("KELD_CEPH_CONF");
        ASSERT_NE(nullptr, conf) << "KELD_CEPH_CONF names no cluster: the rados_cluster fixture did not run";
        ASSERT_EQ(0, rados_create(&cluster, "admin"));
        ASSERT_EQ(0, rados_conf_read_file(cluster, conf));
        ASSERT_EQ(0, rados_connect(cluster));
        ASSERT_EQ(0, rados_ioctx_create(cluster, "keld", &io));
        static std::atomic<int> next{0};
        rados_ioctx_set_namespace(io, ("in-flight-" + std::to_string(getpid()) + "-" + std::to_string(next++)).c_str());
    }
    void TearDown() override
    {
        if (io != nullptr) {
            removeEverything();
            rados_ioctx_destroy(io);
        }
        if (cluster != nullptr) rados_shutdown(cluster);
    }

    // A stream of whole transfers and a shorter last one, each from a
    // buffer the caller overwrites as soon as the write returns.
    std::uint64_t writeStream(WriteBehind& writes, int transfers, std::uint64_t tail)
    {
        std::uint64_t off = 0;
        for (int i = 0; i <= transfers; ++i) {
            const std::uint64_t len = i < transfers ? kTransfer : tail;
            std::vector<char> buf = pattern(off, len);
            EXPECT_EQ(0, writes.write(io, kImage, kObjectSize, buf.data(), len, off)) << "transfer " << i;
            std::fill(buf.begin(), buf.end(), 'x');
            off += len;
        }
        return off;
    }

    // Forty whole transfers and a short one, written behind and settled.
    std::uint64_t writeStreamOf41Transfers()
    {
        WriteBehind writes(3 * kTransfer);
        const std::uint64_t end = writeStream(writes, 40, 1000);
        EXPECT_EQ(0, writes.settle());
        return end;
    }

    // A header saying the image is complete and end bytes long, and a
    // reader of it.
    void openReader(ReadAhead& reads, std::uint64_t end)
    {
        sts_image_def_t def{};
        std::snprintf(def.img_basename, sizeof(def.img_basename), "%s", kImage);
        ASSERT_EQ(0, createHeader(io, kImage, def));
        ASSERT_EQ(0, writeState(io, kImage, STATE_COMPLETE, end, (end + kObjectSize - 1) / kObjectSize));
        reads.open({io, io, kImage, kObjectSize}, end);
    }

    std::vector<std::string> objects()
    {
        rados_list_ctx_t list = nullptr;
        std::vector<std::string> oids;
        if (rados_nobjects_list_open(io, &list) == 0) {
            const char* oid = nullptr;
            while (rados_nobjects_list_next(list, &oid, nullptr, nullptr) == 0) oids.push_back(oid);
            rados_nobjects_list_close(list);
        }
        return oids;
    }

    void removeEverything()
    {
        for (const std::string& oid : objects()) rados_remove(io, oid.c_str());
    }

    rados_t cluster = nullptr;
    rados_ioctx_t io = nullptr;
};

TEST_F(InFlight, StreamWrittenBehindComesBackReadAheadInAnyOrder)
{
    const std::uint64_t end = writeStreamOf41Transfers();
    ReadAhead reads;
    openReader(reads, end);
    std::vector<char> got(2 * kTransfer);
    auto expectRead = [&](std::uint64_t off, std::uint64_t len) {
        std::fill(got.begin(), got.end(), 0);
        std::uint64_t done = 0;
        ASSERT_EQ(0, reads.read(got.data(), len, off, done)) << "at " << off;
        ASSERT_EQ(std::min(len, end - off), done) << "at " << off;
        EXPECT_TRUE(std::equal(got.begin(), got.begin() + done, pattern(off, done).begin()))
            << done << " bytes at " << off;
    };
    for (std::uint64_t off = 0; off < end; off += kTransfer) expectRead(off, std::min(kTransfer, end - off));
    // Back, forth, the read-ahead's offset with other lengths, and the tail.
    const std::pair<std::uint64_t, std::uint64_t> jumps[] = {
        {5 * kTransfer, kTransfer},     {2 * kTransfer, kTransfer},          {3 * kTransfer, kTransfer / 2},
        {7 * kTransfer / 2, kTransfer}, {9 * kTransfer / 2, 2 * kTransfer}, {end - 100, 100},
        {end - 100, 200},               {0, 4096},                          {4096, 4096}};
    for (const auto& jump : jumps) expectRead(jump.first, jump.second);
    reads.forget();
}

TEST_F(InFlight, HolesAndShortObjectsReadAheadAsZerosOverWhatTheBufferHeld)
{
    // Data at the start (an object written only in part) and far on (the
    // objects between were never made): a sparse image as a backup leaves it.
    const std::uint64_t far = 5 * kObjectSize + 1000;
    const std::uint64_t end = far + kTransfer;
    WriteBehind writes(kObjectSize);
    ASSERT_EQ(0, writes.write(io, kImage, kObjectSize, pattern(0, 1000).data(), 1000, 0));
    ASSERT_EQ(0, writes.write(io, kImage, kObjectSize, pattern(far, kTransfer).data(), kTransfer, far));
    ASSERT_EQ(0, writes.settle());

    ReadAhead reads;
    openReader(reads, end);
    std::vector<char> got(kTransfer);
    for (std::uint64_t off = 0; off < end; off += kTransfer) {
        const std::uint64_t len = std::min(kTransfer, end - off);
        std::fill(got.begin(), got.end(), 'x');   // what the caller's buffer held before
        std::uint64_t done = 0;
        ASSERT_EQ(0, reads.read(got.data(), len, off, done)) << "at " << off;
        ASSERT_EQ(len, done);
        for (std::uint64_t i = 0; i < len; ++i) {
            const std::uint64_t at = off + i;
            const bool written = at < 1000 || at >= far;
            const char expected = written ? pattern(at, 1)[0] : '\0';
            ASSERT_EQ(expected, got[i]) << "byte " << at << (written ? " (written)" : " (a hole)");
        }
    }
    reads.forget();
}

TEST_F(InFlight, ReaderOfAnImageWhoseDeleteStoppedAfterItsDataWentGetsNoSuchImageNotZeros)
{
    const std::uint64_t end = writeStreamOf41Transfers();
    ReadAhead reads;
    openReader(reads, end);
    std::vector<char> got(kTransfer);
    std::uint64_t off = 0;
    std::uint64_t done = 0;
    for (; off < 2 * kTransfer; off += done) ASSERT_EQ(0, reads.read(got.data(), kTransfer, off, done));

    // What a delete leaves when it stops after the data: the header marked,
    // no data object.  The reader, with extents already ahead, may still
    // hand out what it read before the mark, then only "no such image".
    ASSERT_EQ(0, writeState(io, kImage, STATE_DELETING, end, (end + kObjectSize - 1) / kObjectSize));
    for (const std::string& oid : objects())
        if (oid.rfind("data.", 0) == 0) {
            ASSERT_EQ(0, rados_remove(io, oid.c_str()));
        }
    int rc = 0;
    for (; off < end && rc == 0; off += done) {
        rc = reads.read(got.data(), kTransfer, off, done);
        if (rc == 0) {
            ASSERT_TRUE(std::equal(got.begin(), got.begin() + done, pattern(off, done).begin())) << "at " << off;
        }
    }
    EXPECT_EQ(-ENOENT, rc) << "the reader got to the end of an image being deleted";
    EXPECT_EQ(-ENOENT, reads.read(got.data(), kTransfer, 0, done)) << "a read elsewhere";
    EXPECT_EQ(-ENOENT, reads.read(got.data(), kTransfer, end + kTransfer, done)) << "a read past the end";
    reads.forget();

    // The delete, repeated, finishes.
    ASSERT_EQ(0, removeImage(io, kImage));
    for (const std::string& oid : objects()) EXPECT_EQ("keld.images", oid) << "left behind";
}

TEST_F(InFlight, WriteRefusedAfterItWasAcknowledgedFailsTheSettleAndEveryLaterWrite)
{
    WriteBehind writes(64ull << 20);
    const std::vector<char> data = pattern(0, 4096);
    ASSERT_EQ(0, writes.write(io, kImage, kObjectSize, data.data(), data.size(), 0));
    // Laid out in objects of 1 GiB, this piece lies past the largest object
    // the cluster keeps: only the cluster refuses it, once it arrives.
    EXPECT_EQ(0, writes.write(io, kImage, 1ull << 30, data.data(), data.size(), 512ull << 20));
    EXPECT_EQ(-EFBIG, writes.settle());
    EXPECT_NE(0, writes.write(io, kImage, kObjectSize, data.data(), data.size(), 4096));
    EXPECT_EQ(-EFBIG, writes.settle()) << "a failure stays with the handle";
}

} // namespace
