// The file list servant over the disk plug-in's snapshots, called through a
// reference in this process.
#include "ServantOrb.h"

#include "CallSequence.h"
#include "DiskStore.h"
#include "FileListImpl.h"
#include "ProxyLogger.h"
#include "sts_plugin.h"
#include "StsLibrary.h"
#include "TestSupport.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

std::string diskServer()
{
    char host[512] = {0};
    gethostname(host, sizeof(host) - 1);
    return std::string("Disk:") + host;
}

API::SnapDefinitionV11 snap(const char* name)
{
    API::SnapDefinitionV11 d;
    d.sd_snap_name = CORBA::string_dup(name);
    d.sd_snap_type = API::STS_SNAPT_AUTO;
    d.sd_snap_flags = 0;
    d.sd_snap_saveas = 0;
    d.sd_snap_isid.is_version = 0;
    return d;
}

API::STSPathNameSeq patterns(std::vector<const char*> texts)
{
    API::STSPathNameSeq seq;
    seq.length(static_cast<CORBA::ULong>(texts.size()));
    for (CORBA::ULong i = 0; i < seq.length(); ++i) seq[i].pn_name = CORBA::string_dup(texts[i]);
    return seq;
}

class FileList : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, initStorageLibrary());
        sd.sd_id = "filelist-test";
        sd.sd_flags = 0xF;   // every severity reaches the log
        ASSERT_EQ(0, sts_api->stsa_open_session(&sd, &ssn));
        ASSERT_EQ(0, sts_api->stsa_open_server(ssn, diskServer().c_str(), nullptr, "", &svh));
        vol.vs_volume_type = API::STS_VOLUME_NFS;
        API::NfsVolumeV11 nfs;
        vol.v.v_nfs(nfs);
    }
    void TearDown() override
    {
        // The objects use this test's log: they go before it does.
        for (API::FileList_var& ref : made) {
            PortableServer::ObjectId_var id = testPoa()->reference_to_id(ref);
            testPoa()->deactivate_object(id.in());
        }
        sts_api->stsa_close_handle(svh, 0);
        sts_api->stsa_close_handle(ssn, 0);
        terminateStorageLibrary(&log, nullptr, "test", "ALARM");
    }

    void image(const char* base, const std::string& data, bool replace = false)
    {
        sts_lsu_t lsu = {};
        lsu.stl_server_handle = svh;
        std::strcpy(lsu.stl_lsu_name.sln_name, "lsu0");
        sts_image_def_t d = {};
        std::strcpy(d.img_basename, base);
        std::strcpy(d.img_date, "d");
        std::strcpy(d.img_fulldate, "f");
        sts_handle_t h = nullptr;
        ASSERT_EQ(0, replace ? sts_api->stsa_open_image(&lsu, &d, DISK_OPEN_WRITE, &h)
                             : sts_api->stsa_create_image(&lsu, &d, 0, &h));
        sts_uint64_t done = 0;
        ASSERT_EQ(0, sts_api->stsa_write_image(h, nullptr, const_cast<char*>(data.data()), data.size(), 0, &done));
        ASSERT_EQ(0, sts_api->stsa_close_handle(h, 0));
    }
    void take(const char* name)
    {
        ASSERT_EQ(0, std::system((KELD_DISK_SNAPSHOT_TOOL " create lsu0 " + std::string(name) + " >/dev/null").c_str()));
    }
    // A new list object, activated, opened on base..diff.
    API::FileList_ptr open(const char* base, const char* diff, FileListImpl** servant = nullptr)
    {
        FileListImpl* impl = new FileListImpl(testPoa(), svh, &log, sd);
        PortableServer::ServantBase_var owner = impl;
        API::FileList_var ref = impl->_this();
        made.push_back(API::FileList::_duplicate(ref));
        if (servant != nullptr) *servant = impl;
        impl->openSnapChangeListV11("lsu0", snap(base), snap(diff), vol, 0);
        return ref._retn();
    }
    std::string next(API::FileList_ptr list, API::UInt32 npaths = 0, const API::STSPathNameSeq& filter = {})
    {
        API::FileAttrV11_var attr;
        EXPECT_EQ(0, list->listFileV11(npaths, filter, attr));
        return std::string(attr->object_name) + (attr->object_state == API::STS_DIFF_OBJECT_STATE_ADDED ? " added" : " changed");
    }
    static ::testing::AssertionResult atEnd(API::FileList_ptr list, API::UInt32 npaths = 0,
                                            const API::STSPathNameSeq& filter = {})
    {
        return raises(2060013, [&] {
            API::FileAttrV11_var attr;
            list->listFileV11(npaths, filter, attr);
        }, "failed to list file");
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
    image("a", "first");
    image("b", "kept");
    take("s1");
    image("a", "FIRST", true);
    image("c", "new");
    take("s2");

    API::FileList_var list = open("s1", "s2");
    EXPECT_TRUE(logHas("open snap change list completed"));
    bReceivedRequest = false;
    EXPECT_EQ("a@d@f changed", next(list));
    EXPECT_TRUE(bReceivedRequest);
    EXPECT_EQ("c@d@f added", next(list));
    EXPECT_TRUE(atEnd(list));
    EXPECT_TRUE(atEnd(list));   // nothing recorded: a repeat asks the plug-in again
    EXPECT_TRUE(logHas("list file completed"));
    EXPECT_TRUE(logHas("sts_list_file failed, sts return 2060013"));

    // The count rules: a second pattern the sequence lacks is empty and
    // matches nothing, and is never read from past the sequence.
    API::FileList_var filtered = open("s1", "s2");
    EXPECT_EQ("c@d@f added", next(filtered, 2, patterns({"c@*"})));
    EXPECT_TRUE(atEnd(filtered, 2, patterns({"a@*", "b@*"})));
    API::FileList_var unfiltered = open("s1", "s2");
    EXPECT_EQ("a@d@f changed", next(unfiltered, 0, patterns({"c@*"})));   // npaths 0: no filter
    API::FileList_var empty = open("s2", "s2");
    EXPECT_TRUE(atEnd(empty));

    // The close has its own slot; the object stays, and a second close
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
    FileListImpl* servant = nullptr;
    API::FileList_var list;
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { list = open("", "nowhere", &servant); }, "sts_open_snap_change_list failed"));
    EXPECT_TRUE(logHas("sts_open_snap_change_list failed, sts return 2062001"));
    EXPECT_TRUE(logHas("FileListImpl reset"));
    list = servant->_this();
    EXPECT_TRUE(raises(2060014, [&] { list->closeSnapChangeListV11(); }, "file list handle has not been opened"));
    // The plug-in refuses the null handle; the servant passes its number on.
    EXPECT_TRUE(raises(STSP_EBADHANDLE, [&] {
        API::FileAttrV11_var attr;
        list->listFileV11(0, API::STSPathNameSeq(), attr);
    }, "failed to list file"));
}

} // namespace
