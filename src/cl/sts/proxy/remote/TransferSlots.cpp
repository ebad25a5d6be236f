// Data and metadata of an image, moved in pieces the service accepts: one
// piece is one numbered call, and only pieces longer than the transfer
// limit make a transfer into several calls.
#include "RemoteHandles.h"
#include "RemoteSlots.h"

#include <algorithm>
#include <cstring>

namespace {

enum class Stream { DATA, META };

// Writes go on after a partial count under a new number; a busy answer
// without progress waits and tries again, up to retry_tries.
int writePieces(const char* szWho, sts_handle_t h, Stream stream, const void* buf, sts_uint64_t len,
                sts_uint64_t off, sts_uint64_t* done)
{
    return guarded(szWho, [&] {
        ImageHandle* img = remoteHandle<ImageHandle>(h, IMAGE);
        if (img == nullptr) return STSP_EBADHANDLE;
        if (done == nullptr || (buf == nullptr && len > 0)) return STS_EINVAL_ARG;
        const auto* bytes = static_cast<const CORBA::Octet*>(buf);
        const sts_uint64_t piece = remote::transferLimit();
        *done = 0;
        int idle = 0;
        do {
            const sts_uint64_t n = std::min(piece, len - *done);
            const API::Bytes data(static_cast<CORBA::ULong>(n), static_cast<CORBA::ULong>(n),
                                  const_cast<CORBA::Octet*>(bytes + *done), false);
            API::UInt64 written = 0;
            const CallOutcome o = img->call(szWho, [&](API::UInt64 seq) {
                if (stream == Stream::DATA) {
                    img->ref->writeImageV12(seq, data, n, off + *done, written);
                } else {
                    img->ref->writeImageMetaV12(seq, data, n, off + *done, written);
                }
                return 0;
            });
            if (o.code == 0) {
                *done += std::min<sts_uint64_t>(written, n);
                if (written < n) return 0;   // the plug-in took less and said so
                continue;
            }
            if (o.withBytes) *done += std::min<sts_uint64_t>(o.bytes, n);
            if (!busyAnswer(o.code)) return o.code;
            idle = o.bytes > 0 ? 0 : idle + 1;
            if (idle >= remote::settings().retryTries) return o.code;
            if (idle > 0) remote::pauseBeforeTry(idle);
        } while (*done < len);
        return 0;
    });
}

// A read answered with a partial count sent its count but not its bytes:
// the piece is read again under a new number.  Fewer bytes than asked with
// success is the end of the image.
int readPieces(const char* szWho, sts_handle_t h, Stream stream, void* buf, sts_uint64_t len, sts_uint64_t off,
               sts_uint64_t* done)
{
    return guarded(szWho, [&] {
        ImageHandle* img = remoteHandle<ImageHandle>(h, IMAGE);
        if (img == nullptr) return STSP_EBADHANDLE;
        if (done == nullptr || (buf == nullptr && len > 0)) return STS_EINVAL_ARG;
        auto* bytes = static_cast<unsigned char*>(buf);
        const sts_uint64_t piece = remote::transferLimit();
        *done = 0;
        int busyTries = 0;
        do {
            const sts_uint64_t n = std::min(piece, len - *done);
            API::Bytes_var data;
            API::UInt64 got = 0;
            const CallOutcome o = img->call(szWho, [&](API::UInt64 seq) {
                if (stream == Stream::DATA) {
                    img->ref->readImageV12(seq, data, n, off + *done, got);
                } else {
                    img->ref->readImageMetaV12(seq, data, n, off + *done, got);
                }
                return 0;
            });
            if (o.code == 0) {
                const sts_uint64_t valid = std::min<sts_uint64_t>({got, n, data->length()});
                if (valid > 0) std::memcpy(bytes + *done, data->get_buffer(), valid);
                *done += valid;
                if (valid < n) return 0;
                busyTries = 0;
                continue;
            }
            if (!busyAnswer(o.code) || ++busyTries >= remote::settings().retryTries) return o.code;
            remote::pauseBeforeTry(busyTries);
        } while (*done < len);
        return 0;
    });
}

int writeImage(sts_handle_t h, sts_stat_t*, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    return writePieces("remote::writeImage", h, Stream::DATA, buf, len, off, done);
}

int readImage(sts_handle_t h, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    return readPieces("remote::readImage", h, Stream::DATA, buf, len, off, done);
}

int writeImageMeta(sts_handle_t h, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    return writePieces("remote::writeImageMeta", h, Stream::META, buf, len, off, done);
}

int readImageMeta(sts_handle_t h, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    return readPieces("remote::readImageMeta", h, Stream::META, buf, len, off, done);
}

} // namespace

void fillTransferSlots(sts_api_t& a)
{
    a.stsa_write_image = writeImage;
    a.stsa_read_image = readImage;
    a.stsa_write_image_meta = writeImageMeta;
    a.stsa_read_image_meta = readImageMeta;
}
