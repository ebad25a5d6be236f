// A backup and a restore through the service, as a job does them: create an
// image, stream a file into it, close it, reopen it and stream it back, and
// compare byte for byte; the same again writing backwards, so that length
// and offset can never be swapped unnoticed.  Retries of lost replies never
// write twice and replay the first answer's bytes.
#include "ServiceClient.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

using namespace keldtest;

namespace {

const size_t kFileSize = 64u << 20;
const size_t kTransfer = 1u << 20;

std::vector<unsigned char> randomFile(size_t size, unsigned seed)
{
    std::vector<unsigned char> data(size);
    std::mt19937 gen(seed);
    for (size_t i = 0; i < size; i += 4) {
        const uint32_t v = gen();
        std::memcpy(&data[i], &v, std::min<size_t>(4, size - i));
    }
    return data;
}

API::Bytes bytesOf(const unsigned char* data, size_t size)
{
    API::Bytes b(static_cast<CORBA::ULong>(size));
    b.length(static_cast<CORBA::ULong>(size));
    std::memcpy(b.get_buffer(), data, size);
    return b;
}

class BackupRestore : public ServiceFixture {
protected:
    void SetUp() override
    {
        start();
        server = openDisk(1, "backup");
    }

    // Writes the file in transfers of kTransfer, in the order given.
    void backUp(const char* name, const std::vector<unsigned char>& file, bool backwards)
    {
        API::Image_var image = server->createImageV13(++serverSeq, "lsu0", imageDefinition(name), 0);
        const size_t transfers = file.size() / kTransfer;
        API::UInt64 seq = 0;
        for (size_t t = 0; t < transfers; ++t) {
            const size_t at = (backwards ? transfers - 1 - t : t) * kTransfer;
            const API::Bytes chunk = bytesOf(&file[at], kTransfer);
            API::UInt64 written = 0;
            image->writeImageV12(++seq, chunk, kTransfer, at, written);
            ASSERT_EQ(kTransfer, written);
        }
        server->closeImageV12(++serverSeq, image, 0, 0);
    }

    std::vector<unsigned char> restore(const char* name, size_t size)
    {
        API::Image_var image = server->openImageV13(++serverSeq, "lsu0", imageDefinition(name), kOpenRead);
        std::vector<unsigned char> back(size);
        API::UInt64 seq = 0;
        for (size_t at = 0; at < size; at += kTransfer) {
            API::Bytes_var data;
            API::UInt64 read = 0;
            image->readImageV12(++seq, data, kTransfer, at, read);
            EXPECT_EQ(kTransfer, read);
            std::memcpy(&back[at], data->get_buffer(), read);
        }
        image->closeImageV12(++seq, 0, 0);
        return back;
    }

    API::StorageServer_var server;
    API::UInt64 serverSeq = 1;
};

TEST_F(BackupRestore, AFileComesBackByteForByteWrittenForwardsOrBackwards)
{
    const std::vector<unsigned char> file = randomFile(kFileSize, 1);
    backUp("forwards", file, false);
    EXPECT_TRUE(restore("forwards", kFileSize) == file);
    const std::vector<unsigned char> other = randomFile(kFileSize, 2);
    backUp("backwards", other, true);
    EXPECT_TRUE(restore("backwards", kFileSize) == other);
}

TEST_F(BackupRestore, RetriesNeverWriteTwiceAndReplayTheFirstBytes)
{
    API::Image_var image = server->createImageV13(2, "lsu0", imageDefinition("retried"), 0);
    const std::vector<unsigned char> first = randomFile(4096, 3);
    const std::vector<unsigned char> second = randomFile(4096, 4);
    API::UInt64 written = 0;
    image->writeImageV12(1, bytesOf(first.data(), 4096), 4096, 0, written);
    ASSERT_EQ(4096u, written);
    // The same number again, even with other bytes and a shorter length:
    // the first call's count, and nothing written.
    written = 0;
    image->writeImageV12(1, bytesOf(second.data(), 4096), 100, 0, written);
    EXPECT_EQ(4096u, written);
    server->closeImageV12(3, image, 0, 0);

    API::Image_var reader = server->openImageV13(4, "lsu0", imageDefinition("retried"), kOpenRead);
    API::Bytes_var data;
    API::UInt64 read = 0;
    reader->readImageV12(1, data, 4096, 0, read);
    ASSERT_EQ(4096u, read);
    EXPECT_EQ(0, std::memcmp(data->get_buffer(), first.data(), 4096));

    // The image changes under the reader: a retried read still answers the
    // first read's bytes.
    API::Image_var writer = server->openImageV13(5, "lsu0", imageDefinition("retried"), kOpenWrite);
    writer->writeImageV12(1, bytesOf(second.data(), 4096), 4096, 0, written);
    API::Bytes_var again;
    reader->readImageV12(1, again, 4096, 0, read);
    EXPECT_EQ(4096u, read);
    EXPECT_EQ(0, std::memcmp(again->get_buffer(), first.data(), 4096));

    // Across the end: the sequence has the length asked for, the count
    // says what is valid.
    API::Bytes_var tail;
    reader->readImageV12(2, tail, 8192, 2048, read);
    EXPECT_EQ(8192u, tail->length());
    EXPECT_EQ(2048u, read);
    EXPECT_EQ(0, std::memcmp(tail->get_buffer(), second.data() + 2048, 2048));

    // A write on an image opened for reading is refused with the plug-in's number.
    EXPECT_TRUE(raises(2062008, [&] { reader->writeImageV12(3, bytesOf(first.data(), 16), 16, 0, written); }));
    // A length beyond the data sent is refused before the plug-in sees it.
    EXPECT_TRUE(raises(2060001, [&] { writer->writeImageV12(2, bytesOf(first.data(), 16), 1u << 30, 0, written); }));
}

} // namespace
