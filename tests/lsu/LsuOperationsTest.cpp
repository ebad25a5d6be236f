// The LSUs of a disk server seen from a client over IIOP: the list walk,
// the LSU and list factories and closes, the operations by name, pools and
// storage elements, each with the retry of a lost reply, and the refusals.
#include "DiskClient.h"

#include <set>

using namespace keldtest;

namespace {

class LsuOperations : public ServiceFixture {
protected:
    void SetUp() override
    {
        root.writeFile("keldrive/keldrive.conf", "VERBOSE = 5\n");   // servant lines with debug
        start();
        server = openDisk(1, "lsus");   // makes the default server with lsu0
        for (const char* name : {"lsu1", "lsu2", "lsu3"}) makeLsu(name);
    }

    API::StorageServer_var server;
};

TEST_F(LsuOperations, ListsAndLsusReplayTheirObjectsCloseForARetryAndLeaveNothingBehind)
{
    API::LsuDefinitionV11 none = {};
    none.lsn = CORBA::string_dup("NULL_LSUDEF");
    API::LsuList_var list = server->openLsuListV12(1, none);
    std::set<std::string> seen;
    API::UInt64 seq = 1;
    for (;; ++seq) {
        CORBA::String_var name;
        CORBA::String_var again;
        if (list->listLsuV12(seq, name) == STS_ENO_MORE) {
            // The end replays as a raised error: either means the end.
            EXPECT_TRUE(raises(STS_ENO_MORE, [&] { list->listLsuV12(seq, again); }, "reach the end of the lsu list"));
            break;
        }
        EXPECT_EQ(0, list->listLsuV12(seq, again)) << "a retry does not move the cursor";
        EXPECT_STREQ(name, again);
        EXPECT_TRUE(seen.insert(name.in()).second) << name.in() << " twice";
    }
    EXPECT_EQ((std::set<std::string>{"lsu0", "lsu1", "lsu2", "lsu3"}), seen);
    CORBA::String_var name;
    EXPECT_TRUE(raises(STS_ESEQUENCE, [&] { list->listLsuV12(2, name); }, "out of order call sequence"));
    EXPECT_EQ(STS_ENO_MORE, list->listLsuV12(seq + 1, name)) << "past the end the plug-in answers again";

    // A sequenced close keeps the list for a retried close; the server's next
    // sequenced call takes it away and frees it.
    server->closeLsuListV12(2, list);
    server->closeLsuListV12(2, list);
    EXPECT_FALSE(list->_non_existent());
    API::LsuList_var dynamic = server->openDynamicLsuListV12(3, "lsu0");
    EXPECT_TRUE(list->_non_existent());
    EXPECT_EQ(1u, logCount("the object of LsuListImpl is destroyed here"));

    API::Lsu_var lsu = server->openLsuV12(5, "lsu0");
    API::Lsu_var replay = server->openLsuV12(5, "lsu0");
    EXPECT_TRUE(lsu->_is_equivalent(replay));
    EXPECT_EQ(1u, logCount("new instance of object LsuImpl"));
    EXPECT_EQ(0, server->closeLsuV12(6, lsu));
    EXPECT_EQ(0, server->closeLsuV12(6, lsu));
    // Failed opens, and the creates that always refuse: each replays its
    // recorded failure and none leaves a servant.
    const int failures = 500;
    for (API::UInt64 n = 7; n < 7 + failures; ++n) {
        ASSERT_TRUE(raises(DISK_ENOENT, [&] { server->openLsuV12(n, "no-such-lsu"); }, "fail to call sts_open_lsu"));
    }
    EXPECT_TRUE(lsu->_non_existent());
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { server->openLsuV12(6 + failures, "no-such-lsu"); }));
    API::LsuDefinition def = {};
    def.lsn = CORBA::string_dup("new");
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_TRUE(raises(STS_ENOT_SUPPORTED, [&] { server->createLsuV12(10000, def); }, "operation not supported"));
    }
    EXPECT_TRUE(raises(STS_ENOT_SUPPORTED, [&] { server->createLsuWithPoolV12(10001, def, API::LSUPool()); }));
    const size_t made = logCount("new instance of object LsuImpl");
    EXPECT_EQ(1u + failures + 2, made) << "a retry makes no servant";
    EXPECT_EQ(made, logCount("the object of LsuImpl is destroyed here"));
}

