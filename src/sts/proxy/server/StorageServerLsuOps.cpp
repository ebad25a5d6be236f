// The storage server's LSU operations: the factories and closes of the LSU
// and LSU list servants, and the operations that address an LSU by name.
#include "StorageServerImpl.h"

#include "LsuImpl.h"
#include "LsuListImpl.h"
#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "ServantFactory.h"
#include "SessionId.h"
#include "StsLibrary.h"

#include <new>

namespace {

const FactoryTexts kLsuTexts = {
    "new LsuImpl failed", "fail to new one instance of lsu on server side",
    "Lsu object is nil", "fail to get reference to lsu object on server side",
    "succeed to get reference of Lsu object", STS_ESDEBUG};

// The pool create spells its log line its own way and raises its two proxy
// failures without recording them: a retry of that number replays
// "unknown exception".
const FactoryTexts kLsuWithPoolTexts = {
    "new Lsuimpl failed", "fail to new one instance of lsu on server side",
    "Lsu object is nil", "fail to get reference to lsu object on server side",
    "succeed to get reference of Lsu object", STS_ESDEBUG, false, false};

const FactoryTexts kLsuListTexts = {
    "new LsuListImpl failed", "fail to new one instance of LsuList on server side.",
    "LsuList object is nil", "fail to get ref to LsuList object on server side.",
    "succeed to get reference of LsuList object", STS_ESDEBUG};

CORBA::Long replayCode(CallSequence& cs)
{
    return cs.getErrorCode();
}

} // namespace

sts_lsu_t StorageServerImpl::lsuNamed(const char* lsuname) const
{
    sts_lsu_t lsu = {};
    lsu.stl_server_handle = m_svh;
    toC(lsu.stl_lsu_name.sln_name, lsuname, 1024);
    return lsu;
}

LsuImpl* StorageServerImpl::newLsu()
{
    return new (std::nothrow) LsuImpl(m_vobjPOA, link(), m_plog, m_sd);
}

LsuListImpl* StorageServerImpl::newLsuList()
{
    return new (std::nothrow) LsuListImpl(m_vobjPOA, link(), m_plog, m_sd);
}

API::Lsu_ptr StorageServerImpl::openLsuV12(API::UInt64 callsequence, const char* lsuname)
{
    return runFactory<API::Lsu>(m_CallSeq, callsequence, site("StorageServerImpl::openLsu"), kLsuTexts,
        [&] { return newLsu(); },
        [&](LsuImpl& lsu, CallSequence& cs) { lsu.openLsu(lsuname, cs); });
}

API::Lsu_ptr StorageServerImpl::createLsuV12(API::UInt64 callsequence, const API::LsuDefinition& lsud)
{
    return runFactory<API::Lsu>(m_CallSeq, callsequence, site("StorageServerImpl::createLsu"), kLsuTexts,
        [&] { return newLsu(); },
        [&](LsuImpl& lsu, CallSequence& cs) { lsu.createLsu(lsud, cs); });
}

API::Lsu_ptr StorageServerImpl::createLsuWithStorelV12(API::UInt64 callsequence,
                                                       const API::LsuDefinition& lsud,
                                                       const API::StorageElement& storel)
{
    return runFactory<API::Lsu>(m_CallSeq, callsequence, site("StorageServerImpl::createLsuWithStorel"),
        kLsuTexts, [&] { return newLsu(); },
        [&](LsuImpl& lsu, CallSequence& cs) { lsu.createLsuWithStorel(lsud, storel, cs); });
}

API::Lsu_ptr StorageServerImpl::createLsuWithPoolV12(API::UInt64 callsequence, const API::LsuDefinition& lsud,
                                                     const API::LSUPool& lp)
{
    return runFactory<API::Lsu>(m_CallSeq, callsequence, site("StorageServerImpl::createLsuWithPool"),
        kLsuWithPoolTexts, [&] { return newLsu(); },
        [&](LsuImpl& lsu, CallSequence& cs) { lsu.createLsuWithPool(lsud, lp, cs); });
}

API::LsuList_ptr StorageServerImpl::openLsuListV12(API::UInt64 callsequence, const API::LsuDefinitionV11& lsudef)
{
    return runFactory<API::LsuList>(m_CallSeq, callsequence, site("StorageServerImpl::openLsuListV12"),
        kLsuListTexts, [&] { return newLsuList(); },
        [&](LsuListImpl& list, CallSequence& cs) { list.openLsuListV12(lsudef, cs); });
}

API::LsuList_ptr StorageServerImpl::openDynamicLsuListV12(API::UInt64 callsequence, const char* lsu)
{
    return runFactory<API::LsuList>(m_CallSeq, callsequence, site("StorageServerImpl::openDynamicLsuList"),
        kLsuListTexts, [&] { return newLsuList(); },
        [&](LsuListImpl& list, CallSequence& cs) { list.openDynamicLsuListV12(lsu, cs); });
}

