#include "RadosInFlight.h"

#include "RadosCompletion.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace radosstore {

// ---- writes ----

int WriteBehind::write(rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, const char* buf,
                       std::uint64_t len, std::uint64_t off)
{
    std::lock_guard<std::mutex> hold(m_lock);
    // Room for this write first, so that a failure among the older ones is
    // known before another byte is taken.
    retire(len >= m_limit ? 0 : m_limit - len);
    if (m_failed != 0) return m_failed;
    auto pieces = std::make_unique<Pieces>();
    startWrite(*pieces, io, image, objectSize, buf, len, off);
    m_inFlight.push_back({std::move(pieces), len});
    m_bytes += len;
    return 0;
}

int WriteBehind::settle()
{
    std::lock_guard<std::mutex> hold(m_lock);
    retire(0);
    return m_failed;
}

void WriteBehind::retire(std::uint64_t keep)
{
    while (!m_inFlight.empty() && m_bytes > keep) {
        const int rc = m_inFlight.front().pieces->waitAll();
        if (rc != 0 && m_failed == 0) m_failed = rc;
        m_bytes -= m_inFlight.front().bytes;
        m_inFlight.pop_front();
    }
}

// ---- reads ----

namespace {

// Enough ahead to keep the cluster busy while the caller takes one extent
// and asks for the next, little enough per reader.
const std::uint64_t READ_AHEAD_BYTES = 8ull << 20;
const std::uint64_t READ_AHEAD_EXTENTS = 4;

} // namespace

// The pieces of one extent, one per object it touches, each read into a
// buffer list that librados fills from the messages as they arrive: the
// bytes are copied once, into the caller's buffer.
struct ReadAhead::Extent {
    struct Piece {
        Completion done;
        librados::bufferlist data;
        std::uint64_t from = 0;     // where in the extent
        std::uint64_t length = 0;
    };

    Extent(rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, std::uint64_t len,
           std::uint64_t off)
        : offset(off), length(len)
    {
        librados::IoCtx::from_rados_ioctx_t(io, m_io);
        forEachPiece(objectSize, len, off, [&](std::uint64_t index, std::uint64_t at, std::uint64_t n, std::uint64_t from) {
            auto piece = std::make_unique<Piece>();
            piece->from = from;
            piece->length = n;
            piece->done.reset(librados::Rados::aio_create_completion());
            const int rc = piece->done ? m_io.aio_read(dataObject(image, index), piece->done.get(), &piece->data, n, at)
                                       : -ENOMEM;
            if (rc != 0) {
                piece->done.reset();
                if (m_notStarted == 0) m_notStarted = rc;
            }
            m_pieces.push_back(std::move(piece));
        });
    }
    ~Extent()
    {
        for (const auto& p : m_pieces)
            if (p->done) p->done->wait_for_complete();
    }
    Extent(const Extent&) = delete;
    Extent& operator=(const Extent&) = delete;

    // Waits for every piece and copies it to buf; what the cluster does not
    // have (no object, or a shorter one) reads as zeros.  0 or the first
    // failure.
    int takeInto(char* buf)
    {
        int failed = m_notStarted;
        for (const auto& p : m_pieces) {
            if (!p->done) continue;
            p->done->wait_for_complete();
            const int rc = p->done->get_return_value();
            if (rc < 0 && rc != -ENOENT && failed == 0) failed = rc;
            const std::uint64_t got = rc > 0 ? std::min<std::uint64_t>(p->data.length(), p->length) : 0;
            if (got > 0) p->data.begin().copy(static_cast<unsigned>(got), buf + p->from);
            if (got < p->length) std::memset(buf + p->from + got, 0, p->length - got);
        }
        return failed;
    }

    const std::uint64_t offset;
    const std::uint64_t length;

private:
    librados::IoCtx m_io;   // shares the handle's context
    std::vector<std::unique_ptr<Piece>> m_pieces;
    int m_notStarted = 0;
};

ReadAhead::ReadAhead() = default;

ReadAhead::~ReadAhead()
{
    drop();
}

int ReadAhead::read(rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, char* buf,
                    std::uint64_t len, std::uint64_t off, std::uint64_t end)
{
    std::lock_guard<std::mutex> hold(m_lock);
    int rc = 0;
    if (!m_ahead.empty() && m_ahead.front()->offset == off && m_ahead.front()->length == len) {
        rc = m_ahead.front()->takeInto(buf);
        m_ahead.pop_front();
    } else {
        drop();
        rc = readData(io, image, objectSize, buf, len, off);
    }
    if (rc != 0) {
        drop();
        return rc;
    }
    startAhead(io, image, objectSize, off + len, len, end);
    return 0;
}

void ReadAhead::startAhead(rados_ioctx_t io, const std::string& image, std::uint64_t objectSize,
                           std::uint64_t next, std::uint64_t len, std::uint64_t end)
{
    const std::uint64_t extents = std::min(READ_AHEAD_EXTENTS, std::max<std::uint64_t>(1, READ_AHEAD_BYTES / len));
    if (!m_ahead.empty()) next = m_ahead.back()->offset + m_ahead.back()->length;
    while (m_ahead.size() < extents && next < end) {
        const std::uint64_t n = std::min(len, end - next);
        m_ahead.push_back(std::make_unique<Extent>(io, image, objectSize, n, next));
        next += n;
    }
}

void ReadAhead::forget()
{
    std::lock_guard<std::mutex> hold(m_lock);
    drop();
}

void ReadAhead::drop()
{
    m_ahead.clear();   // each waits for its pieces
}

} // namespace radosstore
