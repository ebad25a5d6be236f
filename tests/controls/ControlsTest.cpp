// The storage server's controls, passed through the plug-in's one control
// entry with the command the client names, over IIOP against the disk
// plug-in: each round trip with its retry, the plug-in's refusal of a
// command it does not know, and the answer of a server with no handle.
#include "DiskClient.h"

using namespace keldtest;

namespace {

class Controls : public ServiceFixture {};

TEST_F(Controls, EachControlMakesItsRoundTripAndAServerWithoutAHandleRefusesThem)
{
    root.writeFile("keldrive/keldrive.conf", "VERBOSE = 5\n");   // the dumps are debug lines
    start();
    API::StorageServer_var server = openDisk(1, "controls");
    API::UInt64 seq = 1;
    const API::UInt64 timeoutSeq = ++seq;
    for (int attempt = 0; attempt < 2; ++attempt) {
        server->setRetryConnectTimeoutV12(timeoutSeq, STS_IOCTL_SET_RETRY_TIMEOUT, 45);
    }
    EXPECT_EQ("45", fileText(root.path() + "/keldrive/storage/" + hostName() + "/retry_timeout"));

    API::MediaState media;
    media.flags = 3;
    media.lsu_name = CORBA::string_dup("lsu0");
    server->setMediaStateV12(++seq, STS_IOCTL_SET_MEDIA_STATE, media);
    EXPECT_EQ("3", fileText(lsuDir("lsu0") + "/media_state"));
    media.lsu_name = CORBA::string_dup("nowhere");
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { server->setMediaStateV12(++seq, STS_IOCTL_SET_MEDIA_STATE, media); },
                       "fail to call sts_ioctl to set media state."));

    // Restore control: what is set comes back, and a retry of the get
    // answers the first values.
    API::RestoreCntl cntl = API::RestoreCntl();
    cntl.frag_num = 4;
    cntl.first_blk = 1234567890123LL;
    server->setRestoreCntlV12(++seq, STS_IOCTL_SET_RESTORE_CNTL, cntl);
    const API::UInt64 getSeq = ++seq;
    for (int attempt = 0; attempt < 2; ++attempt) {
        API::RestoreCntl_var back;
        server->getRestoreCntlV12(getSeq, STS_IOCTL_GET_RESTORE_CNTL, back);
        EXPECT_EQ(4, back->frag_num);
        EXPECT_EQ(1234567890123LL, back->first_blk);
    }
    API::FscpInfo_var info;

    // The plug-in refuses a command it does not know; a failed set is raised
    // without a record, so its retry answers "unknown exception".
    API::FscpConfig config = API::FscpConfig();
    config.frag.copy_num = 2;
    server->setFscpConfig(++seq, STS_IOCTL_SET_FSCP_CONFIG, config);
    EXPECT_TRUE(logHas("[dumpFscpConfig]copy num is 2"));
    const API::UInt64 failing = ++seq;
    EXPECT_TRUE(raises(STS_ENOT_SUPPORTED, [&] { server->setFscpConfig(failing, 1, config); },
                       "fail to call sts_ioctl to set fscp config"));
    EXPECT_TRUE(raises(STS_ESEQUENCE, [&] { server->setFscpConfig(failing, 1, config); }, "unknown exception"));
    server->getFscpInfo(++seq, STS_IOCTL_GET_FSCP_INFO, info);
    EXPECT_EQ(0u, info->totalbytescopied);
    EXPECT_STREQ("", info->reserved);

    const API::UInt64 statsSeq = ++seq;
    for (int attempt = 0; attempt < 2; ++attempt) {
        API::DdupStatsInfo_var stats;
        server->getDDUPStatsV12(statsSeq, STS_IOCTL_GET_DDUP_STATS, stats);
        EXPECT_EQ(0u, std::string(stats->msg).rfind("images 0;", 0)) << stats->msg;
    }
    CORBA::String_var id;
    const API::UInt64 idSeq = ++seq;
    for (int attempt = 0; attempt < 2; ++attempt) {
        server->getLsuUniqueId(idSeq, "lsu0", id);
        EXPECT_EQ(32u, std::string(id).size());
    }
    EXPECT_TRUE(raises(DISK_ENOENT, [&] { server->getLsuUniqueId(++seq, "nowhere", id); },
                       "fail to call sts_ioctl to get LSU unique ID"));

    // A server opened for cleanup only has no handle: its controls reach no
    // plug-in, and its cleanup still works (an unknown id is simply done).
    API::StorageServer_var shell = ssm->openServerV12(2, session("shell"), diskServerName().c_str(), noCredential(), "", 1);
    const char* noHandle = "server handle is not initilized";
    const size_t dumps = logCount("dumpSetMedia");
    EXPECT_TRUE(raises(STS_ENOT_INIT, [&] { shell->setMediaStateV12(1, STS_IOCTL_SET_MEDIA_STATE, media); }, noHandle));
    EXPECT_TRUE(raises(STS_ENOT_INIT, [&] { shell->getFscpInfo(2, STS_IOCTL_GET_FSCP_INFO, info); }, noHandle));
    EXPECT_EQ(dumps, logCount("dumpSetMedia"));
    shell->cleanupSessionV12(3, "nobody");
    shell->cleanupSessionV12(3, "nobody");
    EXPECT_EQ(1u, logCount("there is no session handle associated with id nobody, break"));
}

} // namespace
