#include "LsuImpl.h"

#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "ServantSite.h"
#include "StsBinding.h"

#include <cstring>

namespace {

const ListingTexts kPoolListing = {
    "got one request of getting pool lsu", "sts_get_pool_lsu failed, sts return %d",
    "fail to call sts_get_pool_lsu", "retpool: %d; maxpool: %d", "succeed to get pool lsu"};

} // namespace

LsuImpl::LsuImpl(const PortableServer::POA_ptr& poa, const ServerLink& server, ProxyLogger* plog,
                 sts_session_def_t sd)
    : SessionServant(poa, plog, sd, server), m_svrh(server.handle)
{
    m_plog->logMsg(&m_sd, "LsuImpl::LsuImpl", STS_ESDEBUG, "new instance of object LsuImpl %p",
                   static_cast<void*>(this));
    reset();
}

// No storage call: a handle that was not closed stays open in the plug-in.
LsuImpl::~LsuImpl()
{
    m_plog->logMsg(&m_sd, "LsuImpl::~LsuImpl", STS_ESDEBUG, "the object of LsuImpl is destroyed here %p",
                   static_cast<void*>(this));
}

void LsuImpl::reset()
{
    m_lsuh = nullptr;
    std::memset(&m_lsud.sld_name, 0, sizeof(m_lsud.sld_name));
    m_lsud.sld_flags = 0;
    m_plog->logMsg(&m_sd, "LsuImpl::reset", STS_ESDEBUG, "reset the members");
}

void LsuImpl::openLsu(const char* lsuname, CallSequence& cs)
{
    const ServantSite here = site("LsuImpl::openLsu");
    try {
        here.log(STS_ESDEBUG, "got one request of opening lsu");
        sts_lsu_t lsu = {};
        toC(lsu.stl_lsu_name.sln_name, lsuname, 1024);
        here.log(STS_ESDEBUG, "lsu name: %s", lsu.stl_lsu_name.sln_name);
        lsu.stl_server_handle = m_svrh;
        raiseOnFailure(STS_CALL(stsa_open_lsu, &lsu, &m_lsuh), cs, here, "fail to call sts_open_lsu",
                       "sts_open_lsu failed for %s, sts return %d", lsu.stl_lsu_name.sln_name);
        keepOpen([this] { abandonPluginHandle(m_lsuh, 0, site("LsuImpl::abandon"), "lsu"); });
        here.log(STS_ESINFO, "succeed to open the lsu %s", m_lsud.sld_name.sln_name);
    } catch (...) {
        reset();
        throw;
    }
}

void LsuImpl::closeHandle(CallSequence& cs, const char* szWho)
{
    const ServantSite here = site(szWho);
    static const CloseTexts texts = {"lsu handle is NULL", "lsu has not been opened", "fail to close lsu",
                                     "sts_close_lsu failed, sts return %d"};
    const HandleClosing closing(*m_gate, cs, here);
    try {
        closePluginHandle(m_lsuh, cs, here, texts);
        here.log(STS_ESINFO, "succeed to close the lsu %s", m_lsud.sld_name.sln_name);
    } catch (...) {
        reset();
        throw;
    }
}

CORBA::Long LsuImpl::closeLsuX(CallSequence& cs)
{
    site("LsuImpl::closeLsuX").log(STS_ESDEBUG, "got one request of closing lsu");
    closeHandle(cs, "LsuImpl::closeLsuX");
    return 0;
}

