// Every operation form of the contract that the service answers only with a
// refusal: the forms of older clients (before call numbers, or with older
// records) and the operations no plug-in of this service offers.  Each
// raises STSError 2060016 "operation not supported" through
// refuseOperation(): nothing is logged, recorded or touched, not even the
// idle timer's flag, so an old client's probe cannot keep the service
// alive.  The servants' own files hold only what they serve.
#include "EventChannelImpl.h"
#include "EventChannelManagerImpl.h"
#include "ImageImpl.h"
#include "ImageListImpl.h"
#include "LsuImpl.h"
#include "LsuListImpl.h"
#include "RemoteLoggerImpl.h"
#include "ServantSupport.h"
#include "StorageServerImpl.h"
#include "StorageServerManagerImpl.h"

// Defines Servant::Operation, whose parameters go unnamed, as a refusal.
#define REFUSED_FORM(Result, Servant, Operation, Parameters) \
    Result Servant::Operation Parameters { refuseOperation(); }

// StorageServerManagerImpl
REFUSED_FORM(API::StorageServer_ptr, StorageServerManagerImpl, openServer,
             (const API::SessionDefinition&, const char*, const API::Credential&, const char*, API::UInt32))
REFUSED_FORM(API::RemoteLogger_ptr, StorageServerManagerImpl, openRmtLogger, ())
REFUSED_FORM(void, StorageServerManagerImpl, shutdown, ())
REFUSED_FORM(CORBA::Long, StorageServerManagerImpl, getServerPropByName,
             (const API::SessionDefinition&, const char*, API::ServerInformation_out))
REFUSED_FORM(CORBA::Long, StorageServerManagerImpl, shutdownServer,
             (const API::SessionDefinition&, const char*, const API::Credential&, CORBA::Long))
REFUSED_FORM(API::StorageServer_ptr, StorageServerManagerImpl, createServer,
             (const API::SessionDefinition&, const char*, const API::Credential&, const char*,
              const API::STSHostSeq&, CORBA::Long))

// StorageServerImpl
REFUSED_FORM(void, StorageServerImpl, getDDUPStats, (CORBA::Short, API::DdupStatsInfo_out))
REFUSED_FORM(void, StorageServerImpl, getRestoreCntl, (CORBA::Short, API::RestoreCntl_out))
REFUSED_FORM(void, StorageServerImpl, setMediaState, (CORBA::Short, const API::MediaState&))
REFUSED_FORM(void, StorageServerImpl, setRestoreCntl, (CORBA::Short, const API::RestoreCntl&))
REFUSED_FORM(void, StorageServerImpl, cleanupSession, (const char*))
REFUSED_FORM(void, StorageServerImpl, increaseJobCounter, ())
REFUSED_FORM(void, StorageServerImpl, decreaseJobCounter, ())
REFUSED_FORM(API::Image_ptr, StorageServerImpl, createImageV9,
             (const char*, const API::ImageDefinitionV9&, CORBA::Long))
REFUSED_FORM(API::Image_ptr, StorageServerImpl, createImageV10,
             (const char*, const API::ImageDefinitionV10&, CORBA::Long))
REFUSED_FORM(API::Image_ptr, StorageServerImpl, createImageV12,
             (API::UInt64, const char*, const API::ImageDefinitionV10&, CORBA::Long))
REFUSED_FORM(void, StorageServerImpl, deleteImageV9, (const char*, const API::ImageDefinitionV9&, CORBA::Long))
REFUSED_FORM(void, StorageServerImpl, deleteImageV10, (const char*, const API::ImageDefinitionV10&, CORBA::Long))
REFUSED_FORM(void, StorageServerImpl, deleteImageV12,
             (API::UInt64, const char*, const API::ImageDefinitionV10&, CORBA::Long))
REFUSED_FORM(API::Image_ptr, StorageServerImpl, openImageV9, (const char*, const API::ImageDefinitionV9&, CORBA::Long))
REFUSED_FORM(API::Image_ptr, StorageServerImpl, openImageV10,
             (const char*, const API::ImageDefinitionV10&, CORBA::Long))
REFUSED_FORM(API::Image_ptr, StorageServerImpl, openImageV12,
             (API::UInt64, const char*, const API::ImageDefinitionV10&, CORBA::Long))
