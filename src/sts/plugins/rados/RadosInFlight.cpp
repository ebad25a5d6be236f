#include "RadosInFlight.h"

#include "RadosCompletion.h"

#include <algorithm>
#include <atomic>
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

// A read of an image's header on its way.
class HeaderLook {
public:
    HeaderLook() = default;
    ~HeaderLook()
    {
        if (m_done) m_done->wait_for_complete();
    }
    HeaderLook(const HeaderLook&) = delete;
    HeaderLook& operator=(const HeaderLook&) = delete;

    void start(librados::IoCtx& io, const std::string& image)
    {
        m_done.reset(librados::Rados::aio_create_completion());
        const int rc = m_done ? io.aio_getxattrs(headerObject(image), m_done.get(), m_xattrs) : -ENOMEM;
        if (rc != 0) {
            m_done.reset();
            m_notStarted = rc;
        }
    }
    // 0 with the header, or librados' negative errno.
    int wait(ImageHeader& out)
    {
        if (!m_done) return m_notStarted;
        m_done->wait_for_complete();
        const int rc = m_done->get_return_value();
        if (rc < 0) return rc;
        for (const auto& xattr : m_xattrs) {
            const std::string value = xattr.second.to_str();
            takeHeaderXattr(out, xattr.first.c_str(), value.data(), value.size());
        }
        return 0;
    }

private:
    Completion m_done;
    std::map<std::string, librados::bufferlist> m_xattrs;
    int m_notStarted = -EINVAL;   // wait() before start()
};

} // namespace

// The pieces of one extent, one per object it touches, each read into a
// buffer list that librados fills from the messages as they arrive: the
// bytes are copied once, into the caller's buffer.  The last piece to land
// starts the look at the header.
struct ReadAhead::Extent {
    struct Piece {
        Completion done;
        librados::bufferlist data;
        std::uint64_t from = 0;     // where in the extent
        std::uint64_t length = 0;
    };

    Extent(const ReadSource& source, std::uint64_t len, std::uint64_t off)
        : offset(off), length(len), m_image(source.image)
    {
        librados::IoCtx::from_rados_ioctx_t(source.data, m_io);
        librados::IoCtx::from_rados_ioctx_t(source.header, m_headerIo);
        forEachPiece(source.objectSize, len, off, [&](std::uint64_t index, std::uint64_t at, std::uint64_t n,
                                                      std::uint64_t from) {
            auto piece = std::make_unique<Piece>();
            piece->from = from;
            piece->length = n;
            ++m_landing;
            piece->done.reset(librados::Rados::aio_create_completion(this, &Extent::pieceLanded));
            const int rc = piece->done ? m_io.aio_read(dataObject(m_image, index), piece->done.get(), &piece->data, n, at)
                                       : -ENOMEM;
            if (rc != 0) {
                piece->done.reset();
                if (m_notStarted == 0) m_notStarted = rc;
                landed();
            }
            m_pieces.push_back(std::move(piece));
        });
        landed();   // the hold taken for the pieces' start
    }
    ~Extent()
    {
        for (const auto& p : m_pieces)
            if (p->done) p->done->wait_for_complete_and_cb();
    }
    Extent(const Extent&) = delete;
    Extent& operator=(const Extent&) = delete;

    // Waits for every piece and copies it to buf; what the cluster does not
    // have (no object, or a shorter one) reads as zeros.  Then the header
    // as found after the last piece landed.  0 or the first failure.
    int takeInto(char* buf, ImageHeader& header)
    {
        int failed = m_notStarted;
        for (const auto& p : m_pieces) {
            if (!p->done) continue;
            p->done->wait_for_complete_and_cb();
            const int rc = p->done->get_return_value();
            if (rc < 0 && rc != -ENOENT && failed == 0) failed = rc;
            const std::uint64_t got = rc > 0 ? std::min<std::uint64_t>(p->data.length(), p->length) : 0;
            if (got > 0) p->data.begin().copy(static_cast<unsigned>(got), buf + p->from);
            if (got < p->length) std::memset(buf + p->from + got, 0, p->length - got);
        }
        return failed != 0 ? failed : m_look.wait(header);
    }

