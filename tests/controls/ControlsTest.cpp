// The storage server's controls, passed through the plug-in's one control
// entry with the command the client names, over IIOP against the disk
// plug-in: each round trip with its retry, the plug-in's refusal of a
// command it does not know, and the answer of a server with no handle.
#include "ServiceClient.h"

#include <fstream>
#include <sstream>

using namespace keldtest;

namespace {

const int ENOENT_DISK = 2062001;
const int UNKNOWN_CONTROL = 2060016;   // an unknown control, as the contract says it
const CORBA::Short kUnknownCommand = 1;

std::string fileText(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class Controls : public ServiceFixture {
protected:
    void SetUp() override
    {
        root.writeFile("keldrive/keldrive.conf", "VERBOSE = 5\n");   // the dumps are debug lines
        start();
        server = openDisk(1, "controls");
    }

    std::string serverDir() const { return root.path() + "/keldrive/storage/" + hostName(); }
    API::UInt64 next() { return ++seq; }

    API::StorageServer_var server;
    API::UInt64 seq = 1;
};

TEST_F(Controls, EveryControlMakesItsRoundTripThroughTheDiskPlugin)
{
    const API::UInt64 timeoutSeq = next();
    for (int attempt = 0; attempt < 2; ++attempt) server->setRetryConnectTimeoutV12(timeoutSeq, 20001, 45);
    EXPECT_EQ("45", fileText(serverDir() + "/retry_timeout"));
    EXPECT_TRUE(raises(UNKNOWN_CONTROL, [&] { server->setRetryConnectTimeoutV12(next(), kUnknownCommand, 1); },
                       "fail to call sts_ioctl to set retry connect timeout"));

    API::MediaState media;
    media.flags = 3;
    media.lsu_name = CORBA::string_dup("lsu0");
    server->setMediaStateV12(next(), 20002, media);
    EXPECT_EQ("3", fileText(lsuDir("lsu0") + "/media_state"));
    EXPECT_TRUE(logHas("[dumpSetMedia]Setting Media flag: 3"));
    media.lsu_name = CORBA::string_dup("nowhere");
    EXPECT_TRUE(raises(ENOENT_DISK, [&] { server->setMediaStateV12(next(), 20002, media); },
                       "fail to call sts_ioctl to set media state."));

    // Restore control: what is set comes back, and a retry of the get
    // answers the first values.
    API::RestoreCntl cntl = API::RestoreCntl();
    cntl.frag_num = 4;
    cntl.first_blk = 1234567890123LL;
    cntl.tar_pid = 77;
    cntl.b_suspended = 1;
    server->setRestoreCntlV12(next(), 20003, cntl);
    EXPECT_TRUE(logHas("[dumpRestoreCntl]firstblk is 1234567890123"));
    const API::UInt64 getSeq = next();
    for (int attempt = 0; attempt < 2; ++attempt) {
        API::RestoreCntl_var back;
        server->getRestoreCntlV12(getSeq, 20005, back);
        EXPECT_EQ(4, back->frag_num);
        EXPECT_EQ(1234567890123LL, back->first_blk);
        EXPECT_EQ(77, back->tar_pid);
        EXPECT_EQ(1, back->b_suspended);
    }
    API::RestoreCntl_var none;
    API::FscpInfo_var info;
    EXPECT_TRUE(raises(UNKNOWN_CONTROL, [&] { server->getRestoreCntlV12(next(), kUnknownCommand, none); },
                       "fail to call sts_ioctl to get reposition"));
    EXPECT_TRUE(raises(UNKNOWN_CONTROL, [&] { server->getFscpInfo(next(), kUnknownCommand, info); },
                       "fail to call sts_ioctl to get reposition"));

    // Copy configuration and information; a failed set is raised without a
    // record, so its retry answers "unknown exception".
    API::FscpConfig config = API::FscpConfig();
    config.frag.copy_num = 2;
    config.maxfragsize = 1u << 30;
    server->setFscpConfig(next(), 20006, config);
    EXPECT_TRUE(logHas("[dumpFscpConfig]copy num is 2"));
    const API::UInt64 failing = next();
    EXPECT_TRUE(raises(UNKNOWN_CONTROL, [&] { server->setFscpConfig(failing, kUnknownCommand, config); },
                       "fail to call sts_ioctl to set fscp config"));
    EXPECT_TRUE(raises(2060058, [&] { server->setFscpConfig(failing, kUnknownCommand, config); }, "unknown exception"));
    server->getFscpInfo(next(), 20007, info);
    EXPECT_EQ(0u, info->totalbytescopied);
    EXPECT_STREQ("", info->reserved);

    const API::UInt64 statsSeq = next();
    for (int attempt = 0; attempt < 2; ++attempt) {
        API::DdupStatsInfo_var stats;
        server->getDDUPStatsV12(statsSeq, 20008, stats);
        EXPECT_EQ(0u, std::string(stats->msg).rfind("images 0;", 0)) << stats->msg;
        EXPECT_EQ(std::string(stats->msg).size(), stats->len);
    }

    // The unique id is made once and kept; the command is always 20004.
    CORBA::String_var id;
    CORBA::String_var again;
    const API::UInt64 idSeq = next();
    server->getLsuUniqueId(idSeq, "lsu0", id);
    server->getLsuUniqueId(idSeq, "lsu0", again);
    EXPECT_EQ(32u, std::string(id).size());
    EXPECT_STREQ(id, again);
    server->getLsuUniqueId(next(), "lsu0", again);
    EXPECT_STREQ(id, again);
    EXPECT_TRUE(raises(ENOENT_DISK, [&] { server->getLsuUniqueId(next(), "nowhere", again); },
                       "fail to call sts_ioctl to get LSU unique ID"));
}

TEST_F(Controls, AServerWithoutAHandleAnswersNotInitialised)
{
    // A server opened for cleanup only has no handle.
    API::StorageServer_var shell =
        ssm->openServerV12(2, session("shell"), diskServerName().c_str(), noCredential(), "", 1);
    API::UInt64 n = 0;
    API::RestoreCntl_var cntl;
    API::FscpInfo_var info;
    API::DdupStatsInfo_var stats;
    CORBA::String_var id;
    const std::vector<std::function<void()>> controls = {
        [&] { shell->setRetryConnectTimeoutV12(++n, 20001, 45); },
        [&] { shell->setMediaStateV12(++n, 20002, API::MediaState()); },
        [&] { shell->setRestoreCntlV12(++n, 20003, API::RestoreCntl()); },
        [&] { shell->setFscpConfig(++n, 20006, API::FscpConfig()); },
        [&] { shell->getDDUPStatsV12(++n, 20008, stats); },
        [&] { shell->getRestoreCntlV12(++n, 20005, cntl); },
        [&] { shell->getFscpInfo(++n, 20007, info); },
        [&] { shell->getLsuUniqueId(++n, "lsu0", id); },
    };
    for (size_t i = 0; i < controls.size(); ++i) {
        EXPECT_TRUE(raises(2060010, controls[i], "server handle is not initilized")) << "control " << i;
    }
    EXPECT_EQ(5u, logCount("]sts server handle is not init"));
    EXPECT_EQ(3u, logCount("]server handle is not initilized"));
    EXPECT_FALSE(logHas("dumpSetMedia")) << "nothing reached the plug-in";
    // The cleanup still works on it: an unknown id is simply done.
    shell->cleanupSessionV12(++n, "nobody");
    shell->cleanupSessionV12(n, "nobody");
    EXPECT_EQ(1u, logCount("there is no session handle associated with id nobody, break"));
}

} // namespace
