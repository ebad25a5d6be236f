#include "ImageImpl.h"

#include "Metrics.h"
#include "Orb.h"
#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "ServantSite.h"
#include "SessionManager.h"
#include "StsBinding.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>

struct ImageImpl::TransferKind {
    const char* szWho;
    TransferMetric metric;
    const char* requestLog;     // %s: the image's base name (when it names one)
    const char* okLog;          // %llu %llu: length, offset
    const char* failLog;        // %llu %llu %d: length, offset, number
    const char* failText;
    const char* noMemoryText;   // a read buffer could not be made
    // Data transfers answer a busy or try-again result with the count done
    // so far (STSError_val) and log the way out; metadata does neither.
    bool partial;
    const char* partialLog;     // %d %llu: number, count
    const char* valLog;         // %d %llu
    const char* otherLog;       // %llu
};

namespace {

const ImageImpl::TransferKind kReadData = {
    "ImageImpl::readImage", TransferMetric::kDataRead, "got one request of reading image: %s",
    "sts_read_image succeeds, length of buffer is %llu, offset is %llu",
    "sts_read_image failed, length of buffer is %llu, offset is %llu, sts return %d",
    "fail to call sts_read_image", "fail to new one instance of Bytes", true,
    "sts_read_image failed, sts return %d, bytesRead %llu",
    "sts_read_image failed: stsErrnoNo = %d, ex.bytesRead %llu bytes", "sts_read_image failed, read %llu bytes"};

const ImageImpl::TransferKind kWriteData = {
    "ImageImpl::writeImage", TransferMetric::kDataWrite, "got one request of writting image: %s",
    "sts_write_image succeeds, length of buffer is %llu, offset is %llu",
    "sts_write_image failed, length of buffer is %llu, offset is %llu, sts return %d",
    "fail to call sts_write_image", nullptr, true, "sts+write_image failed, sts return %d, bytesWritten %llu",
    "sts_write_image failed: stsErrorNo = %d, ex.bytesWritten %llu bytes",
    "sts_write_image failed, written %llu bytes"};

const ImageImpl::TransferKind kReadMeta = {
    "ImageImpl::readImageMeta", TransferMetric::kMetaRead, "got one request of reading image meta",
    "sts_read_image_meta succeeds, length of buffer is %llu, offset is %llu",
    "sts_read_image_meta fails, length of buffer is %llu, offset is %llu, sts return %d",
    "fail to call sts_read_image_meta",
    "fail to new one instance of Orvanis::Keldrive::DiskMediaServer::STS::Proxy::V9::Bytes on server side", false,
    nullptr, nullptr, nullptr};

const ImageImpl::TransferKind kWriteMeta = {
    "ImageImpl::writeImageMeta", TransferMetric::kMetaWrite, "got one request of writing image meta",
    "sts_write_image_meta succeeds, length of buffer is %llu, offset is %llu",
    "sts_write_image_meta fails, length of buffer is %llu, offset is %llu, sts return %d",
    "fail to call sts_write_image_meta", nullptr, false, nullptr, nullptr, nullptr};

bool busyOrAgain(int nErr)
{
    return nErr == STS_EBUSY_AGAIN || nErr == STS_EIN_USE;
}

unsigned long long ull(API::UInt64 v)
{
    return static_cast<unsigned long long>(v);
}

} // namespace

SessionUse::SessionUse(SessionManager* sm, const sts_session_def_t& sd, ProxyLogger* plog, const char* szWho)
    : m_sm(sm), m_sd(sd), m_plog(plog), m_szWho(szWho)
{
    if (m_sd.sd_id == nullptr || m_sm == nullptr) return;
    const int n = m_sm->AddCounter(m_sd.sd_id);
    m_plog->logMsg(&m_sd, m_szWho, STS_ESDEBUG, "counter for session id %s is %d", m_sd.sd_id, n);
}

// Before the result is looked at: the count is given back on every way out.
SessionUse::~SessionUse()
{
    if (m_sd.sd_id == nullptr || m_sm == nullptr) return;
    const int n = m_sm->DeleteCounter(m_sd.sd_id);
    m_plog->logMsg(&m_sd, m_szWho, STS_ESDEBUG, "delete counter for session id %s, now it is %d", m_sd.sd_id, n);
}