REFUSED_FORM(API::ImageList_ptr, StorageServerImpl, openImageList, (const char*, CORBA::Long))
REFUSED_FORM(API::ImageList_ptr, StorageServerImpl, openImageGroupListV9,
             (const char*, const API::ImageDefinitionV9&, CORBA::Long))
REFUSED_FORM(API::ImageList_ptr, StorageServerImpl, openImageGroupListV10,
             (const char*, const API::ImageDefinitionV10&, CORBA::Long))
REFUSED_FORM(API::ImageList_ptr, StorageServerImpl, openImageGroupListV12,
             (API::UInt64, const char*, const API::ImageDefinitionV10&, CORBA::Long))
REFUSED_FORM(CORBA::Long, StorageServerImpl, getImagePropByNameV9,
             (const char*, const API::ImageDefinitionV9&, API::ImageInformationV9_out))
REFUSED_FORM(CORBA::Long, StorageServerImpl, getImagePropByNameV10,
             (const char*, const API::ImageDefinitionV10&, API::ImageInformationV10_out))
REFUSED_FORM(CORBA::Long, StorageServerImpl, getImagePropByNameV12,
             (API::UInt64, const char*, const API::ImageDefinitionV10&, API::ImageInformationV10_out))
REFUSED_FORM(CORBA::Long, StorageServerImpl, getImageGroupByNameV9,
             (const char*, const API::ImageDefinitionV9&, API::UInt32&))
REFUSED_FORM(CORBA::Long, StorageServerImpl, getImageGroupByNameV10,
             (const char*, const API::ImageDefinitionV10&, API::UInt32&))
REFUSED_FORM(CORBA::Long, StorageServerImpl, getImageGroupByNameV12,
             (API::UInt64, const char*, const API::ImageDefinitionV10&, API::UInt32&))
REFUSED_FORM(CORBA::Long, StorageServerImpl, getServerProp, (API::ServerInformation_out))
REFUSED_FORM(CORBA::Long, StorageServerImpl, getStorelProp, (const char*, API::StorelInformation_out))
REFUSED_FORM(API::HostNameSeq*, StorageServerImpl, getHost, (CORBA::Long, CORBA::Long, CORBA::Long&, CORBA::Long&))
REFUSED_FORM(API::StorageElementSeq*, StorageServerImpl, getStorel, (CORBA::Long, CORBA::Long&, CORBA::Long&))
REFUSED_FORM(void, StorageServerImpl, getServerConfig, (API::Bytes_out, API::UInt32, API::UInt32&))
REFUSED_FORM(void, StorageServerImpl, setServerConfig, (const API::Bytes&, API::Bytes_out, API::UInt32))
REFUSED_FORM(void, StorageServerImpl, closeServer, ())
REFUSED_FORM(API::StorageServer_ptr, StorageServerImpl, openTargetServer,
             (const char*, const API::Credential&, const char*))
REFUSED_FORM(API::LsuList_ptr, StorageServerImpl, openLsuList, (const API::LsuDefinition&))
REFUSED_FORM(API::Lsu_ptr, StorageServerImpl, createLsu, (const API::LsuDefinition&))
REFUSED_FORM(API::Lsu_ptr, StorageServerImpl, openLsu, (const char*))
REFUSED_FORM(CORBA::Long, StorageServerImpl, deleteLsu, (const char*))
REFUSED_FORM(CORBA::Long, StorageServerImpl, activateLsu, (const API::SessionDefinition&, const char*, CORBA::Long))
REFUSED_FORM(CORBA::Long, StorageServerImpl, mountLsu,
             (const char*, const char*, CORBA::Long, const char*, CORBA::String_out))
REFUSED_FORM(CORBA::Long, StorageServerImpl, unmountLsu, (const char*, const char*))
REFUSED_FORM(CORBA::Long, StorageServerImpl, findLsu, (const char*, CORBA::String_out))
REFUSED_FORM(CORBA::Long, StorageServerImpl, labelLsu, (const char*, const char*))
REFUSED_FORM(CORBA::Long, StorageServerImpl, getLsuPropByName, (const char*, API::LsuInformation_out))
REFUSED_FORM(API::Lsu_ptr, StorageServerImpl, createLsuWithStorel,
             (const API::LsuDefinition&, const API::StorageElement&))
