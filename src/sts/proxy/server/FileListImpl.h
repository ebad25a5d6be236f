// One change list between two snapshots, walked one file a call.  It stands
// outside the retry scheme: its operations carry no call sequence, a
// repeated list call gets the next entry, and nothing is recorded.  It stays
// active after its close, until its POA goes.
#ifndef KELD_PROXY_FILELISTIMPL_H
#define KELD_PROXY_FILELISTIMPL_H

#include "SequencedServant.h"
#include "ServantSupport.h"
#include "SessionId.h"
#include "sts_api.h"

#include "Proxy.hh"

class ProxyLogger;

class FileListImpl : public virtual POA_API::FileList {
public:
    FileListImpl(const PortableServer::POA_ptr& poa, const ServerLink& server, ProxyLogger* plog,
                 sts_session_def_t sd);
    ~FileListImpl() override;

    void closeSnapChangeListV11() override;
    CORBA::Long listFileV11(API::UInt32 npaths, const API::STSPathNameSeq& path_filter_seq, API::FileAttrV11_out Attr) override;
    // Called by the server's operation of the same name on the new object.
    virtual void openSnapChangeListV11(const char* lsu, const API::SnapDefinitionV11& base_snap_def,
                                       const API::SnapDefinitionV11& diff_snap_def,
                                       const API::VolumeSpecV11& volume_object, API::UInt32 diff_flag);
    void reset();
    PortableServer::POA_ptr _default_POA() override;

private:
    sts_session_def_t m_sd;
    SessionId m_sessionId;   // what m_sd.sd_id points at
    sts_lsu_t m_lsu;
    sts_file_list_handle_t m_flh;
    ProxyLogger* m_plog;
    PortableServer::POA_var m_vobjPOA;
    std::shared_ptr<ServantGate> m_gate;   // guards m_flh (ServantGate.h)
};

#endif