CORBA::Long StorageServerImpl::closeLsuV12(API::UInt64 callsequence, API::Lsu_ptr lsu_to_close)
{
    return runClose<LsuImpl>(m_CallSeq, callsequence, "StorageServerImpl::closeLsuV12", m_vobjPOA,
        lsu_to_close, [](LsuImpl& lsu, CallSequence& cs) { lsu.closeLsuX(cs); });
}

void StorageServerImpl::closeLsuListV12(API::UInt64 callsequence, API::LsuList_ptr lsulist_to_close)
{
    runClose<LsuListImpl>(m_CallSeq, callsequence, "StorageServerImpl::closeLsuListV12", m_vobjPOA,
        lsulist_to_close, [](LsuListImpl& list, CallSequence& cs) { list.closeLsuListX(cs); });
}

CORBA::Long StorageServerImpl::deleteLsuV12(API::UInt64 callsequence, const char* lsuname)
{
    const ServantSite here = site("StorageServerImpl::deleteLsu");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr, replayCode, [&](CallSequence& cs) {
        here.log(STS_ESDEBUG, "got one request of deleting lsu");
        here.log(STS_ESDEBUG, "lsu name: %s", lsuname);
        const sts_lsu_t lsu = lsuNamed(lsuname);
        raiseOnFailure(STS_CALL(stsa_delete_lsu, &lsu), cs, here, "fail to call sts_delete_lsu",
                       "sts_delete_lsu failed for %s, sts return %d", lsu.stl_lsu_name.sln_name);
        here.log(STS_ESINFO, "succeed to delete lsu: %s", lsu.stl_lsu_name.sln_name);
        cs.recordCompletion(0, "ok");
        return CORBA::Long(0);
    });
}

CORBA::Long StorageServerImpl::labelLsuV12(API::UInt64 callsequence, const char* lsuName, const char* label)
{
    const ServantSite here = site("StorageServerImpl::labelLsu");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr, replayCode, [&](CallSequence& cs) {
        here.log(STS_ESDEBUG, "get one request of labeling lsu");
        const sts_lsu_t lsu = lsuNamed(lsuName);
        sts_lsu_label_v9_t lsu_label = {};
        toC(lsu_label, label, sizeof(lsu_label));
        raiseOnFailure(STS_CALL(stsa_label_lsu, &lsu, lsu_label), cs, here, "fail to call sts_label_lsu",
                       "sts_label_lsu failed for %s, sts return %d", lsu.stl_lsu_name.sln_name);
        here.log(STS_ESDEBUG, "succeed to label LSU name %s", lsu.stl_lsu_name.sln_name);
        here.log(STS_ESDEBUG, "new label is %s", lsu_label);
        here.log(STS_ESINFO, "succeed to label lsu");
        cs.recordCompletion(0, "ok");
        return CORBA::Long(0);
    });
}

CORBA::Long StorageServerImpl::mountLsuV12(API::UInt64 callsequence, const char* lsuname, const char* path,
                                           CORBA::Long mode, const char* spr_key, CORBA::String_out mountedlsu)
{
    const ServantSite here = site("StorageServerImpl::mountLsu");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr,
        [&](CallSequence& cs) {
            cs.getLsuName(mountedlsu);
            return CORBA::Long(cs.getErrorCode());
        },
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, "got one request of mounting lsu");
            here.log(STS_ESDEBUG, "lsu name: %s", lsuname);
            const sts_lsu_t lsu = lsuNamed(lsuname);
            sts_lsu_name_t mlsu = {};
            raiseOnFailure(STS_CALL(stsa_mount_lsu, &lsu, path, mode, spr_key, &mlsu), cs, here,
                           "fail to call sts_mount_lsu", "sts_mount_lsu failed for %s, sts return %d",
                           lsu.stl_lsu_name.sln_name);
            mountedlsu = dupField(mlsu.sln_name);
            cs.setLsuName(mountedlsu.ptr());
            here.log(STS_ESINFO, "succeed to mount lsu: %s under path %s, the mounted lsu is %s",
                     lsu.stl_lsu_name.sln_name, path, mlsu.sln_name);
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

CORBA::Long StorageServerImpl::unmountLsuV12(API::UInt64 callsequence, const char* lsuname, const char* spr_key)
{
    const ServantSite here = site("StorageServerImpl::unmountLsu");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr, replayCode, [&](CallSequence& cs) {
        here.log(STS_ESDEBUG, "got one request of unmounting lsu");
        here.log(STS_ESDEBUG, "lsu name: %s", lsuname);
        const sts_lsu_t lsu = lsuNamed(lsuname);
        raiseOnFailure(STS_CALL(stsa_unmount_lsu, &lsu, spr_key), cs, here, "fail to call sts_unmount_lsu",
                       "sts_unmount_lsu failed for %s, sts return %d", lsu.stl_lsu_name.sln_name);
        here.log(STS_ESINFO, "succeed to unmount lsu: %s", lsu.stl_lsu_name.sln_name);
        cs.recordCompletion(0, "ok");
        return CORBA::Long(0);
    });
}

