#include "ImageImpl.h"

ImageImpl::ImageImpl(PortableServer::POA_ptr poa, ProxyLogger* plog)
    : SequencedServant(poa, plog)
{
}

ImageImpl::~ImageImpl() = default;

void ImageImpl::readImage(API::Bytes_out, API::UInt64, API::UInt64, API::UInt64&)
{
    refuseOperation();
}

void ImageImpl::readImageV12(API::UInt64, API::Bytes_out, API::UInt64, API::UInt64, API::UInt64&)
{
    notImplementedYet();
}

void ImageImpl::asyncReadImage(API::Bytes_out, API::UInt64, API::UInt64, API::AioResult_out)
{
    refuseOperation();
}

void ImageImpl::asyncReadImageV11(API::UInt64 u64Length, API::UInt64 u64Offset, API::OpIdV11& opid)
{
    asyncReadImageV12(0, u64Length, u64Offset, opid);
}

void ImageImpl::asyncReadImageV12(API::UInt64, API::UInt64, API::UInt64, API::OpIdV11&)
{
    refuseOperation();
}

void ImageImpl::writeImage(const API::Bytes&, API::UInt64, API::UInt64, API::UInt64&)
{
    refuseOperation();
}

void ImageImpl::writeImageV12(API::UInt64, const API::Bytes&, API::UInt64, API::UInt64, API::UInt64&)
{
    notImplementedYet();
}

void ImageImpl::asyncWriteImage(const API::Bytes&, API::UInt64, API::UInt64, API::AioResult_out)
{
    refuseOperation();
}

void ImageImpl::asyncWriteImageV11(API::UInt64 u64Length, API::UInt64 u64Offset, API::OpIdV11& opid)
{
    asyncWriteImageV12(0, u64Length, u64Offset, opid);
}

void ImageImpl::asyncWriteImageV12(API::UInt64, API::UInt64, API::UInt64, API::OpIdV11&)
{
    refuseOperation();
}

void ImageImpl::asyncWait(API::AioResult_out)
{
    refuseOperation();
}

void ImageImpl::asyncWaitV11(API::OpIdV11 opid, API::AioResultV11& aioResult)
{
    asyncWaitV12(0, opid, aioResult);
}

void ImageImpl::asyncWaitV12(API::UInt64, API::OpIdV11, API::AioResultV11&)
{
    refuseOperation();
}

void ImageImpl::flush()
{
    refuseOperation();
}

void ImageImpl::flushV12(API::UInt64)
{
    notImplementedYet();
}

void ImageImpl::readImageMeta(API::Bytes_out, API::UInt64, API::UInt64, API::UInt64&)
{
    refuseOperation();
}

void ImageImpl::readImageMetaV12(API::UInt64, API::Bytes_out, API::UInt64, API::UInt64, API::UInt64&)
{
    notImplementedYet();
}

void ImageImpl::writeImageMeta(const API::Bytes&, API::UInt64, API::UInt64, API::UInt64&)
{
    refuseOperation();
}

void ImageImpl::writeImageMetaV12(API::UInt64, const API::Bytes&, API::UInt64, API::UInt64, API::UInt64&)
{
    notImplementedYet();
}

void ImageImpl::includeInImageV9(API::UInt64, API::Image_ptr, API::UInt64, API::UInt64)
{
}

void ImageImpl::includeInImageV10(API::UInt64, API::Image_ptr, API::UInt64, API::UInt64, API::UInt64&)
{
    refuseOperation();
}

void ImageImpl::includeInImageV12(API::UInt64, API::UInt64, API::Image_ptr, API::UInt64, API::UInt64, API::UInt64&)
{
    notImplementedYet();
}

void ImageImpl::copyExtent(API::UInt64, API::Image_ptr, API::UInt64, API::UInt64, CORBA::Long, API::UInt64&)
{
    refuseOperation();
}

void ImageImpl::copyExtentV12(API::UInt64, API::UInt64, API::Image_ptr, API::UInt64, API::UInt64, CORBA::Long, API::UInt64&)
{
    notImplementedYet();
}

void ImageImpl::deleteFiles(const API::StringSeq&, CORBA::Long)
{
    refuseOperation();
}

void ImageImpl::deleteFilesV12(API::UInt64, const API::StringSeq&, CORBA::Long)
{
    notImplementedYet();
}

void ImageImpl::closeImage(CORBA::Long, CORBA::Long)
{
    refuseOperation();
}

void ImageImpl::closeImageV12(API::UInt64, CORBA::Long, CORBA::Long)
{
    notImplementedYet();
}

CORBA::Long ImageImpl::getImagePropV9(API::ImageInformationV9_out)
{
    refuseOperation();
}

CORBA::Long ImageImpl::getImagePropV10(API::ImageInformationV10_out)
{
    refuseOperation();
}

CORBA::Long ImageImpl::getImagePropV12(API::UInt64, API::ImageInformationV10_out)
{
    refuseOperation();
}

CORBA::Long ImageImpl::getImagePropV13(API::UInt64, API::ImageInformationV13_out)
{
    notImplementedYet();
}

CORBA::Long ImageImpl::getImageGroup(API::UInt32&)
{
    refuseOperation();
}

CORBA::Long ImageImpl::getImageGroupV12(API::UInt64, API::UInt32&)
{
    notImplementedYet();
}

CORBA::Long ImageImpl::extractFiles(const char*, CORBA::Long)
{
    refuseOperation();
}

CORBA::Long ImageImpl::extractFilesV12(API::UInt64, const char*, CORBA::Long)
{
    notImplementedYet();
}
