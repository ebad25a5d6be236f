// What a restore job asks before it reads, over IIOP against the disk
// plug-in, each with the retry of a lost reply: the images of an LSU and of
// a group, their properties, deletion, the server's own properties.
#include "DiskClient.h"

using namespace keldtest;

namespace {

class ImageCatalogue : public ServiceFixture {
protected:
    void SetUp() override
    {
        start();
        server = openDisk(1, "catalogue");
        makeLsu("empty");
    }

    // An image of `size` bytes in lsu0, left open when `keep`.
    API::Image_ptr image(const char* base, const char* date, size_t size, bool keep = false)
    {
        API::Image_var img = server->createImageV13(next(), "lsu0", imageDefinition(base, date), 0);
        API::UInt64 written = 0;
        img->writeImageV12(1, positioned(size), size, 0, written);
        if (!keep) server->closeImageV12(next(), img, 0, 0);
        return img._retn();
    }

    // The whole walk: "base@date" of each entry, each step retried; the end
    // is an answer, and its retry raises it.
    std::vector<std::string> walk(API::ImageList_ptr list)
    {
        std::vector<std::string> seen;
        for (API::UInt64 seq = 1;; ++seq) {
            API::ImageDefinitionV13_var def;
            API::ImageDefinitionV13_var again;
            const CORBA::Long rc = list->listImageV13(seq, def);
            if (rc == STS_ENO_MORE) {
                EXPECT_STREQ("", def->base_name);
                EXPECT_TRUE(raises(STS_ENO_MORE, [&] { list->listImageV13(seq, again); }, "reach the end of the image list"));
                return seen;
            }
            EXPECT_EQ(0, rc);
            EXPECT_EQ(0, list->listImageV13(seq, again));
            EXPECT_STREQ(def->base_name, again->base_name) << "a retry does not move the cursor";
            seen.push_back(std::string(def->base_name) + "@" + def->shortdate.in());
        }
    }

    API::UInt64 next() { return ++serverSeq; }

