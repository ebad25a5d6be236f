#include "FileListImpl.h"

#include "CallSequence.h"
#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "ServantSite.h"
#include "StsBinding.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace {

struct FreeFilter {
    void operator()(sts_pathname_t* p) const { std::free(p); }
};

} // namespace

FileListImpl::FileListImpl(const PortableServer::POA_ptr& poa, const ServerLink& server, ProxyLogger* plog,
                           sts_session_def_t sd)
    : m_sd(sd), m_sessionId(sd.sd_id), m_lsu(), m_flh(nullptr), m_plog(plog),
      m_vobjPOA(PortableServer::POA::_duplicate(poa)), m_gate(std::make_shared<ServantGate>(server.gate))
{
    m_sd.sd_id = m_sessionId.c_str();
    reset();
    m_lsu.stl_server_handle = server.handle;
    if (server.gate != nullptr) server.gate->adopt(m_gate);
    m_plog->logMsg(&m_sd, "FileListImpl::FileListImpl", STS_ESDEBUG, "new instance of FileList %p",
                   static_cast<void*>(this));
}

// No storage call: a list that was not closed keeps its plug-in handle.
FileListImpl::~FileListImpl()
{
    m_plog->logMsg(&m_sd, "FileListImpl::~FileListImpl", STS_ESDEBUG, "instance of FileList destroyed %p",
                   static_cast<void*>(this));
}

PortableServer::POA_ptr FileListImpl::_default_POA()
{
    return PortableServer::POA::_duplicate(m_vobjPOA);
}

void FileListImpl::reset()
{
    m_flh = nullptr;
    m_lsu.stl_server_handle = nullptr;
    std::memset(m_lsu.stl_lsu_name.sln_name, 0, sizeof(m_lsu.stl_lsu_name.sln_name));
    m_plog->logMsg(&m_sd, "FileListImpl::reset", STS_ESDEBUG, "FileListImpl reset %p", static_cast<void*>(this));
}

void FileListImpl::openSnapChangeListV11(const char* lsu, const API::SnapDefinitionV11& base_snap_def,
                                         const API::SnapDefinitionV11& diff_snap_def,
                                         const API::VolumeSpecV11& volume_object, API::UInt32 diff_flag)
{
    static const char* szWho = "FileListImpl::openSnapChangeListV11";
    try {
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "got request to open snap change list");
        sts_snap_def_t basesnapdef = {};
        sts_snap_def_t diffsnapdef = {};
        sts_volume_spec_t volspec = {};
        CORBA2ZVS(base_snap_def, &basesnapdef);
        CORBA2ZVS(diff_snap_def, &diffsnapdef);
        CORBA2ZVS(volume_object, &volspec);
        toC(m_lsu.stl_lsu_name.sln_name, lsu, 1024);
        const int nErr = STS_CALL(stsa_open_snap_change_list, &m_lsu, &basesnapdef, &diffsnapdef, &volspec,
                                  diff_flag, &m_flh);
        if (nErr != 0) {
            m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_open_snap_change_list failed, sts return %d", nErr);
            throw API::STSError(nErr, "sts_open_snap_change_list failed");
        }
        m_gate->keepOpen(holdServant(this, ObjectKind::kFileList), [this] {
            const int nErr = STS_CALL(stsa_close_snap_change_list, m_flh);
            m_flh = nullptr;
            m_plog->logMsg(&m_sd, "FileListImpl::abandon", nErr == 0 ? STS_ESINFO : STS_ESERROR,
                           "closed the snap change list its client left open, sts return %d", nErr);
        });
        m_plog->logMsg(&m_sd, szWho, STS_ESINFO, "open snap change list completed");
    } catch (...) {
        reset();
        throw;
    }
}

// One entry a call.  The end of the list is a failure like any other here
// (2060013 reaches the client as STSError), and the filter is freed on
// every way out.
CORBA::Long FileListImpl::listFileV11(API::UInt32 npaths, const API::STSPathNameSeq& path_filter_seq,
                                      API::FileAttrV11_out Attr)
{
    static const char* szWho = "FileListImpl::listFileV11";
    API::FileAttrV11* attr = nullptr;
    try {
        attr = new API::FileAttrV11();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        throw CORBA::NO_MEMORY();
    }
    Attr = attr;
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "got request to list file");
    const UnsequencedCall call(*m_gate, {m_plog, &m_sd, szWho});

    // npaths rules, not the sequence's length; entries the sequence lacks
    // stay empty rather than being read past its end.
    std::unique_ptr<sts_pathname_t[], FreeFilter> path_filter(
        static_cast<sts_pathname_t*>(std::calloc(npaths, sizeof(sts_pathname_t))));
    if (path_filter == nullptr && npaths > 0) {
        errno = ENOMEM;
        throw CORBA::NO_MEMORY();
    }
    for (API::UInt32 i = 0; i < npaths && i < path_filter_seq.length(); ++i) {
        CORBA2ZVS(path_filter_seq[i], &path_filter[i]);
    }
    sts_file_attr_t fileAttr = {};
    const int nErr = STS_CALL(stsa_list_file, m_flh, npaths, path_filter.get(), &fileAttr);
    if (nErr != 0) {
        m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_list_file failed, sts return %d", nErr);
        throw API::STSError(nErr, "failed to list file");
    }
    ZVS2CORBA(fileAttr, attr);
    m_plog->logMsg(&m_sd, szWho, STS_ESINFO, "list file completed");
    return 0;
}

// Its own entry of the table, not stsa_close_handle.  After a success the
// handle is kept, so a second close reaches the plug-in with it again; the
// object stays active either way.
void FileListImpl::closeSnapChangeListV11()
{
    static const char* szWho = "FileListImpl::closeSnapChangeListV11";
    const ServantGate::Closing closing(*m_gate);
    if (!closing) {
        m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "call refused: %s", closing.refusal());
        throw API::STSError(STS_ENOT_OPEN, closing.refusal());
    }
    try {
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "got request to close snap change list");
        if (m_flh == nullptr) {
            m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "file list handle is NULL");
            throw API::STSError(STS_ENOT_OPEN, "file list handle has not been opened");
        }
        const int nErr = STS_CALL(stsa_close_snap_change_list, m_flh);
        if (nErr != 0) {
            m_flh = nullptr;
            m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_snap_change_list failed, sts return %d", nErr);
            throw API::STSError(nErr, "failed to close snap change list");
        }
        m_plog->logMsg(&m_sd, szWho, STS_ESINFO, "close snap change list completed");
    } catch (...) {
        reset();
        throw;
    }
}
