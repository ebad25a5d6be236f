// The file list servant over the disk plug-in's snapshots, called through a
// reference in this process.
#include "ServantOrb.h"

#include "CallSequence.h"
#include "DiskStore.h"
#include "FileListImpl.h"
#include "ProxyLogger.h"
#include "StsLibrary.h"
#include "TestSupport.h"
#include "sts_plugin.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

API::SnapDefinitionV11 snap(const char* name)
{
    API::SnapDefinitionV11 d;
    d.sd_snap_name = CORBA::string_dup(name);
    d.sd_snap_type = API::STS_SNAPT_AUTO;
    d.sd_snap_flags = d.sd_snap_saveas = 0;
    d.sd_snap_isid.is_version = 0;
    return d;
}

class FileList : public ::testing::Test {
protected:
    void SetUp() override
    {
        char host[512] = {0};
        gethostname(host, sizeof(host) - 1);
        ASSERT_EQ(0, initStorageLibrary());
        sd.sd_id = "filelist-test";
        sd.sd_flags = 0xF;   // every severity reaches the log
        ASSERT_EQ(0, sts_api.load()->stsa_open_session(&sd, &ssn));
        ASSERT_EQ(0, sts_api.load()->stsa_open_server(ssn, (std::string("Disk:") + host).c_str(), nullptr, "", &svh));
        vol.vs_volume_type = API::STS_VOLUME_NFS;
        vol.v.v_nfs(API::NfsVolumeV11());
    }
    void TearDown() override
    {
        // The objects log through this test's logger: they go first.
        for (API::FileList_var& ref : made) {
            PortableServer::ObjectId_var id = testPoa()->reference_to_id(ref);
            testPoa()->deactivate_object(id.in());
        }
        sts_api.load()->stsa_close_handle(svh, 0);
        sts_api.load()->stsa_close_handle(ssn, 0);
        terminateStorageLibrary(&log, nullptr, "test", "ALARM");
    }

    // A new image "<base>@d@f" holding data, then a snapshot.
    void imageThenSnapshot(const char* base, const char* snapshot)
    {
        sts_lsu_t lsu = {};
        lsu.stl_server_handle = svh;
        std::strcpy(lsu.stl_lsu_name.sln_name, "lsu0");
        sts_image_def_t d = {};
        std::strcpy(d.img_basename, base);
        std::strcpy(d.img_date, "d");
        std::strcpy(d.img_fulldate, "f");
        sts_handle_t h = nullptr;
        ASSERT_EQ(0, sts_api.load()->stsa_create_image(&lsu, &d, 0, &h));
        ASSERT_EQ(0, sts_api.load()->stsa_close_handle(h, 0));
        ASSERT_EQ(0, std::system((KELD_DISK_SNAPSHOT_TOOL " create lsu0 " + std::string(snapshot) + " >/dev/null").c_str()));
    }
    // A new object, activated, opened on base..diff as the server does it.
    API::FileList_ptr open(const char* base, const char* diff)
    {
        FileListImpl* servant = new FileListImpl(testPoa(), svh, &log, sd);
        PortableServer::ServantBase_var owner = servant;
        made.push_back(servant->_this());
        servant->openSnapChangeListV11("lsu0", snap(base), snap(diff), vol, 0);
        return API::FileList::_duplicate(made.back());
    }
    static std::string next(API::FileList_ptr list, API::UInt32 npaths, std::vector<const char*> filter = {})
    {
        API::STSPathNameSeq seq;
        seq.length(static_cast<CORBA::ULong>(filter.size()));
        for (CORBA::ULong i = 0; i < seq.length(); ++i) seq[i].pn_name = CORBA::string_dup(filter[i]);
        API::FileAttrV11_var attr;
        list->listFileV11(npaths, seq, attr);
        return std::string(attr->object_name);
    }
    bool logHas(const std::string& text) const { return root.readLog().find(text) != std::string::npos; }

    keldtest::TempRoot root;
    ProxyLogger log{1};
    sts_session_def_t sd = {};
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
    API::VolumeSpecV11 vol;
    std::vector<API::FileList_var> made;
};

TEST_F(FileList, WalksOneEntryACallEndsWithTheErrorAndStaysAfterClose)
{
    imageThenSnapshot("a", "s1");
    imageThenSnapshot("b", "s2");
    imageThenSnapshot("c", "s3");
    API::FileList_var list = open("s1", "s3");
    EXPECT_TRUE(logHas("open snap change list completed"));
    bReceivedRequest = false;
    EXPECT_EQ("b@d@f", next(list, 0));
    EXPECT_TRUE(bReceivedRequest);
    EXPECT_EQ("c@d@f", next(list, 0, {"b@*"}));   // npaths 0: no filter
    const char* end = "failed to list file";
    EXPECT_TRUE(raises(2060013, [&] { next(list, 0); }, end));
    EXPECT_TRUE(raises(2060013, [&] { next(list, 0); }, end));   // nothing recorded: the plug-in answers again
    EXPECT_TRUE(logHas("list file completed"));
    EXPECT_TRUE(logHas("sts_list_file failed, sts return 2060013"));

    // npaths rules: a pattern the sequence lacks is empty and matches
    // nothing, and is never read from past the sequence.
    API::FileList_var filtered = open("s1", "s3");
    EXPECT_EQ("c@d@f", next(filtered, 2, {"c@*"}));
    EXPECT_TRUE(raises(2060013, [&] { next(filtered, 2, {"a@*"}); }, end));

    // The close has its own slot and leaves the object; a second close
    // reaches the plug-in with the same handle, which refuses it.
    bReceivedRequest = false;
    list->closeSnapChangeListV11();
    EXPECT_FALSE(bReceivedRequest);
    EXPECT_TRUE(logHas("close snap change list completed"));
    EXPECT_FALSE(list->_non_existent());
    EXPECT_TRUE(raises(2060014, [&] { list->closeSnapChangeListV11(); }, "failed to close snap change list"));
    EXPECT_TRUE(logHas("sts_snap_change_list failed, sts return 2060014"));
    EXPECT_TRUE(raises(2060014, [&] { list->closeSnapChangeListV11(); }, "file list handle has not been opened"));
    EXPECT_TRUE(logHas("file list handle is NULL"));
}

TEST_F(FileList, FailedOpenLeavesNothingToClose)
{
    API::FileList_var list;
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { list = open("", "nowhere"); }, "sts_open_snap_change_list failed"));
    EXPECT_TRUE(logHas("sts_open_snap_change_list failed, sts return 2062001"));
    list = API::FileList::_duplicate(made.back());
    EXPECT_TRUE(raises(2060014, [&] { list->closeSnapChangeListV11(); }, "file list handle has not been opened"));
    // The servant passes the plug-in's refusal of its null handle on.
    EXPECT_TRUE(raises(STSP_EBADHANDLE, [&] { next(list, 0); }, "failed to list file"));
}

} // namespace
