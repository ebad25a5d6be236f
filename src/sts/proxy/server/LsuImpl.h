// One LSU a client opened through its storage server: it owns the plug-in's
// LSU handle and serves the operations on an open LSU (allocating storage
// elements, pool members, and listing both).  Properties and creation are
// answered "operation not supported": the server serves them by name.
#ifndef KELD_PROXY_LSUIMPL_H
#define KELD_PROXY_LSUIMPL_H

#include "SequencedServant.h"
#include "ServantSupport.h"
#include "sts_api.h"

#include "Proxy.hh"

class ProxyLogger;

class LsuImpl : public SessionServant<POA_API::Lsu> {
public:
    LsuImpl(const PortableServer::POA_ptr& poa, const ServerLink& server, ProxyLogger* plog,
            sts_session_def_t sd);
    ~LsuImpl() override;

    // The server's factories: the open does the storage work and records
    // a failure in the server's record; the creates always refuse
    // (RefusedForms.cpp).
    void openLsu(const char* lsuname, CallSequence& cs);
    void createLsu(const API::LsuDefinition& lsud, CallSequence& cs);
    void createLsuWithStorel(const API::LsuDefinition& lsud, const API::StorageElement& se, CallSequence& cs);
    void createLsuWithPool(const API::LsuDefinition& lsud, const API::LSUPool& lp, CallSequence& cs);
    // The server's close: records only a failure, in the server's record.
    CORBA::Long closeLsuX(CallSequence& cs);
    void reset();

    CORBA::Long allocateLsuV12(API::UInt64 callsequence, const API::StorageElement& storel) override;
    CORBA::Long closeLsuV12(API::UInt64 callsequence) override;
    CORBA::Long deallocateLsuV12(API::UInt64 callsequence, const API::StorageElement& se) override;
    CORBA::Long addPoolLsuV12(API::UInt64 callsequence, const API::LSUPool& lp) override;
    API::LSUPoolSeq* getPoolLsuV12(API::UInt64 callsequence, CORBA::Long npool, CORBA::Long& retpool, CORBA::Long& maxpool) override;
    CORBA::Long removePoolLsuV12(API::UInt64 callsequence, const char* poolName) override;
    API::StorageElementSeq* getStorelV12(API::UInt64 callsequence, CORBA::Long nstorel, CORBA::Long& retstorel, CORBA::Long& maxstorel) override;

    // Refused, each with 2060016 (RefusedForms.cpp).
    CORBA::Long allocateLsu(const API::StorageElement& storel) override;
    CORBA::Long closeLsu() override;
    CORBA::Long getLsuProp(API::LsuInformation_out lsuInfoOut) override;
    CORBA::Long getLsuPropV11(API::LsuInformationV11_out lsuInfoOut) override;
    CORBA::Long getLsuPropV12(API::UInt64 callsequence, API::LsuInformationV11_out lsuInfoOut) override;
    CORBA::Long deallocateLsu(const API::StorageElement& se) override;
    CORBA::Long addPoolLsu(const API::LSUPool& lp) override;
    API::LSUPoolSeq* getPoolLsu(CORBA::Long npool, CORBA::Long& retpool, CORBA::Long& maxpool) override;
    CORBA::Long removePoolLsu(const char* pool) override;
    API::StorageElementSeq* getStorel(CORBA::Long nstorel, CORBA::Long& retstorel, CORBA::Long& maxstorel) override;

private:
    void closeHandle(CallSequence& cs, const char* szWho);
    template <typename Write>
    CORBA::Long runWrite(API::UInt64 callsequence, const char* szWho, const char* requestLog, Write write);

    sts_lsu_handle_t m_lsuh = nullptr;
    sts_server_handle_t m_svrh;
    // Cleared and never filled: the lines that name "the lsu" show its
    // empty name.
    sts_lsu_def_t m_lsud = {};
};

#endif
