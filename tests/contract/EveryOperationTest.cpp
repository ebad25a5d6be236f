// Every operation of the contract that the service serves, called once
// over IIOP on live objects of a service with the disk plug-in: each must
// reach its servant (no NO_IMPLEMENT, no OBJECT_NOT_EXIST) and none may take
// the service down, whatever its arguments; what it answers is tested with
// its capability.  The older forms share one refusal, shown on one form of
// each kind of object.  No client can reach an EventChannel (every open of
// the manager is refused), so it is left out.
#include "DiskClient.h"

#include <cstdlib>
#include <functional>
#include <vector>

using namespace keldtest;

namespace {

// The objects the calls go to, and places for their out arguments; what a
// call returns is given back at once.
struct Objects {
    API::StorageServerManager_var ssm;
    API::EventChannelManager_var ecm;
    API::RemoteLogger_var logger, logger2;
    API::StorageServer_var server, server2;
    API::Lsu_var lsu, lsu2;
    API::LsuList_var lsuList, lsuList2;
    API::Image_var image, image2;
    API::ImageList_var imageList, imageList2;
    API::FileList_var fileList;

    API::SessionDefinition ssd = session("every");
    CORBA::Long l = 0;
    API::UInt32 u32 = 0;
    API::UInt64 u64 = 0;
    API::OpIdV11 opid = 0;
    API::AioResultV11 aio11 = {};
    CORBA::String_var s;
    API::Bytes_var bytes;
};

struct Call {
    const char* name;
    std::function<void(Objects&)> run;
};

#define OP(...) {#__VA_ARGS__, [](Objects& c) { __VA_ARGS__; }}

// Older forms, one for each kind of object: each raises STS_ENOT_SUPPORTED.
const std::vector<Call> kRefused = {
    OP(CORBA::release(c.ssm->openServer(API::SessionDefinition(), "", API::Credential(), "", 0))),
    OP(CORBA::release(c.ecm->openEvchannelV12(0, API::SessionDefinition(), "", API::Credential(), "", 0, 0))),
    OP(API::SessionDefinition_var sd; API::LogMessage_var m; c.logger->getRemoteLog(sd, m)),
    OP(CORBA::release(c.server->openImageV9("", API::ImageDefinitionV9(), 0))),
    OP(API::LsuInformationV11_var i; c.lsu->getLsuPropV12(0, i)),
    OP(c.lsuList->listLsu(c.s)),
    OP(c.image->readImage(c.bytes, 1, 0, c.u64)),
    OP(API::ImageDefinitionV10_var d; c.imageList->listImageV12(0, d)),
};

// Everything served but the closes, which come last, children before parents.
const std::vector<Call> kCalls = {
    OP(CORBA::release(c.ssm->openServerV12(0, c.ssd, diskServerName().c_str(), noCredential(), "", 0))),
    OP(CORBA::release(c.ssm->openRmtLoggerV12(0, c.ssd))),
    OP(API::ServerInformation_var i; c.ssm->getServerPropByNameV12(0, c.ssd, diskServerName().c_str(), i)),
    OP(c.ssm->shutdownServerV12(0, c.ssd, "", noCredential(), 0)),
    OP(CORBA::release(c.ssm->createServerV12(0, c.ssd, "", noCredential(), "", API::STSHostSeq(), 0))),
    OP(CORBA::String_var s = c.ssm->getString()),
    OP(API::Bytes_var b = c.ssm->getPublicKey()),
    OP(CORBA::release(c.ecm->openRmtLoggerV12(0))),
    OP(c.ecm->increaseCounterV12(0)),
    OP(c.ecm->decreaseCounterV12(0)),
    OP(CORBA::String_var s = c.ecm->getString()),
    OP(API::Bytes_var b = c.ecm->getPublicKey()),
    OP(API::SessionDefinition_var sd; CORBA::String_var line; c.logger->getRemoteLogV12(0, sd, line)),

    OP(CORBA::release(c.server->openLsuListV11(API::LsuDefinitionV11()))),
    OP(CORBA::release(c.server->openLsuListV12(0, API::LsuDefinitionV11()))),
    OP(CORBA::release(c.server->createImageV13(0, "lsu0", imageDefinition("made"), 0))),
    OP(c.server->deleteImageV13(0, "lsu0", imageDefinition("made"), 0)),
    OP(CORBA::release(c.server->openImageV13(0, "lsu0", imageDefinition("img"), kOpenRead))),
    OP(CORBA::release(c.server->openImageListV12(0, "lsu0", 0))),
    OP(CORBA::release(c.server->openImageGroupListV13(0, "lsu0", imageDefinition("img"), 0))),
    OP(c.server->findLsuV12(0, "lsu0", c.s)),
    OP(c.server->labelLsuV12(0, "lsu0", "label")),
    OP(API::ImageInformationV13_var i; c.server->getImagePropByNameV13(0, "lsu0", imageDefinition("img"), i)),
    OP(c.server->getImageGroupByNameV13(0, "lsu0", imageDefinition("img"), c.u32)),
    OP(API::LsuInformationV11_var i; c.server->getLsuPropByNameV11("lsu0", i)),
    OP(API::LsuInformationV11_var i; c.server->getLsuPropByNameV12(0, "lsu0", i)),
    OP(API::ServerInformation_var i; c.server->getServerPropV12(0, i)),
    OP(CORBA::release(c.server->createLsuV12(0, API::LsuDefinition()))),
    OP(CORBA::release(c.server->openLsuV12(0, "lsu0"))),
    OP(c.server->deleteLsuV12(0, "nothing")),
    OP(c.server->activateLsuV12(0, c.ssd, "lsu0", 1)),
    OP(c.server->mountLsuV12(0, "lsu0", "/m", 0, "", c.s)),
    OP(c.server->unmountLsuV12(0, "lsu0", "/m")),
    OP(API::StorelInformation_var i; c.server->getStorelPropV12(0, "nothing", i)),
    OP(CORBA::release(c.server->createLsuWithStorelV12(0, API::LsuDefinition(), API::StorageElement()))),
    OP(CORBA::release(c.server->createLsuWithPoolV12(0, API::LsuDefinition(), API::LSUPool()))),
    OP(CORBA::release(c.server->openDynamicLsuListV12(0, "lsu0"))),
    OP(API::HostNameSeq_var h = c.server->getHostV12(0, 1, 0, c.l, c.l)),
    OP(API::StorageElementSeq_var e = c.server->getStorelV12(0, 1, c.l, c.l)),
    OP(CORBA::release(c.server->openTargetServerV12(0, diskServerName().c_str(), noCredential(), ""))),
    OP(API::DdupStatsInfo_var i; c.server->getDDUPStatsV12(0, STS_IOCTL_GET_DDUP_STATS, i)),
    OP(API::RestoreCntl_var i; c.server->getRestoreCntlV12(0, STS_IOCTL_GET_RESTORE_CNTL, i)),
    OP(c.server->setMediaStateV12(0, STS_IOCTL_SET_MEDIA_STATE, API::MediaState())),
    OP(c.server->setRestoreCntlV12(0, STS_IOCTL_SET_RESTORE_CNTL, API::RestoreCntl())),
    OP(c.server->cleanupSessionV12(0, "nobody")),
    OP(c.server->increaseJobCounterV12(0)),
    OP(c.server->decreaseJobCounterV12(0)),
    OP(c.server->setRetryConnectTimeoutV12(0, STS_IOCTL_SET_RETRY_TIMEOUT, 1)),
    OP(API::FscpInfo_var i; c.server->getFscpInfo(0, STS_IOCTL_GET_FSCP_INFO, i)),
    OP(c.server->setFscpConfig(0, STS_IOCTL_SET_FSCP_CONFIG, API::FscpConfig())),
    OP(c.server->getLsuUniqueId(0, "lsu0", c.s)),
    OP(c.server->getServerConfigV12(0, c.bytes, 4096, c.u32)),
    OP(c.server->setServerConfigV12(0, API::Bytes(), c.bytes, 0)),
    OP(c.server->deleteEventV11(API::EventV11())),
    OP(c.server->claimVolumeV11(nfsVolume())),
    OP(API::SnapInformationV11_var i; c.server->getSnapPropByNameV11("lsu0", API::SnapDefinitionV11(), i)),
    OP(CORBA::release(c.server->openSnapChangeListV11("lsu0", API::SnapDefinitionV11(), API::SnapDefinitionV11(), nfsVolume(), 0))),

    OP(c.lsu->allocateLsuV12(0, API::StorageElement())),
    OP(API::LsuInformationV11_var i; c.lsu->getLsuPropV11(i)),
    OP(c.lsu->deallocateLsuV12(0, API::StorageElement())),
    OP(c.lsu->addPoolLsuV12(0, API::LSUPool())),
    OP(API::LSUPoolSeq_var p = c.lsu->getPoolLsuV12(0, 1, c.l, c.l)),
    OP(c.lsu->removePoolLsuV12(0, "p")),
    OP(API::StorageElementSeq_var e = c.lsu->getStorelV12(0, 1, c.l, c.l)),
    OP(c.lsuList->listLsuV12(0, c.s)),

    OP(c.image->readImageV12(0, c.bytes, 1, 0, c.u64)),
    OP(c.image->asyncReadImageV11(1, 0, c.opid)),
    OP(c.image->writeImageV12(0, API::Bytes(), 0, 0, c.u64)),
    OP(c.image->asyncWriteImageV11(0, 0, c.opid)),
    OP(c.image->asyncWaitV11(c.opid, c.aio11)),
    OP(c.image->flushV12(0)),
    OP(c.image->readImageMetaV12(0, c.bytes, 1, 0, c.u64)),
    OP(c.image->writeImageMetaV12(0, API::Bytes(), 0, 0, c.u64)),
    OP(c.image->includeInImageV9(0, c.image2, 0, 0)),
    OP(c.image->includeInImageV12(0, 0, c.image2, 0, 0, c.u64)),
    OP(c.image->copyExtentV12(0, 0, c.image2, 0, 0, 0, c.u64)),
    OP(c.image->deleteFilesV12(0, API::StringSeq(), 0)),
    OP(API::ImageInformationV13_var i; c.image->getImagePropV13(0, i)),
    OP(c.image->getImageGroupV12(0, c.u32)),
    OP(c.image->extractFilesV12(0, "nowhere", 0)),
    OP(API::ImageDefinitionV13_var d; c.imageList->listImageV13(0, d)),
    OP(API::FileAttrV11_var a; c.fileList->listFileV11(0, API::STSPathNameSeq(), a)),

    OP(c.fileList->closeSnapChangeListV11()),
    OP(c.server->closeSnapChangeListV11(c.fileList)),
    OP(c.image->closeImageV12(0, 0, 0)),
    OP(c.server->closeImageV12(0, c.image2, 0, 0)),
    OP(c.imageList->closeImageListV12(0)),
    OP(c.server->closeImageListV12(0, c.imageList2)),
    OP(c.lsuList->closeLsuListV12(0)),
    OP(c.server->closeLsuListV12(0, c.lsuList2)),
    OP(c.lsu->closeLsuV12(0)),
    OP(c.server->closeLsuV12(0, c.lsu2)),
    OP(c.logger->closeRmtLoggerV12(0)),
    OP(c.ssm->closeRmtLoggerV12(0, c.ssd, c.logger2)),
    OP(c.server->closeServerV12(0)),
    OP(c.ssm->closeServerV12(0, c.ssd, c.server2)),
    OP(c.ssm->shutdownV12(0, c.ssd)),
};

class EveryOperation : public ServiceFixture {};

TEST_F(EveryOperation, EachReachesItsServantAndTheOlderFormsAreRefused)
{
    start();
    Objects o;
    o.ssm = API::StorageServerManager::_duplicate(ssm);
    CORBA::Object_var ecm = clientOrb()->string_to_object(corbaloc(port, "Proxy.EventChannelManager").c_str());
    o.ecm = API::EventChannelManager::_narrow(ecm);
    o.logger = o.ssm->openRmtLoggerV12(0, o.ssd);
    o.logger2 = o.ecm->openRmtLoggerV12(0);
    o.server = openDisk(0, "every");
    o.server2 = openDisk(0, "every");
    o.lsu = o.server->openLsuV12(0, "lsu0");
    o.lsu2 = o.server->openLsuV12(0, "lsu0");
    o.lsuList = o.server->openLsuListV12(0, API::LsuDefinitionV11());
    o.lsuList2 = o.server->openLsuListV12(0, API::LsuDefinitionV11());
    CORBA::release(o.server->createImageV13(0, "lsu0", imageDefinition("img"), 0));
    o.image = o.server->openImageV13(0, "lsu0", imageDefinition("img"), kOpenRead);
    o.image2 = o.server->openImageV13(0, "lsu0", imageDefinition("img"), kOpenRead);
    o.imageList = o.server->openImageListV12(0, "lsu0", 0);
    o.imageList2 = o.server->openImageListV12(0, "lsu0", 0);
    ASSERT_EQ(0, std::system(KELD_DISK_SNAPSHOT_TOOL " create lsu0 snap >/dev/null"));
    API::SnapDefinitionV11 snap = API::SnapDefinitionV11();
    snap.sd_snap_name = CORBA::string_dup("snap");
    o.fileList = o.server->openSnapChangeListV11("lsu0", API::SnapDefinitionV11(), snap, nfsVolume(), 0);

    for (const Call& call : kRefused) {
        EXPECT_TRUE(raises(STS_ENOT_SUPPORTED, [&] { call.run(o); }, "operation not supported")) << call.name;
    }
    // Older forms without a raises clause cannot carry the refusal: the
    // client sees the ORB's UNKNOWN.
    EXPECT_THROW(o.ssm->shutdown(), CORBA::UNKNOWN);
    EXPECT_THROW(o.ecm->increaseCounter(), CORBA::UNKNOWN);
    for (const Call& call : kCalls) {
        try {
            call.run(o);
        } catch (const CORBA::NO_IMPLEMENT&) {
            ADD_FAILURE() << call.name << " answers NO_IMPLEMENT";
        } catch (const CORBA::OBJECT_NOT_EXIST&) {
            ADD_FAILURE() << call.name << " did not reach its object";
        } catch (const CORBA::Exception&) {
        }
        if (&call != &kCalls.back()) {
            ASSERT_TRUE(service->running()) << "after " << call.name;
        }
    }
}

} // namespace
