#include "ImageListImpl.h"

ImageListImpl::ImageListImpl(PortableServer::POA_ptr poa, ProxyLogger* plog)
    : SequencedServant(poa, plog)
{
}

ImageListImpl::~ImageListImpl() = default;

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
