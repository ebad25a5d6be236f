// One image a client opened or created through its storage server.  It owns
// the plug-in's image handle and passes each transfer, one for one, to the
// storage table: it buffers, chunks, caches and reorders nothing.  What it
// adds is the safe retry of its own call record (a retried write is never
// written twice, a retried read gets the first answer's bytes), the
// plug-in's results as STSError or STSError_val, and the log.
//
// Lifecycle and data path live in ImageImpl.cpp; copy, include, metadata,
// files and properties in ImageCopyOps.cpp.
#ifndef KELD_PROXY_IMAGEIMPL_H
#define KELD_PROXY_IMAGEIMPL_H

#include "SequencedServant.h"
#include "ServantSupport.h"
#include "sts_api.h"

#include "Proxy.hh"

#include <functional>

class ProxyLogger;
class SessionManager;

class ImageImpl : public SessionServant<POA_API::Image> {
public:
    ImageImpl(const PortableServer::POA_ptr& poa, const ServerLink& server, ProxyLogger* plog,
              sts_session_def_t sd, SessionManager* sm);
    ~ImageImpl() override;

    // The server's factories and close: failures go into the server's
    // record cs; success is recorded by the caller.
    void openImageV13(const char* lsu, const API::ImageDefinitionV13& imd, CORBA::Long mode, CallSequence& cs);
    void createImageV13(const char* lsu, const API::ImageDefinitionV13& imd, CORBA::Long flags, CallSequence& cs);
    void closeImageX(CORBA::Long flag, CORBA::Long reserved, CallSequence& cs);

    sts_image_handle_t getHandle() const { return m_imh; }
    sts_image_def_t getImageDef() const { return m_imd; }
    sts_session_def_t getSession() const { return m_sd; }
    SessionManager* getSessionManager() const { return m_sm; }
    void reset();

    void readImageV12(API::UInt64 callsequence, API::Bytes_out bytesOut, API::UInt64 u64Length, API::UInt64 u64Offset, API::UInt64& u64BytesReadOut) override;
    void writeImageV12(API::UInt64 callsequence, const API::Bytes& bytes, API::UInt64 u64Length, API::UInt64 u64Offset, API::UInt64& u64BytesWrittenOut) override;
    void flushV12(API::UInt64 callsequence) override;
    void readImageMetaV12(API::UInt64 callsequence, API::Bytes_out bytesOut, API::UInt64 u64Length, API::UInt64 u64Offset, API::UInt64& u64BytesReadOut) override;
    void writeImageMetaV12(API::UInt64 callsequence, const API::Bytes& bytes, API::UInt64 u64Length, API::UInt64 u64Offset, API::UInt64& u64BytesWrittenOut) override;
    void includeInImageV9(API::UInt64 offset_to, API::Image_ptr image_from_handle, API::UInt64 offset_from, API::UInt64 len) override;
    void includeInImageV12(API::UInt64 callsequence, API::UInt64 offset_to, API::Image_ptr image_from_handle, API::UInt64 offset_from, API::UInt64 len, API::UInt64& byteincluded) override;
    void copyExtentV12(API::UInt64 callsequence, API::UInt64 to_offset, API::Image_ptr from_image, API::UInt64 from_offset, API::UInt64 len, CORBA::Long flags, API::UInt64& bytescopied) override;
    void deleteFilesV12(API::UInt64 callsequence, const API::StringSeq& pathseq, CORBA::Long npath) override;
    void closeImageV12(API::UInt64 callsequence, CORBA::Long flag, CORBA::Long reserved) override;
    CORBA::Long getImagePropV13(API::UInt64 callsequence, API::ImageInformationV13_out imgInfoOut) override;
    CORBA::Long getImageGroupV12(API::UInt64 callsequence, API::UInt32& groupOut) override;
    CORBA::Long extractFilesV12(API::UInt64 callsequence, const char* lsuname, CORBA::Long asyncflag) override;

