#include "ImageListImpl.h"

ImageListImpl::ImageListImpl(PortableServer::POA_ptr poa, ProxyLogger* plog)
    : m_vobjPOA(PortableServer::POA::_duplicate(poa)), m_plog(plog), m_CallSeq(plog)
{
}

ImageListImpl::~ImageListImpl() = default;

PortableServer::POA_ptr ImageListImpl::_default_POA()
{
    return PortableServer::POA::_duplicate(m_vobjPOA);
}

void ImageListImpl::closeImageList()
{
    refuseOperation();
}

void ImageListImpl::closeImageListV12(API::UInt64)
{
    notImplementedYet();
}

CORBA::Long ImageListImpl::listImageV9(API::ImageDefinitionV9_out)
{
    refuseOperation();
}

CORBA::Long ImageListImpl::listImageV10(API::ImageDefinitionV10_out)
{
    refuseOperation();
}

CORBA::Long ImageListImpl::listImageV12(API::UInt64, API::ImageDefinitionV10_out)
{
    refuseOperation();
}

CORBA::Long ImageListImpl::listImageV13(API::UInt64, API::ImageDefinitionV13_out)
{
    notImplementedYet();
}
