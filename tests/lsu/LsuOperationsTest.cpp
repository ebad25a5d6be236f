// The LSUs of a disk server seen from a client over IIOP: the list walk,
// the LSU and list factories and closes, the operations by name, pools and
// storage elements, each with the retry of a lost reply, and the refusals.
#include "ServiceClient.h"

#include <chrono>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/stat.h>

using namespace keldtest;
using namespace std::chrono_literals;

namespace {

const int ENOENT_DISK = 2062001;
const int EEXIST_DISK = 2062002;
const int EBUSY_DISK = 2062003;

API::LsuDefinitionV11 noDefinition()
{
    API::LsuDefinitionV11 def = {};
    def.lsn = CORBA::string_dup("NULL_LSUDEF");
    def.description = CORBA::string_dup("");
    def.config = CORBA::string_dup("");
    def.label = CORBA::string_dup("");
    return def;
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

TEST_F(LsuOperations, ListWalkGivesEachLsuOnceThenTheEndWithEveryStepRetried)
{
    API::LsuList_var list = server->openLsuListV12(1, noDefinition());
    std::set<std::string> seen;
    API::UInt64 seq = 1;
    for (;; ++seq) {
        CORBA::String_var name;
        const CORBA::Long rc = list->listLsuV12(seq, name);
        CORBA::String_var again;
        if (rc == 2060013) {
            EXPECT_STREQ("", name);
            // The end replays as a raised error: either means the end.
            EXPECT_TRUE(raises(2060013, [&] { list->listLsuV12(seq, again); }, "reach the end of the lsu list"));
            break;
        }
        ASSERT_EQ(0, rc);
        EXPECT_EQ(0, list->listLsuV12(seq, again)) << "a retry does not move the cursor";
        EXPECT_STREQ(name, again);
        EXPECT_TRUE(seen.insert(name.in()).second) << name.in() << " twice";
    }
    EXPECT_EQ((std::set<std::string>{"lsu0", "lsu1", "lsu2", "lsu3"}), seen);
    CORBA::String_var name;
    EXPECT_TRUE(raises(2060058, [&] { list->listLsuV12(2, name); }, "out of order call sequence"));
    EXPECT_EQ(2060013, list->listLsuV12(seq + 1, name)) << "past the end the plug-in answers again";

    // A sequenced close keeps the list for a retried close; the server's next
    // sequenced call takes it away and frees it.
    server->closeLsuListV12(2, list);
    server->closeLsuListV12(2, list);
    EXPECT_FALSE(list->_non_existent());
    EXPECT_EQ(0u, logCount("the object of LsuListImpl is destroyed here"));
    API::LsuList_var dynamic = server->openDynamicLsuListV12(3, "lsu0");
    EXPECT_TRUE(list->_non_existent());
    EXPECT_EQ(1u, logCount("the object of LsuListImpl is destroyed here"));
    EXPECT_EQ(0, dynamic->listLsuV12(1, name));
    server->closeLsuListV12(0, dynamic);
    EXPECT_TRUE(dynamic->_non_existent()) << "with number 0 at once";
    EXPECT_TRUE(raisesSystem([&] { server->closeLsuListV12(4, list); })) << "the list is gone";
}

TEST_F(LsuOperations, FactoriesReplayTheirObjectAndLeaveNothingBehindWhenTheyFail)
{
    API::Lsu_var lsu = server->openLsuV12(1, "lsu0");
    API::Lsu_var replay = server->openLsuV12(1, "lsu0");
    EXPECT_TRUE(lsu->_is_equivalent(replay));
    EXPECT_EQ(1u, logCount("new instance of object LsuImpl"));
    EXPECT_EQ(0, server->closeLsuV12(2, lsu));
    EXPECT_EQ(0, server->closeLsuV12(2, lsu));
    EXPECT_FALSE(lsu->_non_existent());

    // Failed opens, and the creates that always refuse: each replays its
    // recorded failure and none leaves a servant.
    const int failures = 500;
    for (API::UInt64 n = 3; n < 3 + failures; ++n) {
        ASSERT_TRUE(raises(ENOENT_DISK, [&] { server->openLsuV12(n, "no-such-lsu"); }, "fail to call sts_open_lsu"));
    }
    EXPECT_TRUE(lsu->_non_existent());
    EXPECT_TRUE(raises(ENOENT_DISK, [&] { server->openLsuV12(2 + failures, "no-such-lsu"); }));
    API::LsuDefinition def = {};
    def.lsn = CORBA::string_dup("new");
    def.description = CORBA::string_dup("");
    def.config = CORBA::string_dup("");
    API::UInt64 n = 10000;
    EXPECT_TRUE(raises(2060016, [&] { server->createLsuV12(n, def); }, "operation not supported"));
    EXPECT_TRUE(raises(2060016, [&] { server->createLsuV12(n, def); }, "operation not supported"));
    API::StorageElement se = {};
    se.ste_devname = CORBA::string_dup("");
    se.ste_config = CORBA::string_dup("");
    EXPECT_TRUE(raises(2060016, [&] { server->createLsuWithStorelV12(++n, def, se); }));
    API::LSUPool pool = {};
    pool.lp_name = CORBA::string_dup("p");
    EXPECT_TRUE(raises(2060016, [&] { server->createLsuWithPoolV12(++n, def, pool); }));
    const size_t made = logCount("new instance of object LsuImpl");
    EXPECT_EQ(1u + failures + 3, made) << "a retry makes no servant";
    EXPECT_EQ(made, logCount("the object of LsuImpl is destroyed here"));

    API::Lsu_var once = server->openLsuV12(0, "lsu1");
    EXPECT_EQ(0, server->closeLsuV12(0, once));
    EXPECT_TRUE(once->_non_existent());
}

TEST_F(LsuOperations, OperationsByNameWorkOnTheDiskAndReplayTheirAnswers)
{
    API::LsuInformationV11_var info;
    EXPECT_EQ(0, server->getLsuPropByNameV12(1, "lsu0", info));
    EXPECT_STREQ("lsu0", info->lsu_def.lsn);
    EXPECT_GT(info->lsu_capacity, 0u) << "capacity from the file system";
    API::LsuInformationV11_var replay;
    EXPECT_EQ(0, server->getLsuPropByNameV12(1, "lsu0", replay));
    EXPECT_EQ(info->lsu_capacity, replay->lsu_capacity);
    EXPECT_EQ(0, server->getLsuPropByNameV11("lsu1", info));
    EXPECT_STREQ("lsu1", info->lsu_def.lsn);

    EXPECT_EQ(0, server->labelLsuV12(2, "lsu1", "weekly"));
    EXPECT_EQ(0, server->labelLsuV12(2, "lsu1", "weekly"));
    CORBA::String_var found;
    EXPECT_EQ(0, server->findLsuV12(3, "weekly", found));
    EXPECT_STREQ("lsu1", found);
    CORBA::String_var again;
    EXPECT_EQ(0, server->findLsuV12(3, "weekly", again));
    EXPECT_STREQ("lsu1", again);
    EXPECT_EQ(2060013, server->findLsuV12(4, "nothing-by-that-name", found));
    EXPECT_TRUE(raises(2060013, [&] { server->findLsuV12(4, "nothing-by-that-name", found); }, "cannot find LSU"));

    CORBA::String_var mounted;
    EXPECT_EQ(0, server->mountLsuV12(5, "lsu2", "/mnt/backup", 0, "", mounted));
    EXPECT_STREQ("lsu2", mounted);
    CORBA::String_var remounted;
    EXPECT_EQ(0, server->mountLsuV12(5, "lsu2", "/mnt/backup", 0, "", remounted)) << "replayed, not mounted twice";
    EXPECT_STREQ("lsu2", remounted);
    EXPECT_TRUE(raises(EBUSY_DISK, [&] { server->mountLsuV12(6, "lsu2", "/mnt/other", 0, "", mounted); },
                       "fail to call sts_mount_lsu"));
    EXPECT_EQ(0, server->unmountLsuV12(7, "lsu2", "/mnt/backup"));
    EXPECT_EQ(0, server->unmountLsuV12(7, "lsu2", "/mnt/backup"));
    EXPECT_FALSE(exists(lsuDir("lsu2") + "/mount"));

    EXPECT_EQ(0, server->activateLsuV12(8, session("other-session"), "lsu3", 1));
    EXPECT_EQ("1\n", fileText(lsuDir("lsu3") + "/active"));
    EXPECT_EQ(0, server->deleteLsuV12(9, "lsu2"));
    EXPECT_EQ(0, server->deleteLsuV12(9, "lsu2")) << "replayed: a second delete would fail";
    EXPECT_FALSE(exists(lsuDir("lsu2")));
    EXPECT_TRUE(raises(ENOENT_DISK, [&] { server->deleteLsuV12(10, "lsu2"); }, "fail to call sts_delete_lsu"));

    // A name beyond its bound fails in marshalling and reaches no servant.
    const size_t deletes = logCount("got one request of deleting lsu");
    EXPECT_TRUE(raisesSystem([&] { server->deleteLsuV12(11, std::string(1025, 'l').c_str()); }));
    EXPECT_EQ(deletes, logCount("got one request of deleting lsu"));
}

TEST_F(LsuOperations, PoolsAndStorageElementsOfAnOpenLsu)
{
    API::Lsu_var lsu = server->openLsuV12(1, "lsu0");
    CORBA::Long ret = -1;
    CORBA::Long max = -1;
    API::StorageElementSeq_var elements = lsu->getStorelV12(1, 4, ret, max);
    ASSERT_EQ(4u, elements->length()) << "the length asked for, filled as far as the plug-in says";
    EXPECT_EQ(1, ret);
    EXPECT_EQ(1, max);
    EXPECT_EQ(lsuDir("lsu0"), std::string(elements[0].ste_devname));
    EXPECT_STREQ("", elements[1].ste_devname);
    CORBA::Long ret2 = -1;
    CORBA::Long max2 = -1;
    API::StorageElementSeq_var replay = lsu->getStorelV12(1, 4, ret2, max2);
    EXPECT_EQ(1, ret2);
    EXPECT_STREQ(elements[0].ste_devname, replay[0].ste_devname);
    EXPECT_TRUE(raisesSystem([&] { API::StorageElementSeq_var s = lsu->getStorelV12(2, -1, ret, max); }));

    EXPECT_EQ(0, lsu->allocateLsuV12(3, elements[0]));
    EXPECT_EQ(0, lsu->allocateLsuV12(3, elements[0])) << "replayed, not allocated twice";
    EXPECT_TRUE(raises(EEXIST_DISK, [&] { lsu->allocateLsuV12(4, elements[0]); }, "fail to call sts_alloc_lsu"));
    EXPECT_EQ(0, lsu->deallocateLsuV12(5, elements[0]));
    EXPECT_EQ(0, lsu->deallocateLsuV12(5, elements[0]));

    API::LSUPool pool;
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
    EXPECT_EQ(0, lsu->removePoolLsuV12(8, "nightly"));
    EXPECT_TRUE(raises(ENOENT_DISK, [&] { lsu->removePoolLsuV12(9, "nightly"); }, "fail to call sts_remove_pool_lsu"));

    // A closed LSU's handle is not handed to the plug-in again.
    EXPECT_EQ(0, lsu->closeLsuV12(10));
    EXPECT_TRUE(raises(2060014, [&] { lsu->closeLsuV12(11); }, "lsu has not been opened"));
}

TEST_F(LsuOperations, RefusedFormsAnswerNotSupportedAndConsumeNoNumber)
{
    API::Lsu_var lsu = server->openLsuV12(1, "lsu0");
    API::LsuList_var list = server->openLsuListV11(noDefinition());
    API::LsuDefinition def = {};
    def.lsn = CORBA::string_dup("x");
    def.description = CORBA::string_dup("");
    def.config = CORBA::string_dup("");
    API::StorageElement se = {};
    se.ste_devname = CORBA::string_dup("");
    se.ste_config = CORBA::string_dup("");
    API::LSUPool pool = {};
    pool.lp_name = CORBA::string_dup("p");
    CORBA::String_var text;
    CORBA::Long a = 0;
    CORBA::Long b = 0;
    API::LsuInformation_var oldInfo;
    API::LsuInformationV11_var info;
    const std::vector<std::function<void()>> refused = {
        [&] { server->openLsu("lsu0"); },
        [&] { server->createLsu(def); },
        [&] { server->createLsuWithStorel(def, se); },
        [&] { server->createLsuWithPool(def, pool); },
        [&] { server->deleteLsu("lsu0"); },
        [&] { server->labelLsu("lsu0", "l"); },
        [&] { server->findLsu("lsu0", text); },
        [&] { server->mountLsu("lsu0", "/m", 0, "", text); },
        [&] { server->unmountLsu("lsu0", "/m"); },
        [&] { server->activateLsu(session("s"), "lsu0", 1); },
        [&] { server->openDynamicLsuList("lsu0"); },
        [&] { server->getLsuPropByName("lsu0", oldInfo); },
        [&] { lsu->allocateLsu(se); },
        [&] { lsu->deallocateLsu(se); },
        [&] { lsu->addPoolLsu(pool); },
        [&] { lsu->removePoolLsu("p"); },
        [&] { API::LSUPoolSeq_var s = lsu->getPoolLsu(1, a, b); },
        [&] { API::StorageElementSeq_var s = lsu->getStorel(1, a, b); },
        [&] { lsu->closeLsu(); },
        [&] { lsu->getLsuProp(oldInfo); },
        [&] { lsu->getLsuPropV11(info); },
        [&] { lsu->getLsuPropV12(2, info); },
        [&] { list->listLsu(text); },
        [&] { list->closeLsuList(); },
    };
    for (size_t i = 0; i < refused.size(); ++i) {
        EXPECT_TRUE(raises(2060016, refused[i], "operation not supported")) << "form " << i;
    }
    // The refused getLsuPropV12 took no number: 2 is still new.
    pool.lp_name = CORBA::string_dup("fresh");
    EXPECT_EQ(0, lsu->addPoolLsuV12(2, pool));
    EXPECT_EQ(0, list->listLsuV12(1, text));
}

} // namespace
