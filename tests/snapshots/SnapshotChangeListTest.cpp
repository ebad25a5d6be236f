// Snapshots end to end: the operator takes them with keldv-disk-snapshot,
// images change through the service in between, and a client reads the
// snapshots' properties and walks the change list between two of them over
// IIOP.
#include "DiskClient.h"

using namespace keldtest;

namespace {

API::SnapDefinitionV11 snap(const char* name)
{
    API::SnapDefinitionV11 d = API::SnapDefinitionV11();
    d.sd_snap_name = CORBA::string_dup(name);
    return d;
}

class Snapshots : public ServiceFixture {
protected:
    void SetUp() override
    {
        start();
        server = openDisk(1, "snapshots");
    }

    void take(const char* name)
    {
        const std::string cmd = std::string(KELD_DISK_SNAPSHOT_TOOL) + " create lsu0 " + name + " >/dev/null";
        ASSERT_EQ(0, std::system(cmd.c_str())) << name;
    }

    // Writes text at offset 0 of an image, made new when create.
    void put(const char* base, const std::string& text, bool create)
    {
        API::Image_var image = create ? server->createImageV13(next(), "lsu0", imageDefinition(base), 0)
                                      : server->openImageV13(next(), "lsu0", imageDefinition(base), kOpenWrite);
        API::Bytes data(static_cast<CORBA::ULong>(text.size()));
        data.length(static_cast<CORBA::ULong>(text.size()));
        std::copy(text.begin(), text.end(), data.get_buffer());
        API::UInt64 written = 0;
        image->writeImageV12(1, data, text.size(), 0, written);
        server->closeImageV12(next(), image, 0, 0);
    }

    // Every entry of the change list from base to diff, as "name+" (added),
    // "name-" (deleted) or "name*" (modified) with its size, until the end,
    // which comes as an exception, again on the next call.  npaths says how
    // many of the filter's patterns count.
    std::string changes(const char* base, const char* diff, const std::vector<const char*>& filter = {},
                        int npaths = -1)
    {
        API::FileList_var list = server->openSnapChangeListV11("lsu0", snap(base), snap(diff), nfsVolume(), 0);
        API::STSPathNameSeq patterns;
        patterns.length(static_cast<CORBA::ULong>(filter.size()));
        for (CORBA::ULong i = 0; i < patterns.length(); ++i) patterns[i].pn_name = CORBA::string_dup(filter[i]);
        const API::UInt32 n = npaths < 0 ? patterns.length() : static_cast<API::UInt32>(npaths);
        std::string out;
        API::FileAttrV11_var attr;
        for (;;) {
            try {
                list->listFileV11(n, patterns, attr);
            } catch (const API::STSError& e) {
                EXPECT_EQ(STS_ENO_MORE, e.stsErrorNo);
                break;
            }
            out += std::string(out.empty() ? "" : " ") + attr->object_name.in() + "+-*"[attr->object_state] +
                   std::to_string(attr->object_size);
        }
        EXPECT_TRUE(raises(STS_ENO_MORE, [&] { list->listFileV11(n, patterns, attr); }, "failed to list file"));
        // A closed list stays reachable; the plug-in refuses its handle once,
        // then the list answers by itself.
        server->closeSnapChangeListV11(list);
        EXPECT_FALSE(list->_non_existent());
        EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { list->closeSnapChangeListV11(); }, "failed to close snap change list"));
        EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { list->closeSnapChangeListV11(); }, "file list handle has not been opened"));
        return out;
    }

    API::UInt64 next() { return ++serverSeq; }

    API::StorageServer_var server;
    API::UInt64 serverSeq = 1;
};

TEST_F(Snapshots, TheChangeListBetweenTwoSnapshotsIsExactlyTheDifference)
{
    put("kept", "unchanged", true);
    put("changed", "first", true);
    put("removed", "gone soon", true);
    take("monday");
    put("changed", "SECOND", false);
    put("added", "new", true);
    server->deleteImageV13(next(), "lsu0", imageDefinition("removed"), 0);
    take("tuesday");

    EXPECT_EQ("added@@+3 changed@@*6 removed@@-9", changes("monday", "tuesday"));
    EXPECT_EQ("changed@@*6", changes("monday", "tuesday", {"chan*"}));
    EXPECT_EQ("added@@+3 changed@@*6 removed@@-9", changes("monday", "tuesday", {"chan*"}, 0)) << "npaths 0: no filter";
    // A pattern the sequence lacks is empty: it matches nothing, and nothing
    // is read past the sequence.
    EXPECT_EQ("removed@@-9", changes("monday", "tuesday", {"rem*"}, 2));
    EXPECT_EQ("added@@+3 changed@@+6 kept@@+9", changes("", "tuesday")) << "an empty base: all of diff is added";
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { changes("monday", "sunday"); }, "sts_open_snap_change_list failed"));


    API::SnapInformationV11_var info;
    EXPECT_EQ(0, server->getSnapPropByNameV11("lsu0", snap("monday"), info));
    EXPECT_STREQ("lsu0", info->sno_snap_lsu);
    EXPECT_EQ(9u + 5 + 9, info->sno_snap_size);
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { server->getSnapPropByNameV11("lsu0", snap("sunday"), info); },
                       "fail on call sts_get_snap_prop_byname"));
    EXPECT_EQ(STS_ECLAIM_VOLUME, server->claimVolumeV11(nfsVolume())) << "an answer, not an exception";
}

} // namespace