    API::StorageServer_var server;
    API::UInt64 serverSeq = 1;
};

TEST_F(ImageCatalogue, ListsPropertiesDeletionStorageElementsHostsAndConfigurationWithTheirRetries)
{
    API::Image_var growing = image("full", "d1", 1000, true);
    CORBA::release(image("full", "d2", 10));
    CORBA::release(image("incr", "d1", 10));

    API::ImageList_var all = server->openImageListV12(next(), "lsu0", 0);
    EXPECT_EQ((std::vector<std::string>{"full@d1", "full@d2", "incr@d1"}), walk(all));
    server->closeImageListV12(next(), all);
    API::ImageList_var group = server->openImageGroupListV13(next(), "lsu0", imageDefinition("full"), 0);
    EXPECT_EQ((std::vector<std::string>{"full@d1", "full@d2"}), walk(group));
    group->closeImageListV12(100);
    EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { server->closeImageListV12(next(), group); }, "image list has not been opened"));
    API::ImageList_var empty = server->openImageListV12(next(), "empty", 0);
    EXPECT_TRUE(walk(empty).empty());
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { server->openImageListV12(next(), "no-such-lsu", 0); },
                       "fail to call sts_open_image_list"));

    // Properties by name: a retry answers the first size although the image
    // grew since; a new number sees the growth.
    API::ImageInformationV13_var info;
    const API::UInt64 propSeq = next();
    EXPECT_EQ(0, server->getImagePropByNameV13(propSeq, "lsu0", imageDefinition("full", "d1"), info));
    EXPECT_EQ(1000u, info->imo_size);
    API::UInt64 written = 0;
    growing->writeImageV12(2, positioned(24), 24, 1000, written);
    EXPECT_EQ(0, server->getImagePropByNameV13(propSeq, "lsu0", imageDefinition("full", "d1"), info));
    EXPECT_EQ(1000u, info->imo_size);
    EXPECT_EQ(0, server->getImagePropByNameV13(next(), "lsu0", imageDefinition("full", "d1"), info));
    EXPECT_EQ(1024u, info->imo_size);
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { server->getImagePropByNameV13(next(), "lsu0", imageDefinition("none"), info); },
                       "fail to call sts_get_image_prop_byname"));

    // A deletion replays its answer: a second deletion would fail.
    const std::string incr = lsuDir("lsu0") + "/images/incr@d1@.img";
    ASSERT_TRUE(exists(incr));
    const API::UInt64 deleteSeq = next();
    server->deleteImageV13(deleteSeq, "lsu0", imageDefinition("incr", "d1"), 0);
    server->deleteImageV13(deleteSeq, "lsu0", imageDefinition("incr", "d1"), 0);
    EXPECT_FALSE(exists(incr));
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { server->deleteImageV13(next(), "lsu0", imageDefinition("incr", "d1"), 0); },
                       "fail to call sts_delete_image"));

    // The group by name takes a number but does not keep it: the same
    // number asks the plug-in again.
    API::UInt32 count = 0;
    const API::UInt64 groupSeq = next();
    EXPECT_EQ(0, server->getImageGroupByNameV13(groupSeq, "lsu0", imageDefinition("full"), count));
    EXPECT_EQ(2u, count);
    server->deleteImageV13(0, "lsu0", imageDefinition("full", "d2"), 0);
    EXPECT_EQ(0, server->getImageGroupByNameV13(groupSeq, "lsu0", imageDefinition("full"), count));
    EXPECT_EQ(1u, count);

    // The server's properties, storage elements, hosts and configuration.
    const API::UInt64 serverPropSeq = next();
    for (int attempt = 0; attempt < 2; ++attempt) {
        API::ServerInformation_var serverInfo;
        EXPECT_EQ(0, server->getServerPropV12(serverPropSeq, serverInfo));
        EXPECT_EQ(diskServerName(), serverInfo->srv_server.in());
    }
    API::StorelInformation_var storel;
    EXPECT_EQ(0, server->getStorelPropV12(next(), lsuDir("empty").c_str(), storel));
    EXPECT_STREQ("empty", storel->sti_owner);
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { server->getStorelPropV12(next(), "/nowhere", storel); },
                       "fail to call sts_get_storel_prop"));
    // The sequences have the length asked for; a retry gets the storage
    // elements with their counts, the hosts without.
    CORBA::Long ret = -1;
    CORBA::Long max = -1;
    const API::UInt64 storelSeq = next();
    for (int attempt = 0; attempt < 2; ++attempt) {
        ret = max = -1;
        API::StorageElementSeq_var elements = server->getStorelV12(storelSeq, 3, ret, max);
        ASSERT_EQ(3u, elements->length());
        EXPECT_EQ(2, ret);
        EXPECT_EQ(2, max);
        EXPECT_EQ(lsuDir("empty"), elements[0].ste_devname.in());
    }
    const API::UInt64 hostSeq = next();
    for (const CORBA::Long counts : {1, 0}) {
        API::HostNameSeq_var hosts = server->getHostV12(hostSeq, 3, 0, ret, max);
        ASSERT_EQ(3u, hosts->length());
        EXPECT_EQ(hostName(), hosts[0].in());
        EXPECT_EQ(counts, ret);
        EXPECT_EQ(counts, max);
    }

    // A buffer of the length the server says comes whole; a shorter one is
    // told that length, also on a retry.
    API::Bytes_var config;
    API::UInt32 needed = 0;
    API::UInt32 told = 0;
    server->getServerConfigV12(next(), config, 65536, needed);
    server->getServerConfigV12(next(), config, needed, told);
    ASSERT_EQ(needed, config->length());
    EXPECT_EQ(needed - 1, std::string(reinterpret_cast<const char*>(config->get_buffer())).size());
    const API::UInt64 shortSeq = next();
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_TRUE(raisesVal(STS_EBUFFER_SMALL, needed, [&] { server->getServerConfigV12(shortSeq, config, needed - 1, told); }));
    }
}

} // namespace
