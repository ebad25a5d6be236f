// One open storage server seen by one client session.  It owns the storage
// session and the server handle, makes the LSU, image and list servants, and
// carries the control operations.  Opening takes one use of the storage
// library; the close gives it back.
#ifndef KELD_PROXY_STORAGESERVERIMPL_H
#define KELD_PROXY_STORAGESERVERIMPL_H

#include "SequencedServant.h"
#include "ServantSite.h"
#include "ServantSupport.h"
#include "SessionId.h"
#include "sts_api.h"

#include "Proxy.hh"

#include <functional>
#include <vector>

class ProxyLogger;
class SessionManager;

class StorageServerImpl : public SequencedServant<POA_API::StorageServer> {
public:
    // sd, when given, is copied whole (a target server shares its parent's
    // session definition); parentGate is the gate of the server that opens
    // this one as its target, which closes it with itself.
    StorageServerImpl(PortableServer::POA_ptr pobjPOA, ProxyLogger* plog, SessionManager* sm,
                      const sts_session_def_t* sd, std::shared_ptr<ServantGate> parentGate = nullptr);
    ~StorageServerImpl() override;

    void closeServerV12(API::UInt64 callsequence) override;
    API::LsuList_ptr openLsuListV11(const API::LsuDefinitionV11& lsudef) override;
    API::LsuList_ptr openLsuListV12(API::UInt64 callsequence, const API::LsuDefinitionV11& lsudef) override;
    void closeLsuListV12(API::UInt64 callsequence, API::LsuList_ptr lsulist_to_close) override;
    API::Image_ptr createImageV13(API::UInt64 callsequence, const char* lsu, const API::ImageDefinitionV13& imd, CORBA::Long flags) override;
    void deleteImageV13(API::UInt64 callsequence, const char* lsuname, const API::ImageDefinitionV13& imdIn, CORBA::Long asyncflag) override;
    API::Image_ptr openImageV13(API::UInt64 callsequence, const char* lsu, const API::ImageDefinitionV13& imd, CORBA::Long mode) override;
    void closeImageV12(API::UInt64 callsequence, API::Image_ptr img_to_close, CORBA::Long flag, CORBA::Long reserved) override;
    API::ImageList_ptr openImageListV12(API::UInt64 callsequence, const char* lsu, CORBA::Long type) override;
    void closeImageListV12(API::UInt64 callsequence, API::ImageList_ptr imagelist_to_close) override;
    API::ImageList_ptr openImageGroupListV13(API::UInt64 callsequence, const char* lsu, const API::ImageDefinitionV13& imd, CORBA::Long groupType) override;
    CORBA::Long findLsuV12(API::UInt64 callsequence, const char* wanted_lsu, CORBA::String_out found_lsu) override;
    CORBA::Long labelLsuV12(API::UInt64 callsequence, const char* lsuName, const char* label) override;
    CORBA::Long getImagePropByNameV13(API::UInt64 callsequence, const char* lsuName, const API::ImageDefinitionV13& imdIn, API::ImageInformationV13_out imgInfoOut) override;
    CORBA::Long getImageGroupByNameV13(API::UInt64 callsequence, const char* lsuName, const API::ImageDefinitionV13& imdIn, API::UInt32& groupOut) override;
    CORBA::Long getLsuPropByNameV11(const char* lsuName, API::LsuInformationV11_out lsuInfo) override;
    CORBA::Long getLsuPropByNameV12(API::UInt64 callsequence, const char* lsuName, API::LsuInformationV11_out lsuInfo) override;
    CORBA::Long getServerPropV12(API::UInt64 callsequence, API::ServerInformation_out svrInfoOut) override;
    API::Lsu_ptr createLsuV12(API::UInt64 callsequence, const API::LsuDefinition& lsud) override;
    API::Lsu_ptr openLsuV12(API::UInt64 callsequence, const char* lsuname) override;
    CORBA::Long closeLsuV12(API::UInt64 callsequence, API::Lsu_ptr lsu_to_close) override;
    CORBA::Long deleteLsuV12(API::UInt64 callsequence, const char* lsuname) override;
    CORBA::Long activateLsuV12(API::UInt64 callsequence, const API::SessionDefinition& ssd, const char* lsuname, CORBA::Long activateflag) override;
    CORBA::Long mountLsuV12(API::UInt64 callsequence, const char* lsuname, const char* path, CORBA::Long mode, const char* spr_key, CORBA::String_out mountedlsu) override;
    CORBA::Long unmountLsuV12(API::UInt64 callsequence, const char* lsuname, const char* spr_key) override;
    CORBA::Long getStorelPropV12(API::UInt64 callsequence, const char* storelName, API::StorelInformation_out storelInfoOut) override;
    API::Lsu_ptr createLsuWithStorelV12(API::UInt64 callsequence, const API::LsuDefinition& lsud, const API::StorageElement& storel) override;
    API::Lsu_ptr createLsuWithPoolV12(API::UInt64 callsequence, const API::LsuDefinition& lsud, const API::LSUPool& lp) override;
    API::LsuList_ptr openDynamicLsuListV12(API::UInt64 callsequence, const char* lsu) override;
    API::HostNameSeq* getHostV12(API::UInt64 callsequence, CORBA::Long nhost, CORBA::Long returnall, CORBA::Long& rethost, CORBA::Long& maxhost) override;
    API::StorageElementSeq* getStorelV12(API::UInt64 callsequence, CORBA::Long nstorel, CORBA::Long& retstorel, CORBA::Long& maxstorel) override;
    API::StorageServer_ptr openTargetServerV12(API::UInt64 callsequence, const char* name, const API::Credential& cred, const char* inf) override;
    void getDDUPStatsV12(API::UInt64 callsequence, CORBA::Short cmd, API::DdupStatsInfo_out info) override;
    void getRestoreCntlV12(API::UInt64 callsequence, CORBA::Short cmd, API::RestoreCntl_out cntlOut) override;
    void setMediaStateV12(API::UInt64 callsequence, CORBA::Short cmd, const API::MediaState& state) override;
    void setRestoreCntlV12(API::UInt64 callsequence, CORBA::Short cmd, const API::RestoreCntl& cntl) override;
    void cleanupSessionV12(API::UInt64 callsequence, const char* id) override;
    void increaseJobCounterV12(API::UInt64 callsequence) override;
    void decreaseJobCounterV12(API::UInt64 callsequence) override;
    void setRetryConnectTimeoutV12(API::UInt64 callsequence, CORBA::Short cmd, API::Int32 retryConnectTimeout) override;
    void getFscpInfo(API::UInt64 callsequence, CORBA::Short cmd, API::FscpInfo_out infoOut) override;
    void setFscpConfig(API::UInt64 callsequence, CORBA::Short cmd, const API::FscpConfig& fscpconfig) override;
    void getLsuUniqueId(API::UInt64 callsequence, const char* lsu, API::LsuUniqueId_out id) override;
    void getServerConfigV12(API::UInt64 callsequence, API::Bytes_out buf, API::UInt32 u32BufLen, API::UInt32& u32MaxLen) override;
    void setServerConfigV12(API::UInt64 callsequence, const API::Bytes& buf, API::Bytes_out msgbuf, API::UInt32 u32MsgBufLen) override;
    CORBA::Long claimVolumeV11(const API::VolumeSpecV11& vol_spec) override;
    CORBA::Long getSnapPropByNameV11(const char* lsuName, const API::SnapDefinitionV11& snapIn, API::SnapInformationV11_out snapInfoOut) override;
    API::FileList_ptr openSnapChangeListV11(const char* lsu, const API::SnapDefinitionV11& base_snap_def, const API::SnapDefinitionV11& diff_snap_def, const API::VolumeSpecV11& volume_object, API::UInt32 diff_flag) override;
    void closeSnapChangeListV11(API::FileList_ptr filelist_to_close) override;