TEST_F(LsuOperations, OperationsByNamePoolsAndStorageElementsReplayTheirAnswers)
{
    API::LsuInformationV11_var info;
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(0, server->getLsuPropByNameV12(1, "lsu0", info));
        EXPECT_GT(info->lsu_capacity, 0u) << "capacity from the file system";
    }

    EXPECT_EQ(0, server->labelLsuV12(2, "lsu1", "weekly"));
    CORBA::String_var found;
    CORBA::String_var again;
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(0, server->findLsuV12(3, "weekly", found));
        EXPECT_STREQ("lsu1", found);
    }
    EXPECT_EQ(STS_ENO_MORE, server->findLsuV12(4, "nothing-by-that-name", found));
    EXPECT_TRUE(raises(STS_ENO_MORE, [&] { server->findLsuV12(4, "nothing-by-that-name", found); }, "cannot find LSU"));

    EXPECT_EQ(0, server->mountLsuV12(5, "lsu2", "/mnt/backup", 0, "", found));
    EXPECT_EQ(0, server->mountLsuV12(5, "lsu2", "/mnt/backup", 0, "", again)) << "replayed, not mounted twice";
    EXPECT_STREQ("lsu2", again);
    EXPECT_TRUE(raises(DISK_EBUSY, [&] { server->mountLsuV12(6, "lsu2", "/mnt/other", 0, "", found); },
                       "fail to call sts_mount_lsu"));
    EXPECT_EQ(0, server->unmountLsuV12(7, "lsu2", "/mnt/backup"));
    EXPECT_FALSE(exists(lsuDir("lsu2") + "/mount"));
    EXPECT_EQ(0, server->activateLsuV12(8, session("other-session"), "lsu3", 1));
    EXPECT_EQ("1\n", fileText(lsuDir("lsu3") + "/active"));
    EXPECT_EQ(0, server->deleteLsuV12(9, "lsu2"));
    EXPECT_EQ(0, server->deleteLsuV12(9, "lsu2")) << "replayed: a second delete would fail";
    EXPECT_FALSE(exists(lsuDir("lsu2")));
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { server->deleteLsuV12(10, "lsu2"); }, "fail to call sts_delete_lsu"));
    // A name beyond its bound fails in marshalling and reaches no servant.
    const size_t deletes = logCount("got one request of deleting lsu");
    EXPECT_TRUE(raisesSystem([&] { server->deleteLsuV12(11, std::string(1025, 'l').c_str()); }));
    EXPECT_EQ(deletes, logCount("got one request of deleting lsu"));

    API::Lsu_var lsu = server->openLsuV12(12, "lsu0");
    CORBA::Long ret = -1;
    CORBA::Long max = -1;
    API::StorageElementSeq_var elements;
    for (int attempt = 0; attempt < 2; ++attempt) {
        elements = lsu->getStorelV12(1, 4, ret, max);
        ASSERT_EQ(4u, elements->length()) << "the length asked for, filled as far as the plug-in says";
        EXPECT_EQ(1, ret);
        EXPECT_EQ(1, max);
        EXPECT_EQ(lsuDir("lsu0"), std::string(elements[0].ste_devname));
        EXPECT_STREQ("", elements[1].ste_devname);
    }
    EXPECT_TRUE(raisesSystem([&] { API::StorageElementSeq_var s = lsu->getStorelV12(2, -1, ret, max); }));
    const API::StorageElement element = elements[0];
    EXPECT_EQ(0, lsu->allocateLsuV12(3, element));
    EXPECT_EQ(0, lsu->allocateLsuV12(3, element)) << "replayed, not allocated twice";
    EXPECT_TRUE(raises(DISK_EEXIST, [&] { lsu->allocateLsuV12(4, element); }, "fail to call sts_alloc_lsu"));
    EXPECT_EQ(0, lsu->deallocateLsuV12(5, element));

    // A refused older form takes no number: 6 is still new after it.
    EXPECT_TRUE(raises(STS_ENOT_SUPPORTED, [&] { lsu->getLsuPropV12(6, info); }, "operation not supported"));
    API::LSUPool pool = API::LSUPool();
    pool.lp_name = CORBA::string_dup("nightly");
    pool.lp_priority = 7;
    EXPECT_EQ(0, lsu->addPoolLsuV12(6, pool));
    EXPECT_EQ(0, lsu->addPoolLsuV12(6, pool));
    API::LSUPoolSeq_var pools = lsu->getPoolLsuV12(7, 2, ret, max);
    ASSERT_EQ(2u, pools->length());
    EXPECT_EQ(1, ret);
    EXPECT_STREQ("nightly", pools[0].lp_name);
    EXPECT_EQ(7u, pools[0].lp_priority);
    EXPECT_EQ(0, lsu->removePoolLsuV12(8, "nightly"));
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { lsu->removePoolLsuV12(9, "nightly"); }, "fail to call sts_remove_pool_lsu"));

    // A closed LSU's handle is not handed to the plug-in again.
    EXPECT_EQ(0, lsu->closeLsuV12(10));
    EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { lsu->closeLsuV12(11); }, "lsu has not been opened"));
}

} // namespace