ImageImpl::ImageImpl(const PortableServer::POA_ptr& poa, const ServerLink& server, ProxyLogger* plog,
                     sts_session_def_t sd, SessionManager* sm)
    : SessionServant(poa, plog, sd, server), m_sm(sm)
{
    reset();
    m_lsu.stl_server_handle = server.handle;   // after reset, which clears all of m_lsu
    m_plog->logMsg(&m_sd, "ImageImpl::ImageImpl", STS_ESDEBUG, "new instance of object ImageImpl %p",
                   static_cast<void*>(this));
}

// No storage call: a handle that was never closed stays open in the plug-in.
ImageImpl::~ImageImpl()
{
    m_plog->logMsg(&m_sd, "ImageImpl::~ImageImpl", STS_ESDEBUG, "the object of ImageImpl is destroyed here %p",
                   static_cast<void*>(this));
}

// After a late reset the server handle is gone too, and nothing restores it.
void ImageImpl::reset()
{
    m_imh = nullptr;
    std::memset(&m_lsu, 0, sizeof(m_lsu));
    std::memset(&m_imd, 0, sizeof(m_imd));
    m_plog->logMsg(&m_sd, "ImageImpl::reset", STS_ESDEBUG, "init the members");
}

void ImageImpl::openOrCreate(bool create, const char* lsu, const API::ImageDefinitionV13& imd,
                             CORBA::Long modeOrFlags, CallSequence& cs)
{
    const ServantSite here = site(create ? "ImageImpl::createImageV13" : "ImageImpl::openImageV13");
    try {
        // Before the definition is converted: the name is still empty here.
        here.log(STS_ESDEBUG, create ? "got one request of creating image: %s" : "got one request of opening image: %s",
                 m_imd.img_basename);
        toC(m_lsu.stl_lsu_name.sln_name, lsu, 1024);
        CORBA2ZVS(imd, &m_imd);
        sts_image_handle_t handle = nullptr;
        int nErr = 0;
        {
            SessionUse use(m_sm, m_sd, m_plog, here.szWho);
            nErr = create ? STS_CALL(stsa_create_image, &m_lsu, &m_imd, modeOrFlags, &handle)
                          : STS_CALL(stsa_open_image, &m_lsu, &m_imd, modeOrFlags, &handle);
        }
        raiseOnFailure(nErr, cs, here, create ? "fail to call sts_create_image" : "fail to call sts_open_image",
                       create ? "sts_create_image failed for %s, sts return %d" : "sts_open_image failed for %s, sts return %d",
                       m_imd.img_basename);
        m_imh = handle;
        // An image its client never closed stays incomplete: its server's
        // close or cleanup closes the handle without completing the image.
        keepOpen([this] { abandonPluginHandle(m_imh, 0, site("ImageImpl::abandon"), "image"); });
        here.log(STS_ESINFO, create ? "succeed to create the image %s" : "succeed to open the image %s",
                 m_imd.img_basename);
    } catch (...) {
        reset();
        throw;
    }
}

void ImageImpl::openImageV13(const char* lsu, const API::ImageDefinitionV13& imd, CORBA::Long mode, CallSequence& cs)
{
    openOrCreate(false, lsu, imd, mode, cs);
}

void ImageImpl::createImageV13(const char* lsu, const API::ImageDefinitionV13& imd, CORBA::Long flags,
                               CallSequence& cs)
{
    openOrCreate(true, lsu, imd, flags, cs);
}

// A non-zero reserved overrides flag.  Any close, failed or not, forgets
// the handle: after a success the plug-in has freed it, and handing it over
// again could only touch freed memory, so later closes and flushes answer
// "image has not been opened" and data calls reach the plug-in with none.
void ImageImpl::closeHandle(CORBA::Long flag, CORBA::Long reserved, CallSequence& cs, const char* szWho)
{
    const ServantSite here = site(szWho);
    const HandleClosing closing(*m_gate, cs, here);
    try {
        here.log(STS_ESDEBUG, "got one request of closing image: %s", m_imd.img_basename);
        if (m_imh == nullptr) {
            here.log(STS_ESERROR, "image handle is NULL");
            failRecorded(cs, STS_ENOT_OPEN, "image has not been opened");
        }
        int nErr = 0;
        {
            SessionUse use(m_sm, m_sd, m_plog, szWho);
            nErr = STS_CALL(stsa_close_handle, m_imh, static_cast<sts_uint32_t>(reserved != 0 ? reserved : flag));
        }
        m_imh = nullptr;
        raiseOnFailure(nErr, cs, here, "fail to close image ", "sts_close_image failed, sts return %d");
        here.log(STS_ESINFO, "succeed to close the image %s", m_imd.img_basename);
    } catch (...) {
        reset();
        throw;
    }
}

