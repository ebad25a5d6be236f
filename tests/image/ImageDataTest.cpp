// An image's data over IIOP against the disk plug-in: transfers and the
// retries of lost replies, which never do the work twice; copies and
// includes between images; metadata, properties, extraction into another
// LSU and deletion of files; and transfers as large as backup jobs make
// them, up to the largest message the service takes.
#include "DiskClient.h"

using namespace keldtest;
using namespace std::chrono_literals;

namespace {

const size_t kSize = 256 * 1024;
const size_t MiB = 1u << 20;
const char* const kRefusal = "refused a message to or from giop:tcp:127.0.0.1:";

API::UInt64 write(API::Image_ptr image, API::UInt64 seq, const API::Bytes& bytes, size_t offset)
{
    API::UInt64 written = 0;
    image->writeImageV12(seq, bytes, bytes.length(), offset, written);
    return written;
}

// length bytes from offset, all of which must come.
API::Bytes read(API::Image_ptr image, API::UInt64 seq, size_t length, size_t offset)
{
    API::Bytes_var bytes;
    API::UInt64 got = 0;
    image->readImageV12(seq, bytes, length, offset, got);
    EXPECT_EQ(length, got);
    return bytes.in();
}

class Images : public ServiceFixture {
protected:
    void SetUp() override
    {
        start();
        server = openDisk(1, "images");
        makeLsu("archive");
        // The source: written, closed, and open again for reading.
        API::Image_var writer = server->createImageV13(next(), "lsu0", imageDefinition("source"), 0);
        EXPECT_EQ(kSize, write(writer, 1, data, 0));
        server->closeImageV12(next(), writer, 0, 0);
        source = server->openImageV13(next(), "lsu0", imageDefinition("source"), kOpenRead);
        target = server->createImageV13(next(), "lsu0", imageDefinition("target"), 0);
    }
    API::UInt64 bytesCopied()
    {
        API::FscpInfo_var info;
        server->getFscpInfo(next(), STS_IOCTL_GET_FSCP_INFO, info);
        return info->totalbytescopied;
    }
    API::UInt64 next() { return ++serverSeq; }

    const API::Bytes data = positioned(kSize);
    API::StorageServer_var server;
    API::UInt64 serverSeq = 1;
    API::Image_var source, target;
};

TEST_F(Images, TransfersPropertiesExtractionAndDeletionAnswerRetriesWithoutDoingTheWorkTwice)
{
    // A retried write, even with other bytes and a shorter length, answers
    // the first count and writes nothing.
    const API::Bytes other = positioned(4096, 0, 1);
    EXPECT_EQ(4096u, write(target, 1, positioned(4096), 0));
    API::UInt64 written = 0;
    target->writeImageV12(1, other, 100, 0, written);
    EXPECT_EQ(4096u, written);
    EXPECT_TRUE(sameBytes(read(target, 2, 4096, 0).get_buffer(), positioned(4096)));

    // Extraction copies the image whole into another LSU; the retry
    // replays, a new number finds it there.
    EXPECT_EQ(0, source->extractFilesV12(1, "archive", 0));
    EXPECT_EQ(0, source->extractFilesV12(1, "archive", 0));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(data.get_buffer()), kSize),
              fileText(lsuDir("archive") + "/images/source@@.img"));
    EXPECT_TRUE(raises(DISK_EEXIST, [&] { source->extractFilesV12(2, "archive", 0); }, "fail to call sts_extract_files "));

    // A retried read answers the first read's bytes though the image changed
    // since; the properties of an open image see what another object of it wrote.
    const API::Bytes first = read(source, 3, 4096, 0);
    API::Image_var writer = server->openImageV13(next(), "lsu0", imageDefinition("source"), kOpenWrite);
    EXPECT_EQ(4096u, write(writer, 1, other, kSize));
    EXPECT_EQ(4096u, write(writer, 2, other, 0));
    EXPECT_TRUE(sameBytes(read(source, 3, 4096, 0).get_buffer(), first));
    API::ImageInformationV13_var info;
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(0, source->getImagePropV13(4, info));
        EXPECT_EQ(kSize + 4096, info->imo_size);
        EXPECT_EQ(2u, info->imo_status) << "incomplete while written";
    }
    // Across the end: the sequence has the length asked for, the count says what is valid.
    API::Bytes_var tail;
    API::UInt64 got = 0;
    source->readImageV12(5, tail, 8192, kSize + 2048, got);
    EXPECT_EQ(8192u, tail->length());
    EXPECT_EQ(2048u, got);
    EXPECT_TRUE(sameBytes(tail->get_buffer(), positioned(2048, 2048, 1)));
    EXPECT_TRUE(raises(DISK_EREADONLY, [&] { write(source, 6, other, 0); }));
    // A length beyond the data sent, by one byte or more, is refused before
    // the plug-in sees it.
    EXPECT_TRUE(raises(STS_EINVAL_ARG, [&] { writer->writeImageV12(3, other, other.length() + 1, 0, written); }));

    API::Image_var sibling = server->createImageV13(next(), "lsu0", imageDefinition("source", "later"), 0);
    API::UInt32 group = 0;
    EXPECT_EQ(0, source->getImageGroupV12(7, group));
    EXPECT_EQ(2u, group) << "both images named source";
    // Deletion of files by image name, through any image of the LSU.
    API::StringSeq names;
    names.length(1);
    names[0] = CORBA::string_dup("source@later@");
    const std::string victim = lsuDir("lsu0") + "/images/source@later@.img";
    ASSERT_TRUE(exists(victim));
    target->deleteFilesV12(5, names, 1);
    target->deleteFilesV12(5, names, 1);
    EXPECT_FALSE(exists(victim));
    EXPECT_TRUE(raises(STS_EINVAL_ARG, [&] { target->deleteFilesV12(6, names, 2); }, "file count does not match the names sent"));
    names[0] = CORBA::string_dup("target@@");
    EXPECT_TRUE(raises(DISK_EBUSY, [&] { target->deleteFilesV12(7, names, 1); }, "fail to call sts_delete_files"));
    EXPECT_TRUE(exists(lsuDir("lsu0") + "/images/target@@.img"));
}