    // Refused, each with 2060016 (RefusedForms.cpp).
    void readImage(API::Bytes_out data, API::UInt64 length, API::UInt64 offset, API::UInt64& bytesread) override;
    void asyncReadImage(API::Bytes_out bytesOut, API::UInt64 u64Length, API::UInt64 u64Offset, API::AioResult_out outResult) override;
    void asyncReadImageV11(API::UInt64 u64Length, API::UInt64 u64Offset, API::OpIdV11& opid) override;
    void asyncReadImageV12(API::UInt64 callsequence, API::UInt64 u64Length, API::UInt64 u64Offset, API::OpIdV11& opid) override;
    void writeImage(const API::Bytes& data, API::UInt64 length, API::UInt64 offset, API::UInt64& bytewritten) override;
    void asyncWriteImage(const API::Bytes& bytes, API::UInt64 u64Length, API::UInt64 u64Offset, API::AioResult_out outResult) override;
    void asyncWriteImageV11(API::UInt64 u64Length, API::UInt64 u64Offset, API::OpIdV11& opid) override;
    void asyncWriteImageV12(API::UInt64 callsequence, API::UInt64 u64Length, API::UInt64 u64Offset, API::OpIdV11& opid) override;
    void asyncWait(API::AioResult_out aioResult) override;
    void asyncWaitV11(API::OpIdV11 opid, API::AioResultV11& aioResult) override;
    void asyncWaitV12(API::UInt64 callsequence, API::OpIdV11 opid, API::AioResultV11& aioResult) override;
    void flush() override;
    void readImageMeta(API::Bytes_out data, API::UInt64 length, API::UInt64 offset, API::UInt64& bytesread) override;
    void writeImageMeta(const API::Bytes& data, API::UInt64 length, API::UInt64 offset, API::UInt64& bytewritten) override;
    void includeInImageV10(API::UInt64 offset_to, API::Image_ptr iimage_from_handle, API::UInt64 offset_from, API::UInt64 len, API::UInt64& byteincluded) override;
    void copyExtent(API::UInt64 to_offset, API::Image_ptr from_image, API::UInt64 from_offset, API::UInt64 len, CORBA::Long flags, API::UInt64& bytescopied) override;
    void deleteFiles(const API::StringSeq& path, CORBA::Long npath) override;
    void closeImage(CORBA::Long flag, CORBA::Long reserved) override;
    CORBA::Long getImagePropV9(API::ImageInformationV9_out imi) override;
    CORBA::Long getImagePropV10(API::ImageInformationV10_out imi) override;
    CORBA::Long getImagePropV12(API::UInt64 callsequence, API::ImageInformationV10_out imi) override;
    CORBA::Long getImageGroup(API::UInt32& group) override;
    CORBA::Long extractFiles(const char* lsu, CORBA::Long asyncflag) override;

    // What tells a data transfer from a metadata one: its texts, its slot,
    // and whether a partial transfer (2060005, 2060012) is answered with its
    // count.  See ImageImpl.cpp.
    struct TransferKind;
    using TransferCall = std::function<int(void* buffer, API::UInt64 length, API::UInt64 offset, API::UInt64* done)>;

private:
    void openOrCreate(bool create, const char* lsu, const API::ImageDefinitionV13& imd, CORBA::Long modeOrFlags,
                      CallSequence& cs);
    void closeHandle(CORBA::Long flag, CORBA::Long reserved, CallSequence& cs, const char* szWho);
    void readTransfer(const TransferKind& kind, API::UInt64 callsequence, API::Bytes_out bytesOut,
                      API::UInt64 length, API::UInt64 offset, API::UInt64& done, const TransferCall& call);
    void writeTransfer(const TransferKind& kind, API::UInt64 callsequence, const API::Bytes& bytes,
                       API::UInt64 length, API::UInt64 offset, API::UInt64& done, const TransferCall& call);
    void callPlugin(const TransferKind& kind, const struct ServantSite& here, CallSequence& cs, void* buffer,
                    API::UInt64 length, API::UInt64 offset, API::UInt64& done, const TransferCall& call);
    // The image behind a client's reference, for a copy or an include; the
    // caller holds a pass of its gate while it uses the source's handle.
    ImageImpl& sourceImage(API::Image_ptr image, PortableServer::ServantBase_var& holder);

    sts_image_handle_t m_imh = nullptr;
    sts_lsu_t m_lsu = {};
    sts_image_def_t m_imd = {};
    SessionManager* m_sm;
};

// Counts a call as a user of its session for as long as it runs, so that a
// client's cleanup of the session waits before it closes the handle.
class SessionUse {
public:
    SessionUse(SessionManager* sm, const sts_session_def_t& sd, ProxyLogger* plog, const char* szWho);
    ~SessionUse();
    SessionUse(const SessionUse&) = delete;
    SessionUse& operator=(const SessionUse&) = delete;

private:
    SessionManager* m_sm;
    const sts_session_def_t& m_sd;
    ProxyLogger* m_plog;
    const char* m_szWho;
};

#endif