void ImageImpl::closeImageX(CORBA::Long flag, CORBA::Long reserved, CallSequence& cs)
{
    closeHandle(flag, reserved, cs, "ImageImpl::closeImageX");
}

void ImageImpl::closeImageV12(API::UInt64 callsequence, CORBA::Long flag, CORBA::Long reserved)
{
    static const char* szWho = "ImageImpl::closeImageV12";
    runSequenced(m_CallSeq, callsequence, szWho, nullptr, [](CallSequence&) {},
        [&](CallSequence& cs) {
            closeHandle(flag, reserved, cs, szWho);
            cs.storeServantForDeactivate(this, m_vobjPOA);
            cs.recordCompletion(0, "ok");
        });
}

void ImageImpl::flushV12(API::UInt64 callsequence)
{
    const ServantSite here = site("ImageImpl::flush");
    runSequenced(m_CallSeq, callsequence, here.szWho, nullptr, [](CallSequence&) {},
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, "got one request of flushing");
            if (m_imh == nullptr) {
                here.log(STS_ESERROR, "image handle is NULL");
                failRecorded(cs, STS_ENOT_OPEN, "image has not been opened");
            }
            raiseOnFailure(STS_CALL(stsa_flush, m_imh), cs, here, "fail to flush image", "sts_flush failed, sts return %d");
            here.log(STS_ESINFO, "succeed to flush image %s", m_imd.img_basename);
            cs.recordCompletion(0, "ok");
        });
}

// The plug-in's side of a transfer, either way: a busy or would-block
// answer of a data call records the bytes done with it, any other failure
// is recorded plain; success is logged.
void ImageImpl::callPlugin(const TransferKind& kind, const ServantSite& here, CallSequence& cs, void* buffer,
                           API::UInt64 length, API::UInt64 offset, API::UInt64& done, const TransferCall& call)
{
    done = 0;   // a plug-in that fails may leave it alone; it is logged and answered
    try {
        const auto started = std::chrono::steady_clock::now();
        const int nErr = call(buffer, length, offset, &done);
        ServiceMetrics::process().transfer(kind.metric).record(std::min(done, length), std::chrono::steady_clock::now() - started);
        if (kind.partial && busyOrAgain(nErr)) {
            here.log(STS_ESERROR, kind.partialLog, nErr, ull(done));
            failRecorded(cs, nErr, kind.failText, done);
        }
        if (nErr != 0) {
            here.log(STS_ESERROR, kind.failLog, ull(length), ull(offset), nErr);
            failRecorded(cs, nErr, kind.failText);
        }
    } catch (const API::STSError_val& e) {
        if (kind.valLog != nullptr) here.log(STS_ESERROR, kind.valLog, static_cast<int>(e.stsErrorNo), ull(e.bytesReturned));
        throw;
    } catch (...) {
        if (kind.otherLog != nullptr) here.log(STS_ESERROR, kind.otherLog, ull(done));
        throw;
    }
    here.log(STS_ESINFO, kind.okLog, ull(length), ull(offset));
}