TEST_F(Images, ExtentsCopyAndIncludeByteExactAndARetryCopiesOnce)
{
    API::UInt64 copied = 0;
    for (int attempt = 0; attempt < 2; ++attempt) {
        copied = 0;
        target->copyExtentV12(1, 0, source, 0, kSize, 0, copied);
        EXPECT_EQ(kSize, copied) << "a retry answers the first count";
    }
    EXPECT_EQ(kSize, bytesCopied()) << "and copies nothing again";
    target->copyExtentV12(2, kSize + 4096, source, 1000, 4096, 0, copied);
    EXPECT_EQ(4096u, copied);
    API::UInt64 included = 0;
    target->includeInImageV12(3, 2 * kSize, source, 17, 100, included);
    EXPECT_EQ(100u, included);
    EXPECT_EQ(kSize + 4096 + 100, bytesCopied());

    const API::Bytes back = read(target, 4, 2 * kSize + 100, 0);
    EXPECT_TRUE(sameBytes(back.get_buffer(), data));
    EXPECT_TRUE(sameBytes(back.get_buffer() + kSize + 4096, positioned(4096, 1000)));
    EXPECT_TRUE(sameBytes(back.get_buffer() + 2 * kSize, positioned(100, 17)));

    // Into an image opened for reading: the copy raises the plug-in's
    // number plainly, the include always with its count, replayed on a retry.
    EXPECT_TRUE(raises(DISK_EREADONLY, [&] { source->copyExtentV12(1, 0, target, 0, 10, 0, copied); },
                       "sts_copy_extent failed"));
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_TRUE(raisesVal(DISK_EREADONLY, 0, [&] { source->includeInImageV12(2, 0, target, 0, 10, included); }));
    }

    // A source that is gone, or not an image, is refused without a plug-in call.
    API::Image_var gone = server->openImageV13(next(), "lsu0", imageDefinition("source"), kOpenRead);
    gone->closeImageV12(0, 0, 0);
    EXPECT_TRUE(raisesSystem([&] { target->copyExtentV12(5, 0, gone, 0, 10, 0, copied); }));
    API::ImageList_var list = server->openImageListV12(next(), "lsu0", 0);
    API::Image_var notAnImage = API::Image::_unchecked_narrow(list);
    EXPECT_TRUE(raisesSystem([&] { target->includeInImageV12(6, 0, notAnImage, 0, 10, included); }));
    EXPECT_EQ(kSize + 4096 + 100, bytesCopied());
}

// A backup job's file goes in as 1 MiB writes and comes back whole, byte
// for byte, whether the job writes it from the start forwards or from the
// end backwards: a length taken for an offset, or the other way round,
// could not pass both.
class Backups : public ServiceFixture {};