REFUSED_FORM(API::Lsu_ptr, StorageServerImpl, createLsuWithPool, (const API::LsuDefinition&, const API::LSUPool&))
REFUSED_FORM(API::LsuList_ptr, StorageServerImpl, openDynamicLsuList, (const char*))
// No form of event deletion is served anywhere.
REFUSED_FORM(void, StorageServerImpl, deleteEventV11, (const API::EventV11&))
REFUSED_FORM(void, StorageServerImpl, deleteEventV12, (API::UInt64, const API::EventV11&))

// LsuImpl
// Properties of an LSU are served by its server, by name.
REFUSED_FORM(CORBA::Long, LsuImpl, getLsuPropV11, (API::LsuInformationV11_out))
REFUSED_FORM(CORBA::Long, LsuImpl, getLsuPropV12, (API::UInt64, API::LsuInformationV11_out))
REFUSED_FORM(CORBA::Long, LsuImpl, getLsuProp, (API::LsuInformation_out))
REFUSED_FORM(CORBA::Long, LsuImpl, allocateLsu, (const API::StorageElement&))
REFUSED_FORM(CORBA::Long, LsuImpl, closeLsu, ())
REFUSED_FORM(CORBA::Long, LsuImpl, deallocateLsu, (const API::StorageElement&))
REFUSED_FORM(CORBA::Long, LsuImpl, addPoolLsu, (const API::LSUPool&))
REFUSED_FORM(API::LSUPoolSeq*, LsuImpl, getPoolLsu, (CORBA::Long, CORBA::Long&, CORBA::Long&))
REFUSED_FORM(CORBA::Long, LsuImpl, removePoolLsu, (const char*))
REFUSED_FORM(API::StorageElementSeq*, LsuImpl, getStorel, (CORBA::Long, CORBA::Long&, CORBA::Long&))

// LsuListImpl
REFUSED_FORM(CORBA::Long, LsuListImpl, listLsu, (API::LsuName_out))
REFUSED_FORM(void, LsuListImpl, closeLsuList, ())

// ImageImpl
// No asynchronous form is served, whichever version.
REFUSED_FORM(void, ImageImpl, asyncReadImageV11, (API::UInt64, API::UInt64, API::OpIdV11&))
REFUSED_FORM(void, ImageImpl, asyncWriteImageV11, (API::UInt64, API::UInt64, API::OpIdV11&))
REFUSED_FORM(void, ImageImpl, asyncWaitV11, (API::OpIdV11, API::AioResultV11&))
REFUSED_FORM(void, ImageImpl, includeInImageV10, (API::UInt64, API::Image_ptr, API::UInt64, API::UInt64, API::UInt64&))
REFUSED_FORM(void, ImageImpl, copyExtent,
             (API::UInt64, API::Image_ptr, API::UInt64, API::UInt64, CORBA::Long, API::UInt64&))
REFUSED_FORM(void, ImageImpl, readImageMeta, (API::Bytes_out, API::UInt64, API::UInt64, API::UInt64&))
REFUSED_FORM(void, ImageImpl, writeImageMeta, (const API::Bytes&, API::UInt64, API::UInt64, API::UInt64&))
REFUSED_FORM(CORBA::Long, ImageImpl, extractFiles, (const char*, CORBA::Long))
REFUSED_FORM(void, ImageImpl, deleteFiles, (const API::StringSeq&, CORBA::Long))
REFUSED_FORM(CORBA::Long, ImageImpl, getImageGroup, (API::UInt32&))
REFUSED_FORM(CORBA::Long, ImageImpl, getImagePropV9, (API::ImageInformationV9_out))
REFUSED_FORM(CORBA::Long, ImageImpl, getImagePropV10, (API::ImageInformationV10_out))
// Only the V13 record is served, although this form carries a number.
REFUSED_FORM(CORBA::Long, ImageImpl, getImagePropV12, (API::UInt64, API::ImageInformationV10_out))
REFUSED_FORM(void, ImageImpl, asyncReadImageV12, (API::UInt64, API::UInt64, API::UInt64, API::OpIdV11&))
REFUSED_FORM(void, ImageImpl, asyncWriteImageV12, (API::UInt64, API::UInt64, API::UInt64, API::OpIdV11&))
REFUSED_FORM(void, ImageImpl, asyncWaitV12, (API::UInt64, API::OpIdV11, API::AioResultV11&))
REFUSED_FORM(void, ImageImpl, asyncReadImage, (API::Bytes_out, API::UInt64, API::UInt64, API::AioResult_out))
REFUSED_FORM(void, ImageImpl, asyncWriteImage, (const API::Bytes&, API::UInt64, API::UInt64, API::AioResult_out))
REFUSED_FORM(void, ImageImpl, asyncWait, (API::AioResult_out))
REFUSED_FORM(void, ImageImpl, readImage, (API::Bytes_out, API::UInt64, API::UInt64, API::UInt64&))
REFUSED_FORM(void, ImageImpl, writeImage, (const API::Bytes&, API::UInt64, API::UInt64, API::UInt64&))
REFUSED_FORM(void, ImageImpl, flush, ())
REFUSED_FORM(void, ImageImpl, closeImage, (CORBA::Long, CORBA::Long))