// A read: a new sequence of the requested length, filled in place by the
// plug-in; done tells how much of it is valid.  One deep copy goes into
// the record, so a retry gets these very bytes even after the image changed.
void ImageImpl::readTransfer(const TransferKind& kind, API::UInt64 callsequence, API::Bytes_out bytesOut,
                             API::UInt64 length, API::UInt64 offset, API::UInt64& done, const TransferCall& call)
{
    const ServantSite here = site(kind.szWho);
    runSequenced(m_CallSeq, callsequence, kind.szWho, &done,
        [&](CallSequence& cs) {
            if (!cs.getBytes(bytesOut)) bytesOut = new API::Bytes;   // never a null reply
        },
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, kind.requestLog, m_imd.img_basename);
            // The reply must fit in one message of the ORB, and the plug-in
            // must never be told of more room than the buffer has.
            if (length > Orb::maxPayloadBytes()) {
                here.log(STS_ESERROR, "a read of %llu bytes is larger than the %lu bytes a reply may carry",
                         ull(length), Orb::maxPayloadBytes());
                failRecorded(cs, STS_EINVAL_ARG, "read length is larger than the service can send");
            }
            const CORBA::ULong size = static_cast<CORBA::ULong>(length);
            API::Bytes_var data;
            try {
                data = new API::Bytes(size);
            } catch (const std::bad_alloc&) {
                errno = ENOMEM;
                here.log(STS_ESERROR, "new Bytes failed");
                failRecorded(cs, STS_ENOMEM_OBJ, kind.noMemoryText);
            }
            data->length(size);
            callPlugin(kind, here, cs, data->get_buffer(), length, offset, done, call);
            cs.setBytes(data.in());
            bytesOut = data._retn();
            cs.recordCompletion(0, "ok", done);
        });
}

// A write: the client's buffer goes to the plug-in in place, and only the
// count is recorded, so a retry answers without writing again.
void ImageImpl::writeTransfer(const TransferKind& kind, API::UInt64 callsequence, const API::Bytes& bytes,
                              API::UInt64 length, API::UInt64 offset, API::UInt64& done, const TransferCall& call)
{
    const ServantSite here = site(kind.szWho);
    runSequenced(m_CallSeq, callsequence, kind.szWho, &done, [](CallSequence&) {},
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, kind.requestLog, m_imd.img_basename);
            // The length is the client's word: never more than it sent, or
            // the plug-in would read past the buffer.
            if (length > bytes.length()) {
                here.log(STS_ESERROR, "a write of %llu bytes came with %lu bytes of data", ull(length),
                         static_cast<unsigned long>(bytes.length()));
                failRecorded(cs, STS_EINVAL_ARG, "write length is larger than the data sent");
            }
            void* buffer = const_cast<CORBA::Octet*>(bytes.get_buffer());
            callPlugin(kind, here, cs, buffer, length, offset, done, call);
            cs.recordCompletion(0, "ok", done);
        });
}

void ImageImpl::readImageV12(API::UInt64 callsequence, API::Bytes_out bytesOut, API::UInt64 u64Length,
                             API::UInt64 u64Offset, API::UInt64& u64BytesReadOut)
{
    readTransfer(kReadData, callsequence, bytesOut, u64Length, u64Offset, u64BytesReadOut,
        [this](void* buf, API::UInt64 len, API::UInt64 off, API::UInt64* done) {
            return STS_CALL(stsa_read_image, m_imh, buf, len, off, done);
        });
}

void ImageImpl::writeImageV12(API::UInt64 callsequence, const API::Bytes& bytes, API::UInt64 u64Length,
                              API::UInt64 u64Offset, API::UInt64& u64BytesWrittenOut)
{
    writeTransfer(kWriteData, callsequence, bytes, u64Length, u64Offset, u64BytesWrittenOut,
        [this](void* buf, API::UInt64 len, API::UInt64 off, API::UInt64* done) {
            return STS_CALL(stsa_write_image, m_imh, nullptr, buf, len, off, done);
        });
}

void ImageImpl::readImageMetaV12(API::UInt64 callsequence, API::Bytes_out bytesOut, API::UInt64 u64Length,
                                 API::UInt64 u64Offset, API::UInt64& u64BytesReadOut)
{
    readTransfer(kReadMeta, callsequence, bytesOut, u64Length, u64Offset, u64BytesReadOut,
        [this](void* buf, API::UInt64 len, API::UInt64 off, API::UInt64* done) {
            return STS_CALL(stsa_read_image_meta, m_imh, buf, len, off, done);
        });
}

void ImageImpl::writeImageMetaV12(API::UInt64 callsequence, const API::Bytes& bytes, API::UInt64 u64Length,
                                  API::UInt64 u64Offset, API::UInt64& u64BytesWrittenOut)
{
    writeTransfer(kWriteMeta, callsequence, bytes, u64Length, u64Offset, u64BytesWrittenOut,
        [this](void* buf, API::UInt64 len, API::UInt64 off, API::UInt64* done) {
            return STS_CALL(stsa_write_image_meta, m_imh, buf, len, off, done);
        });
}
