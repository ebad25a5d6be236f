// One open image: its data, metadata, copies and files.
// Older forms of its operations are refused; operations whose work is not
// built yet answer CORBA::NO_IMPLEMENT.
#ifndef KELD_PROXY_IMAGEIMPL_H
#define KELD_PROXY_IMAGEIMPL_H

#include "SequencedServant.h"
#include "ServantSupport.h"

#include "Proxy.hh"

class ProxyLogger;

class ImageImpl : public SequencedServant<POA_API::Image> {
public:
    ImageImpl(PortableServer::POA_ptr poa, ProxyLogger* plog);
    ~ImageImpl() override;

    void readImage(API::Bytes_out data, API::UInt64 length, API::UInt64 offset, API::UInt64& bytesread) override;
    void readImageV12(API::UInt64 callsequence, API::Bytes_out bytesOut, API::UInt64 u64Length, API::UInt64 u64Offset, API::UInt64& u64BytesReadOut) override;
    void asyncReadImage(API::Bytes_out bytesOut, API::UInt64 u64Length, API::UInt64 u64Offset, API::AioResult_out outResult) override;
    void asyncReadImageV11(API::UInt64 u64Length, API::UInt64 u64Offset, API::OpIdV11& opid) override;
    void asyncReadImageV12(API::UInt64 callsequence, API::UInt64 u64Length, API::UInt64 u64Offset, API::OpIdV11& opid) override;
    void writeImage(const API::Bytes& data, API::UInt64 length, API::UInt64 offset, API::UInt64& bytewritten) override;
    void writeImageV12(API::UInt64 callsequence, const API::Bytes& bytes, API::UInt64 u64Length, API::UInt64 u64Offset, API::UInt64& u64BytesWrittenOut) override;
    void asyncWriteImage(const API::Bytes& bytes, API::UInt64 u64Length, API::UInt64 u64Offset, API::AioResult_out outResult) override;
    void asyncWriteImageV11(API::UInt64 u64Length, API::UInt64 u64Offset, API::OpIdV11& opid) override;
    void asyncWriteImageV12(API::UInt64 callsequence, API::UInt64 u64Length, API::UInt64 u64Offset, API::OpIdV11& opid) override;
    void asyncWait(API::AioResult_out aioResult) override;
    void asyncWaitV11(API::OpIdV11 opid, API::AioResultV11& aioResult) override;
    void asyncWaitV12(API::UInt64 callsequence, API::OpIdV11 opid, API::AioResultV11& aioResult) override;
    void flush() override;
    void flushV12(API::UInt64 callsequence) override;
    void readImageMeta(API::Bytes_out data, API::UInt64 length, API::UInt64 offset, API::UInt64& bytesread) override;
    void readImageMetaV12(API::UInt64 callsequence, API::Bytes_out bytesOut, API::UInt64 u64Length, API::UInt64 u64Offset, API::UInt64& u64BytesReadOut) override;
    void writeImageMeta(const API::Bytes& data, API::UInt64 length, API::UInt64 offset, API::UInt64& bytewritten) override;
    void writeImageMetaV12(API::UInt64 callsequence, const API::Bytes& bytes, API::UInt64 u64Length, API::UInt64 u64Offset, API::UInt64& u64BytesWrittenOut) override;
    void includeInImageV9(API::UInt64 offset_to, API::Image_ptr image_from_handle, API::UInt64 offset_from, API::UInt64 len) override;
    void includeInImageV10(API::UInt64 offset_to, API::Image_ptr iimage_from_handle, API::UInt64 offset_from, API::UInt64 len, API::UInt64& byteincluded) override;
    void includeInImageV12(API::UInt64 callsequence, API::UInt64 offset_to, API::Image_ptr image_from_handle, API::UInt64 offset_from, API::UInt64 len, API::UInt64& byteincluded) override;
    void copyExtent(API::UInt64 to_offset, API::Image_ptr from_image, API::UInt64 from_offset, API::UInt64 len, CORBA::Long flags, API::UInt64& bytescopied) override;
    void copyExtentV12(API::UInt64 callsequence, API::UInt64 to_offset, API::Image_ptr from_image, API::UInt64 from_offset, API::UInt64 len, CORBA::Long flags, API::UInt64& bytescopied) override;
    void deleteFiles(const API::StringSeq& path, CORBA::Long npath) override;
    void deleteFilesV12(API::UInt64 callsequence, const API::StringSeq& pathseq, CORBA::Long npath) override;
    void closeImage(CORBA::Long flag, CORBA::Long reserved) override;
    void closeImageV12(API::UInt64 callsequence, CORBA::Long flag, CORBA::Long reserved) override;
    CORBA::Long getImagePropV9(API::ImageInformationV9_out imi) override;
    CORBA::Long getImagePropV10(API::ImageInformationV10_out imi) override;
    CORBA::Long getImagePropV12(API::UInt64 callsequence, API::ImageInformationV10_out imi) override;
    CORBA::Long getImagePropV13(API::UInt64 callsequence, API::ImageInformationV13_out imgInfoOut) override;
    CORBA::Long getImageGroup(API::UInt32& group) override;
    CORBA::Long getImageGroupV12(API::UInt64 callsequence, API::UInt32& groupOut) override;
    CORBA::Long extractFiles(const char* lsu, CORBA::Long asyncflag) override;
    CORBA::Long extractFilesV12(API::UInt64 callsequence, const char* lsuname, CORBA::Long asyncflag) override;
};

#endif