    const std::uint64_t offset;
    const std::uint64_t length;

private:
    static void pieceLanded(librados::completion_t, void* extent) { static_cast<Extent*>(extent)->landed(); }
    void landed()
    {
        if (--m_landing == 0) m_look.start(m_headerIo, m_image);
    }

    const std::string m_image;
    librados::IoCtx m_io;         // shares the handle's contexts
    librados::IoCtx m_headerIo;
    HeaderLook m_look;            // goes after the pieces, whose last callback starts it
    std::vector<std::unique_ptr<Piece>> m_pieces;
    std::atomic<int> m_landing{1};   // pieces on their way, and a hold until all started
    int m_notStarted = 0;
};

ReadAhead::ReadAhead() = default;

ReadAhead::~ReadAhead()
{
    drop();
}

void ReadAhead::open(const ReadSource& source, std::uint64_t size)
{
    std::lock_guard<std::mutex> hold(m_lock);
    drop();
    m_source = source;
    m_size = size;
}

int ReadAhead::read(char* buf, std::uint64_t len, std::uint64_t off, std::uint64_t& done)
{
    std::lock_guard<std::mutex> hold(m_lock);
    done = 0;
    int rc = 0;
    bool served = false;
    if (!m_ahead.empty() && m_ahead.front()->offset == off && m_ahead.front()->length <= len) {
        const std::unique_ptr<Extent> extent = std::move(m_ahead.front());
        m_ahead.pop_front();
        ImageHeader header;
        rc = extent->takeInto(buf, header);
        if (rc == 0) rc = learn(header);
        // An extent shorter than asked for was the end when it started; the
        // image may have grown since.
        const std::uint64_t end = off + extent->length;
        served = rc == 0 && (extent->length == len || m_size <= end);
        if (served) done = std::min(end, std::max(m_size, off)) - off;
    }
    if (rc == 0 && !served) {
        drop();
        rc = readDirectly(buf, len, off, done);
    }
    if (rc != 0) {
        drop();
        return rc;
    }
    startAhead(off + done, len);
    return 0;
}

int ReadAhead::readDirectly(char* buf, std::uint64_t len, std::uint64_t off, std::uint64_t& done)
{
    if (off + len > m_size) {
        const int rc = lookNow();
        if (rc != 0) return rc;
    }
    const std::uint64_t n = off >= m_size ? 0 : std::min(len, m_size - off);
    if (n == 0) return 0;
    int rc = readData(m_source.data, m_source.image, m_source.objectSize, buf, n, off);
    if (rc == 0) rc = lookNow();
    if (rc == 0) done = n;
    return rc;
}

int ReadAhead::lookNow()
{
    ImageHeader header;
    const int rc = readHeader(m_source.header, m_source.image, header);
    return rc != 0 ? rc : learn(header);
}

int ReadAhead::learn(const ImageHeader& header)
{
    if (header.state == STATE_DELETING) return -ENOENT;
    m_size = header.size;
    return 0;
}

void ReadAhead::startAhead(std::uint64_t next, std::uint64_t len)
{
    if (len == 0) return;
    const std::uint64_t extents = std::min(READ_AHEAD_EXTENTS, std::max<std::uint64_t>(1, READ_AHEAD_BYTES / len));
    if (!m_ahead.empty()) next = m_ahead.back()->offset + m_ahead.back()->length;
    while (m_ahead.size() < extents && next < m_size) {
        const std::uint64_t n = std::min(len, m_size - next);
        m_ahead.push_back(std::make_unique<Extent>(m_source, n, next));
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
    m_ahead.clear();   // each waits for its pieces and its look
}

} // namespace radosstore
