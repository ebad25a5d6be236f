// Transfers as large as backup jobs make them.  The service takes single
// transfers up to 64 MiB without any option; a larger one is refused by the
// ORB, which tells the client (COMM_FAILURE, not completed) and closes only
// that connection, the log names the client, and the service goes on.
// -ORBgiopMaxMsgSize still sets the limit.
#include "ServiceClient.h"

#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <vector>

using namespace keldtest;
using namespace std::chrono_literals;

namespace {

const size_t MiB = 1u << 20;
const int kInvalidArgument = 2060001;
const char* const kRefusal = "refused a message to or from giop:tcp:127.0.0.1:";

// Every 4 KiB block tells where it belongs, so that a transfer stored at the
// wrong offset or cut short shows.
API::Bytes blocks(size_t offset, size_t size)
{
    API::Bytes data(static_cast<CORBA::ULong>(size));
    data.length(static_cast<CORBA::ULong>(size));
    for (size_t at = 0; at < size; at += 4096) {
        std::memset(data.get_buffer() + at, static_cast<int>((offset + at) / 4096 % 251), std::min<size_t>(4096, size - at));
    }
    return data;
}

bool sameBytes(const API::Bytes& a, const API::Bytes& b, size_t size)
{
    return a.length() >= size && b.length() >= size && std::memcmp(a.get_buffer(), b.get_buffer(), size) == 0;
}

class LargeTransfers : public ServiceFixture {
protected:
    API::UInt64 write(API::Image_ptr image, API::UInt64 seq, size_t offset, size_t size)
    {
        API::UInt64 written = 0;
        image->writeImageV12(seq, blocks(offset, size), size, offset, written);
        return written;
    }

    // The size of the image's data file, as the disk plug-in lays it out.
    long long storedBytes(const std::string& name) const
    {
        struct stat st;
        const std::string path = lsuDir("lsu0") + "/images/" + name + "@@.img";
        return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
    }
};

TEST_F(LargeTransfers, UpTo64MiBPassAndALargerTransferIsRefusedWhileTheServiceGoesOn)
{
    start();
    API::StorageServer_var server = openDisk(1, "large");
    API::Image_var image = server->createImageV13(2, "lsu0", imageDefinition("large"), 0);
    EXPECT_EQ(4 * MiB, write(image, 1, 0, 4 * MiB));
    EXPECT_EQ(32 * MiB, write(image, 2, 4 * MiB, 32 * MiB));
    EXPECT_EQ(64 * MiB, write(image, 3, 36 * MiB, 64 * MiB));

    // 80 MiB never reaches the image: the client hears of it, the log says
    // who sent it, and the image takes its next transfer.
    try {
        write(image, 4, 100 * MiB, 80 * MiB);
        ADD_FAILURE() << "an 80 MiB transfer was taken";
    } catch (const CORBA::COMM_FAILURE& e) {
        EXPECT_EQ(CORBA::COMPLETED_NO, e.completed());
    }
    EXPECT_TRUE(waitFor([&] { return logHas(kRefusal); }, 5s));
    EXPECT_EQ(MiB, write(image, 4, 100 * MiB, MiB));
    server->closeImageV12(3, image, 0, 0);
    EXPECT_EQ(101ll * MiB, storedBytes("large"));

    // Reads of the same sizes come back byte for byte; one larger than a
    // reply can carry is refused by the image itself.
    API::Image_var reader = server->openImageV13(4, "lsu0", imageDefinition("large"), kOpenRead);
    API::UInt64 seq = 0;
    for (const size_t at : {size_t(0), 4 * MiB, 36 * MiB}) {
        const size_t size = at == 0 ? 4 * MiB : at == 4 * MiB ? 32 * MiB : 64 * MiB;
        API::Bytes_var data;
        API::UInt64 read = 0;
        reader->readImageV12(++seq, data, size, at, read);
        EXPECT_EQ(size, read);
        EXPECT_TRUE(sameBytes(data.in(), blocks(at, size), size)) << "read of " << size << " bytes at " << at;
    }
    API::UInt64 read = 0;
    EXPECT_TRUE(raises(kInvalidArgument, [&] {
        API::Bytes_var data;
        reader->readImageV12(++seq, data, 80 * MiB, 0, read);
    }));
    EXPECT_EQ(CORBA::String_var(ssm->getString()).in(), std::string("ZVS_VERSION=13"));
}

TEST_F(LargeTransfers, TheCommandLineSetsTheLimit)
{
    start({}, {"-ORBgiopMaxMsgSize", "8388608"});
    EXPECT_TRUE(logHas("largest message taken is 8388608 bytes"));
    API::StorageServer_var server = openDisk(1, "limited");
    API::Image_var image = server->createImageV13(2, "lsu0", imageDefinition("limited"), 0);
    EXPECT_EQ(4 * MiB, write(image, 1, 0, 4 * MiB));
    EXPECT_TRUE(raisesSystem([&] { write(image, 2, 4 * MiB, 32 * MiB); }));
    EXPECT_TRUE(waitFor([&] { return logHas(kRefusal); }, 5s));
    EXPECT_EQ(4 * MiB, write(image, 2, 4 * MiB, 4 * MiB));
}

} // namespace
