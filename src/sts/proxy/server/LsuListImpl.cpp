#include "LsuListImpl.h"

#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "ServantSite.h"
#include "StsBinding.h"

#include <cstring>

namespace {

// What the client side sends where its caller passed no definition.
const char* const kNullLsuDefinition = "NULL_LSUDEF";

} // namespace

LsuListImpl::LsuListImpl(const PortableServer::POA_ptr& poa, const ServerLink& server, ProxyLogger* plog,
                         sts_session_def_t sd)
    : SessionServant(poa, plog, sd, server), m_svh(server.handle)
{
    m_plog->logMsg(&m_sd, "LsuListImpl::LsuListImpl", STS_ESDEBUG, "new instance of object LsuListImpl %p",
                   static_cast<void*>(this));
    reset();
}

// No storage call: a list that was not closed keeps its plug-in handle.
LsuListImpl::~LsuListImpl()
{
    m_plog->logMsg(&m_sd, "LsuListImpl::~LsuListImpl", STS_ESDEBUG,
                   "the object of LsuListImpl is destroyed here %p", static_cast<void*>(this));
}

void LsuListImpl::keepListOpen()
{
    keepOpen([this] { abandonPluginHandle(m_llh, 0, site("LsuListImpl::abandon"), "lsu list"); });
}

void LsuListImpl::reset()
{
    m_llh = nullptr;
}

void LsuListImpl::openLsuListV12(const API::LsuDefinitionV11& lsudef, CallSequence& cs)
{
    const ServantSite here = site("LsuListImpl::openLsuListV12");
    try {
        here.log(STS_ESDEBUG, "got one request of opening lsu list");
        int nErr = 0;
        if (std::strcmp(lsudef.lsn, kNullLsuDefinition) == 0) {
            here.log(STS_ESDEBUG, "get the NULL lsu def from plugin side");
            nErr = STS_CALL(stsa_open_lsu_list, m_svh, nullptr, &m_llh);
        } else {
            sts_lsu_def_t def = {};
            CORBA2ZVS(lsudef, &def);
            nErr = STS_CALL(stsa_open_lsu_list, m_svh, &def, &m_llh);
        }
        raiseOnFailure(nErr, cs, here, "fail to call sts_open_lsu_list", "sts_open_lsu_list failed, sts return %d");
        keepListOpen();
        here.log(STS_ESINFO, "succeed to open lsu list on server side");
        here.log(STS_ESINFO, "succeed to open lsu list");
    } catch (...) {
        reset();
        throw;
    }
}

void LsuListImpl::openDynamicLsuListV12(const char* lsuname, CallSequence& cs)
{
    const ServantSite here = site("LsuListImpl::openDynamicLsuListV12");
    try {
        here.log(STS_ESDEBUG, "got one request of opening dynamic lsu list");
        sts_lsu_t pool_lsu = {};
        toC(pool_lsu.stl_lsu_name.sln_name, lsuname, 1024);
        pool_lsu.stl_server_handle = m_svh;
        raiseOnFailure(STS_CALL(stsa_open_dynamic_lsu_list, &pool_lsu, &m_llh), cs, here,
                       "fail to call sts_open_dynamic_lsu_list", "sts_open_dynamic_lsu_list failed, sts return %d");
        keepListOpen();
        here.log(STS_ESINFO, "succeed to open dynamic lsu list for lsu %s", pool_lsu.stl_lsu_name.sln_name);
    } catch (...) {
        reset();
        throw;
    }
}

// The end of the list is an answer, 2060013 with an empty name.  Recorded
// with its number, it replays as a raised STSError: a client takes either
// for the end.
CORBA::Long LsuListImpl::listLsuV12(API::UInt64 callsequence, API::LsuName_out lsuName)
{
    static const char* szWho = "LsuListImpl::listLsu";
    return runSequenced(m_CallSeq, callsequence, szWho, nullptr,
        [&](CallSequence& cs) {
            cs.getLsuName(lsuName);
            return CORBA::Long(cs.getErrorCode());
        },
        [&](CallSequence& cs) {
            const ServantSite here = site(szWho);
            here.log(STS_ESDEBUG, "got one request of listing lsu");
            sts_lsu_name_t name = {};
            const int nErr = STS_CALL(stsa_list_lsu, m_llh, &name);
            if (nErr == STS_ENO_MORE) {
                here.log(STS_ESDEBUG, "reach the end of the lsu list");
                lsuName = CORBA::string_dup("");
                cs.setLsuName("");
                cs.recordCompletion(STS_ENO_MORE, "reach the end of the lsu list");
                return CORBA::Long(STS_ENO_MORE);
            }
            raiseOnFailure(nErr, cs, here, "fail to list lsu.", "sts_list_lsu failed, sts return %d");
            lsuName = dupField(name.sln_name);
            here.log(STS_ESINFO, "lsu name from underneath plugin is %s", static_cast<const char*>(lsuName));
            cs.setLsuName(lsuName);
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

void LsuListImpl::closeHandle(CallSequence& cs, const char* szWho)
{
    const ServantSite here = site(szWho);
    static const CloseTexts texts = {"lsu list handle is NULL", "lsu list has not been opened",
                                     "fail to close lsu list", "sts_close_lsu_list failed, sts return %d"};
    const HandleClosing closing(*m_gate, cs, here);
    try {
        here.log(STS_ESDEBUG, "got one request of closing lsu list");
        closePluginHandle(m_llh, cs, here, texts);
        here.log(STS_ESINFO, "succeed to close the lsu list");
    } catch (...) {
        reset();
        throw;
    }
}

void LsuListImpl::closeLsuListX(CallSequence& cs)
{
    closeHandle(cs, "LsuListImpl::closeLsuListX");
}

void LsuListImpl::closeLsuListV12(API::UInt64 callsequence)
{
    static const char* szWho = "LsuListImpl::closeLsuListV12";
    runSequenced(m_CallSeq, callsequence, szWho, nullptr, [](CallSequence&) {},
        [&](CallSequence& cs) {
            closeHandle(cs, szWho);
            cs.storeServantForDeactivate(this, m_vobjPOA);
            cs.recordCompletion(0, "ok");
        });
}