// The one LSU operation that takes its session from the call rather than
// from the server.
CORBA::Long StorageServerImpl::activateLsuV12(API::UInt64 callsequence, const API::SessionDefinition& ssd,
                                              const char* lsuname, CORBA::Long activateflag)
{
    const ServantSite here = site("StorageServerImpl::activateLsu");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr, replayCode, [&](CallSequence& cs) {
        m_plog->logMsg(nullptr, here.szWho, STS_ESDEBUG, "got one request of activating lsu");
        here.log(STS_ESDEBUG, "lsu name: %s", lsuname);
        const SessionId id(ssd.id);
        sts_session_def_t sd = {};
        fillSessionDefinition(sd, ssd.proxy, id.c_str(), ssd.flags, nullptr);
        const sts_lsu_t lsu = lsuNamed(lsuname);
        raiseOnFailure(STS_CALL(stsa_activate_lsu, &sd, &lsu, activateflag), cs, here,
                       "fail to call sts_activate_lsu", "sts_activate_lsu failed for %s, sts return %d",
                       lsu.stl_lsu_name.sln_name);
        here.log(STS_ESINFO, "succeed to activate lsu: %s", lsu.stl_lsu_name.sln_name);
        cs.recordCompletion(0, "ok");
        return CORBA::Long(0);
    });
}

// A missing LSU is an answer the first time (2060013, nothing found) and,
// being recorded with its number, a raised error on a retry.
CORBA::Long StorageServerImpl::findLsuV12(API::UInt64 callsequence, const char* wanted_lsu,
                                          CORBA::String_out found_lsu)
{
    const ServantSite here = site("StorageServerImpl::findLsu");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr,
        [&](CallSequence& cs) {
            cs.getLsuName(found_lsu);
            return CORBA::Long(cs.getErrorCode());
        },
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, "got one request of finding lsu");
            sts_lsu_name_t wlsu = {};
            toC(wlsu.sln_name, wanted_lsu, 1024);
            sts_lsu_name_t flsu = {};
            const int nErr = STS_CALL(stsa_find_lsu, m_svh, &wlsu, &flsu);
            if (nErr == STS_ENO_MORE) {
                here.log(STS_ESDEBUG, "can not find LSU named: %s", wlsu.sln_name);
                found_lsu = CORBA::string_dup("");   // nothing found, but never a null string
                cs.recordCompletion(STS_ENO_MORE, "cannot find LSU");
                return CORBA::Long(STS_ENO_MORE);
            }
            raiseOnFailure(nErr, cs, here, "fail to call sts_find_lsu", "sts_find_lsu failed for %s, sts return %d",
                           wlsu.sln_name);
            found_lsu = dupField(flsu.sln_name);
            cs.setLsuName(found_lsu.ptr());
            here.log(STS_ESDEBUG, "succeed to find LSU named %s", flsu.sln_name);
            here.log(STS_ESINFO, "succeed to call find lsu");
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

CORBA::Long StorageServerImpl::getLsuPropByNameV12(API::UInt64 callsequence, const char* lsuName,
                                                   API::LsuInformationV11_out lsuInfo)
{
    const ServantSite here = site("StorageServerImpl::getLsuPropByName");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr,
        [&](CallSequence& cs) {
            cs.getLsuInfo(lsuInfo);
            return CORBA::Long(cs.getErrorCode());
        },
        [&](CallSequence& cs) {
            API::LsuInformationV11* info = newOutRecord<API::LsuInformationV11>();
            lsuInfo = info;
            const sts_lsu_t lsu = lsuNamed(lsuName);
            here.log(STS_ESDEBUG, "get one request of getting lsu prop byname");
            sts_lsu_info_t cinfo = {};
            raiseOnFailure(STS_CALL(stsa_get_lsu_prop_byname, &lsu, &cinfo), cs, here,
                           "fail to call sts_get_lsu_prop_byname",
                           "sts_get_lsu_prop_byname failed for %s, sts return %d", lsu.stl_lsu_name.sln_name);
            here.log(STS_ESDEBUG, "get prop from underneath plugin for LSU: %s", lsu.stl_lsu_name.sln_name);
            here.log(STS_ESDEBUG, "LSU capacity: %llu", static_cast<unsigned long long>(cinfo.lsu_capacity));
            ZVS2CORBA(cinfo, info);
            cs.setLsuInfo(*info);
            here.log(STS_ESINFO, "succeed to get lsu prop");
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

CORBA::Long StorageServerImpl::getLsuPropByNameV11(const char* lsuName, API::LsuInformationV11_out lsuInfo)
{
    return getLsuPropByNameV12(0, lsuName, lsuInfo);
}

API::LsuList_ptr StorageServerImpl::openLsuListV11(const API::LsuDefinitionV11& lsudef)
{
    return openLsuListV12(0, lsudef);
}
