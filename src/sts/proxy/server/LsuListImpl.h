// One open list of LSUs, walked one name a call.
// Older forms of its operations are refused; operations whose work is not
// built yet answer CORBA::NO_IMPLEMENT.
#ifndef KELD_PROXY_LSULISTIMPL_H
#define KELD_PROXY_LSULISTIMPL_H

#include "SequencedServant.h"
#include "ServantSupport.h"

#include "Proxy.hh"

class ProxyLogger;

class LsuListImpl : public SequencedServant<POA_API::LsuList> {
public:
    LsuListImpl(PortableServer::POA_ptr poa, ProxyLogger* plog);
    ~LsuListImpl() override;

    void closeLsuList() override;
    void closeLsuListV12(API::UInt64 callsequence) override;
    CORBA::Long listLsu(API::LsuName_out lsuname) override;
    CORBA::Long listLsuV12(API::UInt64 callsequence, API::LsuName_out lsuName) override;
};

#endif