CORBA::Long LsuImpl::closeLsuV12(API::UInt64 callsequence)
{
    static const char* szWho = "LsuImpl::closeLsuV12";
    return runSequenced(m_CallSeq, callsequence, szWho, nullptr,
        [](CallSequence& cs) { return CORBA::Long(cs.getErrorCode()); },
        [&](CallSequence& cs) {
            site(szWho).log(STS_ESDEBUG, "got one request of closing lsu");
            closeHandle(cs, szWho);
            cs.storeServantForDeactivate(this, m_vobjPOA);
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

// The four operations that change the LSU: one storage call each, with a
// retry answered from the record.
template <typename Write>
CORBA::Long LsuImpl::runWrite(API::UInt64 callsequence, const char* szWho, const char* requestLog,
                              Write write)
{
    return runSequenced(m_CallSeq, callsequence, szWho, nullptr,
        [](CallSequence& cs) { return CORBA::Long(cs.getErrorCode()); },
        [&](CallSequence& cs) {
            const ServantSite here = site(szWho);
            here.log(STS_ESDEBUG, "%s", requestLog);
            write(cs, here);
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

CORBA::Long LsuImpl::allocateLsuV12(API::UInt64 callsequence, const API::StorageElement& storel)
{
    return runWrite(callsequence, "LsuImpl::allocateLsu", "got one request of allocating lsu",
        [&](CallSequence& cs, const ServantSite& here) {
            sts_storel_t ste = {};
            CORBA2ZVS(storel, &ste);
            raiseOnFailure(STS_CALL(stsa_alloc_lsu, m_lsuh, &ste), cs, here, "fail to call sts_alloc_lsu",
                           "sts_alloc_lsu failed, sts return %d");
            here.log(STS_ESINFO, "succeed to allocate a storage element to lsu: %s", m_lsud.sld_name.sln_name);
        });
}

CORBA::Long LsuImpl::deallocateLsuV12(API::UInt64 callsequence, const API::StorageElement& se)
{
    return runWrite(callsequence, "LsuImpl::deallocateLsu", "got one request of deallocateing lsu",
        [&](CallSequence& cs, const ServantSite& here) {
            sts_storel_t ste = {};
            CORBA2ZVS(se, &ste);
            raiseOnFailure(STS_CALL(stsa_dealloc_lsu, m_lsuh, &ste), cs, here, "fail to call sts_dealloc_lsu",
                           "sts_dealloc_lsu failed, sts return %d");
            here.log(STS_ESINFO, "succeed to deallocate storage element %s from lsu: %s", ste.ste_devname,
                     m_lsud.sld_name.sln_name);
        });
}

CORBA::Long LsuImpl::addPoolLsuV12(API::UInt64 callsequence, const API::LSUPool& lp)
{
    return runWrite(callsequence, "LsuImpl::addPoolLsu", "got one request of adding pool lsu",
        [&](CallSequence& cs, const ServantSite& here) {
            sts_lsu_pool_t pool = {};
            CORBA2ZVS(lp, &pool);
            raiseOnFailure(STS_CALL(stsa_add_pool_lsu, m_lsuh, &pool), cs, here, "fail to call sts_add_pool_lsu",
                           "sts_add_pool_lsu failed, sts return %d");
            here.log(STS_ESINFO, "succeed to add pool lsu %s to lsu: %s", pool.lp_name.sln_name,
                     m_lsud.sld_name.sln_name);
        });
}

CORBA::Long LsuImpl::removePoolLsuV12(API::UInt64 callsequence, const char* poolName)
{
    return runWrite(callsequence, "LsuImpl::removePoolLsu", "got one request of removing pool lsu",
        [&](CallSequence& cs, const ServantSite& here) {
            sts_lsu_name_t pool = {};
            toC(pool.sln_name, poolName, 1024);
            raiseOnFailure(STS_CALL(stsa_remove_pool_lsu, m_lsuh, &pool), cs, here,
                           "fail to call sts_remove_pool_lsu", "sts_remove_pool_lsu failed, sts return %d");
            here.log(STS_ESINFO, "succeed to remove pool lsu %s from lsu: %s", pool.sln_name,
                     m_lsud.sld_name.sln_name);
        });
}

API::StorageElementSeq* LsuImpl::getStorelV12(API::UInt64 callsequence, CORBA::Long nstorel,
                                             CORBA::Long& retstorel, CORBA::Long& maxstorel)
{
    return runCountedListing<API::StorageElementSeq, sts_storel_t>(
        m_CallSeq, callsequence, site("LsuImpl::getStorel"), kStorelListing, nstorel, retstorel, maxstorel,
        [&](sts_storel_t* items, int n, int* ret, int* max) {
            return STS_CALL(stsa_get_storel, m_lsuh, items, n, ret, max);
        });
}

API::LSUPoolSeq* LsuImpl::getPoolLsuV12(API::UInt64 callsequence, CORBA::Long npool, CORBA::Long& retpool,
                                       CORBA::Long& maxpool)
{
    return runCountedListing<API::LSUPoolSeq, sts_lsu_pool_t>(
        m_CallSeq, callsequence, site("LsuImpl::getPoolLsu"), kPoolListing, npool, retpool, maxpool,
        [&](sts_lsu_pool_t* items, int n, int* ret, int* max) {
            return STS_CALL(stsa_get_pool_lsu, m_lsuh, items, n, ret, max);
        });
}
