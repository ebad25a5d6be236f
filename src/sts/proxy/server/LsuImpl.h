// One open LSU of a storage server: pools, allocation and storage elements.
// Older forms of its operations are refused; operations whose work is not
// built yet answer CORBA::NO_IMPLEMENT.
#ifndef KELD_PROXY_LSUIMPL_H
#define KELD_PROXY_LSUIMPL_H

#include "SequencedServant.h"
#include "ServantSupport.h"

#include "Proxy.hh"

class ProxyLogger;

class LsuImpl : public SequencedServant<POA_API::Lsu> {
public:
    LsuImpl(PortableServer::POA_ptr poa, ProxyLogger* plog);
    ~LsuImpl() override;

    CORBA::Long allocateLsu(const API::StorageElement& storel) override;
    CORBA::Long allocateLsuV12(API::UInt64 callsequence, const API::StorageElement& storel) override;
    CORBA::Long closeLsu() override;
    CORBA::Long closeLsuV12(API::UInt64 callsequence) override;
    CORBA::Long getLsuProp(API::LsuInformation_out lsuInfoOut) override;
    CORBA::Long getLsuPropV11(API::LsuInformationV11_out lsuInfoOut) override;
    CORBA::Long getLsuPropV12(API::UInt64 callsequence, API::LsuInformationV11_out lsuInfoOut) override;
    CORBA::Long deallocateLsu(const API::StorageElement& se) override;
    CORBA::Long deallocateLsuV12(API::UInt64 callsequence, const API::StorageElement& se) override;
    CORBA::Long addPoolLsu(const API::LSUPool& lp) override;
    CORBA::Long addPoolLsuV12(API::UInt64 callsequence, const API::LSUPool& lp) override;
    API::LSUPoolSeq* getPoolLsu(CORBA::Long npool, CORBA::Long& retpool, CORBA::Long& maxpool) override;
    API::LSUPoolSeq* getPoolLsuV12(API::UInt64 callsequence, CORBA::Long npool, CORBA::Long& retpool, CORBA::Long& maxpool) override;
    CORBA::Long removePoolLsu(const char* pool) override;
    CORBA::Long removePoolLsuV12(API::UInt64 callsequence, const char* poolName) override;
    API::StorageElementSeq* getStorel(CORBA::Long nstorel, CORBA::Long& retstorel, CORBA::Long& maxstorel) override;
    API::StorageElementSeq* getStorelV12(API::UInt64 callsequence, CORBA::Long nstorel, CORBA::Long& retstorel, CORBA::Long& maxstorel) override;
};

#endif
