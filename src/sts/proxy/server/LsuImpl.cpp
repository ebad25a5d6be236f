#include "LsuImpl.h"

LsuImpl::LsuImpl(PortableServer::POA_ptr poa, ProxyLogger* plog)
    : SequencedServant(poa, plog)
{
}

LsuImpl::~LsuImpl() = default;

CORBA::Long LsuImpl::allocateLsu(const API::StorageElement&)
{
    refuseOperation();
}

CORBA::Long LsuImpl::allocateLsuV12(API::UInt64, const API::StorageElement&)
{
    notImplementedYet();
}

CORBA::Long LsuImpl::closeLsu()
{
    refuseOperation();
}

CORBA::Long LsuImpl::closeLsuV12(API::UInt64)
{
    notImplementedYet();
}

CORBA::Long LsuImpl::getLsuProp(API::LsuInformation_out)
{
    refuseOperation();
}

CORBA::Long LsuImpl::getLsuPropV11(API::LsuInformationV11_out lsuInfoOut)
{
    return getLsuPropV12(0, lsuInfoOut);
}

CORBA::Long LsuImpl::getLsuPropV12(API::UInt64, API::LsuInformationV11_out)
{
    refuseOperation();
}

CORBA::Long LsuImpl::deallocateLsu(const API::StorageElement&)
{
    refuseOperation();
}

CORBA::Long LsuImpl::deallocateLsuV12(API::UInt64, const API::StorageElement&)
{
    notImplementedYet();
}

CORBA::Long LsuImpl::addPoolLsu(const API::LSUPool&)
{
    refuseOperation();
}

CORBA::Long LsuImpl::addPoolLsuV12(API::UInt64, const API::LSUPool&)
{
    notImplementedYet();
}

API::LSUPoolSeq* LsuImpl::getPoolLsu(CORBA::Long, CORBA::Long&, CORBA::Long&)
{
    refuseOperation();
}

API::LSUPoolSeq* LsuImpl::getPoolLsuV12(API::UInt64, CORBA::Long, CORBA::Long&, CORBA::Long&)
{
    notImplementedYet();
}

CORBA::Long LsuImpl::removePoolLsu(const char*)
{
    refuseOperation();
}

CORBA::Long LsuImpl::removePoolLsuV12(API::UInt64, const char*)
{
    notImplementedYet();
}

API::StorageElementSeq* LsuImpl::getStorel(CORBA::Long, CORBA::Long&, CORBA::Long&)
{
    refuseOperation();
}

API::StorageElementSeq* LsuImpl::getStorelV12(API::UInt64, CORBA::Long, CORBA::Long&, CORBA::Long&)
{
    notImplementedYet();
}
