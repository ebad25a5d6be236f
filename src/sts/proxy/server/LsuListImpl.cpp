#include "LsuListImpl.h"

LsuListImpl::LsuListImpl(PortableServer::POA_ptr poa, ProxyLogger* plog)
    : m_vobjPOA(PortableServer::POA::_duplicate(poa)), m_plog(plog), m_CallSeq(plog)
{
}

LsuListImpl::~LsuListImpl() = default;

PortableServer::POA_ptr LsuListImpl::_default_POA()
{
    return PortableServer::POA::_duplicate(m_vobjPOA);
}

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