// ImageListImpl
REFUSED_FORM(void, ImageListImpl, closeImageList, ())
REFUSED_FORM(CORBA::Long, ImageListImpl, listImageV9, (API::ImageDefinitionV9_out))
REFUSED_FORM(CORBA::Long, ImageListImpl, listImageV10, (API::ImageDefinitionV10_out))
// Only the V13 record is served, although this form carries a number.
REFUSED_FORM(CORBA::Long, ImageListImpl, listImageV12, (API::UInt64, API::ImageDefinitionV10_out))

// EventChannelManagerImpl
REFUSED_FORM(API::EventChannel_ptr, EventChannelManagerImpl, openEvchannel,
             (const API::SessionDefinition&, const char*, const API::Credential&, const char*, const API::Event&,
              CORBA::Long))
REFUSED_FORM(API::EventChannel_ptr, EventChannelManagerImpl, openEvchannelV11,
             (const API::SessionDefinition&, const char*, const API::Credential&, const char*, API::Int32,
              API::EvSeqNoV11))
REFUSED_FORM(API::EventChannel_ptr, EventChannelManagerImpl, openEvchannelV12,
             (API::UInt64, const API::SessionDefinition&, const char*, const API::Credential&, const char*,
              API::Int32, API::EvSeqNoV11))
REFUSED_FORM(API::RemoteLogger_ptr, EventChannelManagerImpl, openRmtLogger, ())
REFUSED_FORM(void, EventChannelManagerImpl, increaseCounter, ())
REFUSED_FORM(void, EventChannelManagerImpl, decreaseCounter, ())

// EventChannelImpl
REFUSED_FORM(void, EventChannelImpl, closeEvchannel, ())
REFUSED_FORM(CORBA::Long, EventChannelImpl, getEvent, (API::Event_out))
REFUSED_FORM(CORBA::Long, EventChannelImpl, getEventV11, (API::EventV11&))
REFUSED_FORM(CORBA::Long, EventChannelImpl, getEventV12, (API::UInt64, API::EventV11&))
REFUSED_FORM(CORBA::Long, EventChannelImpl, deleteEvent, (const API::Event&))
REFUSED_FORM(CORBA::Long, EventChannelImpl, deleteEventV12, (API::UInt64, const API::Event&))
REFUSED_FORM(CORBA::Long, EventChannelImpl, getPushEvent, (API::Event_out))
REFUSED_FORM(CORBA::Long, EventChannelImpl, getEvcId, ())

// RemoteLoggerImpl
REFUSED_FORM(CORBA::Long, RemoteLoggerImpl, getRemoteLog, (API::SessionDefinition_out, API::LogMessage_out))
REFUSED_FORM(void, RemoteLoggerImpl, closeRmtLogger, ())

// Creating an LSU is not served either, but the refusal comes later: the
// server's create operations build and activate an LSU servant first, and
// its create records the refusal in the server's record, where a retry
// finds it.
namespace {

[[noreturn]] void refuseRecorded(CallSequence& cs)
{
    failRecorded(cs, STS_ENOT_SUPPORTED, "operation not supported");
}

} // namespace

void LsuImpl::createLsu(const API::LsuDefinition&, CallSequence& cs)
{
    refuseRecorded(cs);
}

void LsuImpl::createLsuWithStorel(const API::LsuDefinition&, const API::StorageElement&, CallSequence& cs)
{
    refuseRecorded(cs);
}

void LsuImpl::createLsuWithPool(const API::LsuDefinition&, const API::LSUPool&, CallSequence& cs)
{
    refuseRecorded(cs);
}
