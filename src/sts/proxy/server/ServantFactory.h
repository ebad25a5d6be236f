// The one way a servant makes another servant for a client, and the one way
// it closes one again.  Every factory of the service (servers, remote
// loggers, LSUs, lists, images) and every close of a child goes through
// these two, on the sequenced pattern of CallSequence.h:
//
//   API::Lsu_ptr StorageServerImpl::openLsuV12(API::UInt64 callsequence, const char* lsuname)
//   {
//       static const char* szWho = "StorageServerImpl::openLsu";
//       return runFactory<API::Lsu>(m_CallSeq, callsequence, here(szWho), kLsuTexts,
//           [&] { return new (std::nothrow) LsuImpl(m_vobjPOA, m_svh, m_plog, m_sd); },
//           [&](LsuImpl& lsu, CallSequence& cs) { lsu.openLsu(lsuname, cs); });
//   }
//
// Ownership: once a factory returns, the POA is the servant's only owner,
// so the deactivation that follows its close destroys it.  A factory whose
// child fails after activation deactivates the child again before the
// error goes on: the client never got the reference, and a retry replays
// the recorded failure, so no client can tell and nothing is left behind.
// A retried factory call answers with the very object made the first time.
#ifndef KELD_PROXY_SERVANTFACTORY_H
#define KELD_PROXY_SERVANTFACTORY_H

#include "CallSequence.h"
#include "ProxyLogger.h"
#include "ServantSite.h"
#include "ServantSupport.h"
#include "sts_types.h"

#include <cerrno>

// The texts of one kind of factory.
struct FactoryTexts {
    const char* newFailedLog;     // logged when the servant cannot be built
    const char* newFailedText;    // with 2060002 to the client
    const char* nilLog;           // logged when no reference comes back
    const char* nilText;          // with 2060058 to the client
    const char* madeLog;          // the reference is there
    sts_severity_t madeSeverity;
    // A few factories raise these two failures without recording them, so
    // that a retry of that number answers "unknown exception".
    bool recordNewFailure = true;
    bool recordNilFailure = true;
};

// The record's slot for each kind of reference a factory hands out.
inline void recordReference(CallSequence& cs, API::StorageServer_ptr r) { cs.setStorageServerPtr(r); }
inline void recordReference(CallSequence& cs, API::RemoteLogger_ptr r) { cs.setRemLogPtr(r); }
inline void recordReference(CallSequence& cs, API::Lsu_ptr r) { cs.setLsuPtr(r); }
inline void recordReference(CallSequence& cs, API::LsuList_ptr r) { cs.setLsuListPtr(r); }
inline void recordReference(CallSequence& cs, API::Image_ptr r) { cs.setImagePtr(r); }
inline void recordReference(CallSequence& cs, API::ImageList_ptr r) { cs.setImageListPtr(r); }

inline bool replayReference(const CallSequence& cs, API::StorageServer_ptr& r) { return cs.getStorageServerPtr(r); }
inline bool replayReference(const CallSequence& cs, API::RemoteLogger_ptr& r) { return cs.getRemLogPtr(r); }
inline bool replayReference(const CallSequence& cs, API::Lsu_ptr& r) { return cs.getLsuPtr(r); }
inline bool replayReference(const CallSequence& cs, API::LsuList_ptr& r) { return cs.getLsuListPtr(r); }
inline bool replayReference(const CallSequence& cs, API::Image_ptr& r) { return cs.getImagePtr(r); }
inline bool replayReference(const CallSequence& cs, API::ImageList_ptr& r) { return cs.getImageListPtr(r); }

// Takes an object out of its POA again; never raises, so that the error
// that led here is the one the client gets.
void deactivateQuietly(PortableServer::POA_ptr poa, CORBA::Object_ptr obj);

// Activates a freshly built servant in its default POA and lets open do
// the child's storage work; see the top of this file for ownership.
template <typename Interface, typename Servant, typename Open>
typename Interface::_ptr_type makeServant(CallSequence& cs, const ServantSite& site,
                                          const FactoryTexts& texts, Servant* servant, Open open)
{
    if (servant == nullptr) {
        errno = ENOMEM;
        site.plog->logMsg(site.sd, site.szWho, STS_ESERROR, "%s", texts.newFailedLog);
        failRecordedIf(cs, texts.recordNewFailure, STS_ENOMEM_OBJ, texts.newFailedText);
    }
    PortableServer::ServantBase_var creation = servant;   // dropped on return
    typename Interface::_var_type ref = servant->_this();
    if (CORBA::is_nil(ref)) {
        site.plog->logMsg(site.sd, site.szWho, STS_ESERROR, "%s", texts.nilLog);
        failRecordedIf(cs, texts.recordNilFailure, STS_ESEQUENCE, texts.nilText);
    }
    site.plog->logMsg(site.sd, site.szWho, texts.madeSeverity, "%s", texts.madeLog);
    try {
        open(*servant, cs);
    } catch (...) {
        deactivateQuietly(PortableServer::POA_var(servant->_default_POA()), ref);
        throw;
    }
    return ref._retn();
}

// The sequenced factory operation: a retry answers with the recorded
// reference; a first run builds, activates and opens the child, then
// records the reference and the success.
template <typename Interface, typename Build, typename Open>
typename Interface::_ptr_type runFactory(CallSequence& record, API::UInt64 callsequence,
                                         const ServantSite& site, const FactoryTexts& texts,
                                         Build build, Open open)
{
    using Ptr = typename Interface::_ptr_type;
    return runSequenced(record, callsequence, site.szWho, nullptr,
        [](CallSequence& cs) {
            Ptr ref = Interface::_nil();
            replayReference(cs, ref);
            return ref;
        },
        [&](CallSequence& cs) {
            typename Interface::_var_type ref = makeServant<Interface>(cs, site, texts, build(), open);
            recordReference(cs, ref.in());
            cs.recordCompletion(0, "ok");
            return ref._retn();
        });
}

// The servant behind a reference of this process, as the type the close
// expects.  An object that is gone answers OBJECT_NOT_EXIST, a reference of
// another kind BAD_PARAM: the client's mistakes are refused, never followed.
template <typename Servant>
Servant& servantOf(PortableServer::POA_ptr poa, CORBA::Object_ptr obj,
                   PortableServer::ServantBase_var& holder)
{
    try {
        holder = poa->reference_to_servant(obj);
    } catch (const PortableServer::POA::ObjectNotActive&) {
        throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
    } catch (const PortableServer::POA::WrongAdapter&) {
        throw CORBA::BAD_PARAM(0, CORBA::COMPLETED_NO);
    }
    Servant* servant = dynamic_cast<Servant*>(holder.in());
    if (servant == nullptr) throw CORBA::BAD_PARAM(0, CORBA::COMPLETED_NO);
    return *servant;
}

// The sequenced close of a child: the child closes its handle and records
// any failure in this record; the object is stored for deactivation, so
// that a retried close still reaches it, and is deactivated at this
// record's next sequenced call (at once with number 0).
template <typename Servant, typename Close>
CORBA::Long runClose(CallSequence& record, API::UInt64 callsequence, const char* szWho,
                     PortableServer::POA_ptr poa, CORBA::Object_ptr obj, Close close)
{
    return runSequenced(record, callsequence, szWho, nullptr,
        [](CallSequence& cs) { return CORBA::Long(cs.getErrorCode()); },
        [&](CallSequence& cs) {
            PortableServer::ServantBase_var holder;
            close(servantOf<Servant>(poa, obj, holder), cs);
            cs.storeObjForDeactivate(obj, poa);
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

#endif
