// Work on images the service does without moving their data over the
// wire: copies and includes of extents between two images, metadata,
// extraction into another LSU, deletion of files, and an image's
// properties and group, over IIOP against the disk plug-in, each with the
// retry of a lost reply.
#include "ServiceClient.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

using namespace keldtest;

namespace {

const int ENOENT_DISK = 2062001;
const int EEXIST_DISK = 2062002;
const int EBUSY_DISK = 2062003;
const int EREADONLY_DISK = 2062008;
const CORBA::Short kFscpInfo = 20007;
const size_t kSize = 256 * 1024;

API::Bytes pattern(size_t size, unsigned seed)
{
    API::Bytes b(static_cast<CORBA::ULong>(size));
    b.length(static_cast<CORBA::ULong>(size));
    for (CORBA::ULong i = 0; i < b.length(); ++i) b[i] = static_cast<CORBA::Octet>((i * 7 + seed) % 251);
    return b;
}

std::string fileText(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

class ImageCopy : public ServiceFixture {
protected:
    void SetUp() override
    {
        root.writeFile("keldrive/keldrive.conf", "VERBOSE = 5\n");   // the copy counter's debug lines
        start();
        server = openDisk(1, "copy");
        makeLsu("archive");
        // The source: written, closed, and open again for reading.
        API::Image_var writer = server->createImageV13(next(), "lsu0", imageDefinition("source"), 0);
        API::UInt64 written = 0;
        writer->writeImageV12(1, data, kSize, 0, written);
        server->closeImageV12(next(), writer, 0, 0);
        source = server->openImageV13(next(), "lsu0", imageDefinition("source"), kOpenRead);
        target = server->createImageV13(next(), "lsu0", imageDefinition("target"), 0);
    }

    API::Bytes readBack(API::Image_ptr image, API::UInt64 seq, size_t length, size_t offset)
    {
        API::Bytes_var bytes;
        API::UInt64 read = 0;
        image->readImageV12(seq, bytes, length, offset, read);
        EXPECT_EQ(length, read);
        return bytes.in();
    }

    API::UInt64 bytesCopied()
    {
        API::FscpInfo_var info;
        server->getFscpInfo(next(), kFscpInfo, info);
        return info->totalbytescopied;
    }

    API::UInt64 next() { return ++serverSeq; }

    const API::Bytes data = pattern(kSize, 1);
    API::StorageServer_var server;
    API::UInt64 serverSeq = 1;
    API::Image_var source;
    API::Image_var target;
};

TEST_F(ImageCopy, ExtentsCopyAndIncludeByteExactAndARetryCopiesOnce)
{
    API::UInt64 copied = 0;
    target->copyExtentV12(1, 0, source, 0, kSize, 0, copied);
    EXPECT_EQ(kSize, copied);
    copied = 0;
    target->copyExtentV12(1, 0, source, 0, kSize, 0, copied);
    EXPECT_EQ(kSize, copied) << "the retry answers the first count";
    EXPECT_EQ(kSize, bytesCopied()) << "and copies nothing again";
    target->copyExtentV12(2, kSize + 4096, source, 1000, 4096, 0, copied);
    EXPECT_EQ(4096u, copied);
    API::UInt64 included = 0;
    target->includeInImageV12(3, 2 * kSize, source, 17, 100, included);
    EXPECT_EQ(100u, included);
    EXPECT_EQ(kSize + 4096 + 100, bytesCopied());
    EXPECT_TRUE(logHas("copy counter is 1"));
    EXPECT_TRUE(logHas("sts_copy_extent returned, copy counter is 0"));

    const API::Bytes back = readBack(target, 4, 2 * kSize + 100, 0);
    EXPECT_EQ(0, std::memcmp(back.get_buffer(), data.get_buffer(), kSize));
    EXPECT_TRUE(std::all_of(back.get_buffer() + kSize, back.get_buffer() + kSize + 4096,
                            [](CORBA::Octet b) { return b == 0; })) << "a hole stays a hole";
    EXPECT_EQ(0, std::memcmp(back.get_buffer() + kSize + 4096, data.get_buffer() + 1000, 4096));
    EXPECT_EQ(0, std::memcmp(back.get_buffer() + 2 * kSize, data.get_buffer() + 17, 100));

    // Into an image opened for reading: the copy raises the plug-in's
    // number plainly (raises() takes no STSError_val), the include always
    // with its count, replayed on a retry.
    EXPECT_TRUE(raises(EREADONLY_DISK, [&] { source->copyExtentV12(1, 0, target, 0, 10, 0, copied); },
                       "sts_copy_extent failed"));
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_TRUE(raisesVal(EREADONLY_DISK, 0, [&] { source->includeInImageV12(2, 0, target, 0, 10, included); }));
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

TEST_F(ImageCopy, MetadataPropertiesGroupExtractionAndDeletionOfFiles)
{
    const API::Bytes meta = pattern(300, 9);
    API::UInt64 written = 0;
    for (int attempt = 0; attempt < 2; ++attempt) {
        target->writeImageMetaV12(1, meta, 300, 0, written);
        EXPECT_EQ(300u, written);
    }
    API::Bytes_var metaBack;
    API::UInt64 read = 0;
    target->readImageMetaV12(2, metaBack, 400, 0, read);
    EXPECT_EQ(300u, read);
    ASSERT_EQ(400u, metaBack->length());
    EXPECT_EQ(0, std::memcmp(metaBack->get_buffer(), meta.get_buffer(), 300));
    EXPECT_TRUE(raises(EREADONLY_DISK, [&] { source->writeImageMetaV12(1, meta, 300, 0, written); },
                       "fail to call sts_write_image_meta"));

    // Properties: a retry answers the first size though the image grew
    // (through another object of it).
    API::ImageInformationV13_var info;
    EXPECT_EQ(0, target->getImagePropV13(3, info));
    EXPECT_EQ(0u, info->imo_size);
    EXPECT_STREQ("target", info->imo_def.base_name);
    EXPECT_EQ(2u, info->imo_status) << "incomplete while written";
    API::Image_var other = server->openImageV13(next(), "lsu0", imageDefinition("target"), kOpenWrite);
    other->writeImageV12(1, data, 1000, 0, written);
    EXPECT_EQ(0, target->getImagePropV13(3, info));
    EXPECT_EQ(0u, info->imo_size);
    EXPECT_EQ(0, target->getImagePropV13(4, info));
    EXPECT_EQ(1000u, info->imo_size);
    API::Image_var sibling = server->createImageV13(next(), "lsu0", imageDefinition("source", "later"), 0);
    API::UInt32 group = 0;
    EXPECT_EQ(0, source->getImageGroupV12(2, group));
    EXPECT_EQ(2u, group) << "both images named source";

    // Extraction copies the image whole into another LSU; the retry
    // replays, a new number finds it there.
    const std::string extracted = lsuDir("archive") + "/images/source@@.img";
    EXPECT_EQ(0, source->extractFilesV12(3, "archive", 0));
    EXPECT_EQ(0, source->extractFilesV12(3, "archive", 0));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(data.get_buffer()), kSize), fileText(extracted));
    EXPECT_TRUE(raises(EEXIST_DISK, [&] { source->extractFilesV12(4, "archive", 0); }, "fail to call sts_extract_files "));
    EXPECT_TRUE(raises(ENOENT_DISK, [&] { source->extractFilesV12(5, "nowhere", 0); }));

    // Deletion of files by image name, through any image of the LSU.
    API::StringSeq names;
    names.length(1);
    names[0] = CORBA::string_dup("source@later@");
    const std::string victim = lsuDir("lsu0") + "/images/source@later@.img";
    ASSERT_TRUE(exists(victim));
    target->deleteFilesV12(5, names, 1);
    target->deleteFilesV12(5, names, 1);
    EXPECT_FALSE(exists(victim));
    EXPECT_TRUE(raises(2060001, [&] { target->deleteFilesV12(6, names, 2); }, "file count does not match the names sent"));
    names[0] = CORBA::string_dup("target@@");
    EXPECT_TRUE(raises(EBUSY_DISK, [&] { target->deleteFilesV12(7, names, 1); }, "fail to call sts_delete_files"));
    EXPECT_TRUE(exists(lsuDir("lsu0") + "/images/target@@.img"));
}

} // namespace