    // Refused, each with 2060016 (RefusedForms.cpp).
    void closeServer() override;
    API::LsuList_ptr openLsuList(const API::LsuDefinition& lsudef) override;
    API::Image_ptr createImageV9(const char* lsu, const API::ImageDefinitionV9& imd, CORBA::Long flags) override;
    API::Image_ptr createImageV10(const char* lsu, const API::ImageDefinitionV10& imd, CORBA::Long flags) override;
    API::Image_ptr createImageV12(API::UInt64 callsequence, const char* lsu, const API::ImageDefinitionV10& imd, CORBA::Long flags) override;
    void deleteImageV9(const char* lsu, const API::ImageDefinitionV9& imd, CORBA::Long asyncflag) override;
    void deleteImageV10(const char* lsu, const API::ImageDefinitionV10& imd, CORBA::Long asyncflag) override;
    void deleteImageV12(API::UInt64 callsequence, const char* lsu, const API::ImageDefinitionV10& imd, CORBA::Long asyncflag) override;
    API::Image_ptr openImageV9(const char* lsu, const API::ImageDefinitionV9& imd, CORBA::Long mode) override;
    API::Image_ptr openImageV10(const char* lsu, const API::ImageDefinitionV10& imd, CORBA::Long mode) override;
    API::Image_ptr openImageV12(API::UInt64 callsequence, const char* lsu, const API::ImageDefinitionV10& imd, CORBA::Long mode) override;
    API::ImageList_ptr openImageList(const char* lsu, CORBA::Long type) override;
    API::ImageList_ptr openImageGroupListV9(const char* lsu, const API::ImageDefinitionV9& imd, CORBA::Long groupType) override;
    API::ImageList_ptr openImageGroupListV10(const char* lsu, const API::ImageDefinitionV10& imd, CORBA::Long groupType) override;
    API::ImageList_ptr openImageGroupListV12(API::UInt64 callsequence, const char* lsu, const API::ImageDefinitionV10& imd, CORBA::Long groupType) override;
    CORBA::Long findLsu(const char* wanted_lsu, CORBA::String_out found_lsu) override;
    CORBA::Long labelLsu(const char* lsu, const char* label) override;
    CORBA::Long getImagePropByNameV9(const char* lsu, const API::ImageDefinitionV9& imd, API::ImageInformationV9_out imi) override;
    CORBA::Long getImagePropByNameV10(const char* lsu, const API::ImageDefinitionV10& imd, API::ImageInformationV10_out imi) override;
    CORBA::Long getImagePropByNameV12(API::UInt64 callsequence, const char* lsu, const API::ImageDefinitionV10& imd, API::ImageInformationV10_out imi) override;
    CORBA::Long getImageGroupByNameV9(const char* lsu, const API::ImageDefinitionV9& imd, API::UInt32& group) override;
    CORBA::Long getImageGroupByNameV10(const char* lsu, const API::ImageDefinitionV10& imd, API::UInt32& group) override;
    CORBA::Long getImageGroupByNameV12(API::UInt64 callsequence, const char* lsu, const API::ImageDefinitionV10& imd, API::UInt32& group) override;
    CORBA::Long getLsuPropByName(const char* lsuName, API::LsuInformation_out lsuInfo) override;
    CORBA::Long getServerProp(API::ServerInformation_out svrInfo) override;
    API::Lsu_ptr createLsu(const API::LsuDefinition& lsud) override;
    API::Lsu_ptr openLsu(const char* lsu) override;
    CORBA::Long deleteLsu(const char* lsuname) override;
    CORBA::Long activateLsu(const API::SessionDefinition& ssd, const char* lsu, CORBA::Long activateflag) override;
    CORBA::Long mountLsu(const char* lsu, const char* path, CORBA::Long mode, const char* spr_key, CORBA::String_out mountedlsu) override;
    CORBA::Long unmountLsu(const char* lsu, const char* spr_key) override;
    CORBA::Long getStorelProp(const char* storelName, API::StorelInformation_out storelInfo) override;
    API::Lsu_ptr createLsuWithStorel(const API::LsuDefinition& lsud, const API::StorageElement& se) override;
    API::Lsu_ptr createLsuWithPool(const API::LsuDefinition& lsud, const API::LSUPool& lp) override;
    API::LsuList_ptr openDynamicLsuList(const char* lsu) override;
    API::HostNameSeq* getHost(CORBA::Long nhost, CORBA::Long returnall, CORBA::Long& rethost, CORBA::Long& maxhost) override;
    API::StorageElementSeq* getStorel(CORBA::Long nstorel, CORBA::Long& retstorel, CORBA::Long& maxstorel) override;
    API::StorageServer_ptr openTargetServer(const char* name, const API::Credential& cred, const char* inf) override;
    void getDDUPStats(CORBA::Short cmd, API::DdupStatsInfo_out info) override;
    void getRestoreCntl(CORBA::Short cmd, API::RestoreCntl_out cntl) override;
    void setMediaState(CORBA::Short cmd, const API::MediaState& state) override;
    void setRestoreCntl(CORBA::Short cmd, const API::RestoreCntl& cntl) override;
    void cleanupSession(const char* id) override;
    void increaseJobCounter() override;
    void decreaseJobCounter() override;
    void getServerConfig(API::Bytes_out buf, API::UInt32 buflen, API::UInt32& maxlen) override;
    void setServerConfig(const API::Bytes& buf, API::Bytes_out msgbuf, API::UInt32 msgbuflen) override;
    void deleteEventV11(const API::EventV11& ev) override;
    void deleteEventV12(API::UInt64 callsequence, const API::EventV11& ev) override;

