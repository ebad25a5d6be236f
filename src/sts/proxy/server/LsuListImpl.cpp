#include "LsuListImpl.h"

LsuListImpl::LsuListImpl(PortableServer::POA_ptr poa, ProxyLogger* plog)
    : SequencedServant(poa, plog)
{
}

LsuListImpl::~LsuListImpl() = default;

void LsuListImpl::closeLsuList()
{
    refuseOperation();
}

void LsuListImpl::closeLsuListV12(API::UInt64)
{
    notImplementedYet();
}

CORBA::Long LsuListImpl::listLsu(API::LsuName_out)
{
    refuseOperation();
}

CORBA::Long LsuListImpl::listLsuV12(API::UInt64, API::LsuName_out)
{
    notImplementedYet();
}