TEST_F(Backups, A64MiBFileWrittenForwardsOrBackwardsIsRestoredByteForByte)
{
    start();
    API::StorageServer_var server = openDisk(1, "backups");
    API::UInt64 serverSeq = 1;
    const size_t kPieces = 64;
    const API::Bytes file = positioned(kPieces * MiB);
    for (const bool forwards : {true, false}) {
        const char* name = forwards ? "forwards" : "backwards";
        API::Image_var image = server->createImageV13(++serverSeq, "lsu0", imageDefinition(name), 0);
        for (size_t n = 0; n < kPieces; ++n) {
            const size_t at = (forwards ? n : kPieces - 1 - n) * MiB;
            const API::Bytes piece(MiB, MiB, const_cast<CORBA::Octet*>(file.get_buffer()) + at, false);
            ASSERT_EQ(MiB, write(image, n + 1, piece, at)) << name << " at " << at;
        }
        server->closeImageV12(++serverSeq, image, 0, 0);

        API::Image_var reader = server->openImageV13(++serverSeq, "lsu0", imageDefinition(name), kOpenRead);
        for (size_t at = 0; at < kPieces * MiB; at += MiB) {
            ASSERT_TRUE(std::equal(file.get_buffer() + at, file.get_buffer() + at + MiB,
                                   read(reader, at / MiB + 1, MiB, at).get_buffer()))
                << name << ": wrong bytes at " << at;
        }
        API::Bytes_var beyond;
        API::UInt64 got = 1;
        reader->readImageV12(kPieces + 1, beyond, MiB, kPieces * MiB, got);
        EXPECT_EQ(0u, got) << name << ": the image is longer than the file";
        server->closeImageV12(++serverSeq, reader, 0, 0);
    }
}

// The service takes single transfers up to 64 MiB without any option; a
// larger one is refused by the ORB, which tells the client (COMM_FAILURE,
// not completed) and closes only that connection, the log names the
// client, and the service goes on.  -ORBgiopMaxMsgSize still sets the limit.
class LargeTransfers : public ServiceFixture {};

TEST_F(LargeTransfers, UpTo64MiBPassByteExactAndALargerTransferIsRefusedWhileTheServiceGoesOn)
{
    start();
    API::StorageServer_var server = openDisk(1, "large");
    API::Image_var image = server->createImageV13(2, "lsu0", imageDefinition("large"), 0);
    const size_t at[] = {0, 4 * MiB, 36 * MiB};
    const size_t size[] = {4 * MiB, 32 * MiB, 64 * MiB};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(size[i], write(image, i + 1, positioned(size[i], at[i]), at[i]));
    try {
        write(image, 4, positioned(80 * MiB), 100 * MiB);
        ADD_FAILURE() << "an 80 MiB transfer was taken";
    } catch (const CORBA::COMM_FAILURE& e) {
        EXPECT_EQ(CORBA::COMPLETED_NO, e.completed());
    }
    EXPECT_TRUE(waitFor([&] { return logHas(kRefusal); }, 5s));
    EXPECT_EQ(MiB, write(image, 4, positioned(MiB), 100 * MiB));
    server->closeImageV12(3, image, 0, 0);
    struct stat st;
    ASSERT_EQ(0, ::stat((lsuDir("lsu0") + "/images/large@@.img").c_str(), &st));
    EXPECT_EQ(101ll * MiB, st.st_size);

    // Reads of the same sizes come back byte for byte; one larger than a
    // reply can carry is refused by the image itself.
    API::Image_var reader = server->openImageV13(4, "lsu0", imageDefinition("large"), kOpenRead);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(sameBytes(read(reader, i + 1, size[i], at[i]).get_buffer(), positioned(size[i], at[i])))
            << "read of " << size[i] << " bytes at " << at[i];
    }
    // A retried large read, of a length that is no multiple of a cache
    // line, gets the bytes of its first answer from the record's copy, even
    // after the image changed under it.
    const size_t odd = 3 * MiB + 37;
    const API::Bytes want = positioned(odd, 5);
    const auto answered = [&] {
        const API::Bytes got = read(reader, 4, odd, 5);
        return got.length() == odd && sameBytes(got.get_buffer(), want);
    };
    EXPECT_TRUE(answered());
    {
        std::fstream file(lsuDir("lsu0") + "/images/large@@.img", std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(5);
        const std::string changed(odd, 'x');
        file.write(changed.data(), static_cast<std::streamsize>(changed.size()));
    }
    EXPECT_TRUE(answered()) << "the retry";
    EXPECT_TRUE(raises(STS_EINVAL_ARG, [&] { read(reader, 5, 80 * MiB, 0); }));
}

TEST_F(LargeTransfers, TheCommandLineSetsTheLimit)
{
    start({}, {"-ORBgiopMaxMsgSize", "8388608"});
    EXPECT_TRUE(logHas("largest message taken is 8388608 bytes"));
    API::StorageServer_var server = openDisk(1, "limited");
    API::Image_var image = server->createImageV13(2, "lsu0", imageDefinition("limited"), 0);
    EXPECT_EQ(4 * MiB, write(image, 1, positioned(4 * MiB), 0));
    EXPECT_TRUE(raisesSystem([&] { write(image, 2, positioned(32 * MiB), 4 * MiB); }));
    EXPECT_TRUE(waitFor([&] { return logHas(kRefusal); }, 5s));
    EXPECT_EQ(4 * MiB, write(image, 2, positioned(4 * MiB), 4 * MiB));
}

} // namespace