    // Not remote: the manager's open, create and close.
    void openServer(const API::SessionDefinition& ssd, const char* name, const API::Credential& cred,
                    const char* inf, API::UInt32 flag, CallSequence& cs);
    void createServer(const API::SessionDefinition& ssd, const char* name, const API::Credential& cred,
                      const char* inf, const API::STSHostSeq& hostsseq, CORBA::Long nhost);
    void closeServerX(CallSequence& cs);

    void setHandle(sts_server_handle_t svh) { m_svh = svh; }
    void setIsTargetServer(bool isTarget) { m_bIsTargetServer = isTarget; }

private:
    ServantSite site(const char* szWho) const { return {m_plog, &m_sd, szWho}; }
    // What the children made now keep of this server.
    ServerLink link() const { return {m_svh, m_gate}; }
    // Registers the open server with its session, so that a cleanup of the
    // session or the end of the process closes it if no client does.
    void registerOpen();
    // What the gate runs when the server is severed: its children are
    // closed by then; the server handle, the session and the library use go.
    void abandon();
    // The LSU of this server with that name, cut to the field.
    sts_lsu_t lsuNamed(const char* lsuname) const;
    class LsuImpl* newLsu();
    class LsuListImpl* newLsuList();
    class ImageImpl* newImage();
    class ImageListImpl* newImageList();
    struct ControlTexts;
    template <typename Payload>
    void runControl(const ControlTexts& texts, API::UInt64 callsequence, sts_uint32_t cmd,
                    const std::function<void(CallSequence&)>& replay, Payload payload);
    void closeWhenUnused(const ServantSite& here, const char* id, sts_handle_t handle);
    void changeJobCounter(API::UInt64 callsequence, const char* szWho, int change, const char* format);
    void dumpSetMedia(const sts_ioctl_set_media_state_t& media) const;
    void dumpGetDDUP(const sts_ioctl_ddup_stats_info_t& stats) const;
    void dumpFscpInfo(const sts_ioctl_fscp_info_t& info) const;
    void dumpFscpConfig(const sts_ioctl_fscp_config_t& config) const;
    void dumpRestoreCntl(const sts_ioctl_restore_cntl_t& cntl) const;
    void closeHandles(CallSequence& cs, const char* szWho);
    void undoFailedOpen(const char* szWho);
    void logCredential(const char* szWho, const char* lengthText, const API::Credential& cred);
    bool closeLogged(sts_handle_t h, const char* szWho, sts_uint32_t flags, const char* failText,
                     const char* okText);

    bool m_bInited = false;
    bool m_bIsTargetServer = false;
    bool m_bCleanup = false;
    sts_server_handle_t m_svh = nullptr;
    sts_session_t m_ssn = nullptr;
    sts_session_def_t m_sd;
    SessionId m_sessionId;   // what m_sd.sd_id points at
    SessionManager* m_sm;
    std::vector<sts_host_t> m_hosts;   // what a created server was told
};

#endif
