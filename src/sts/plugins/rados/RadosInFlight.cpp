#include "RadosInFlight.h"

#include <algorithm>
#include <cstring>

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

int ReadAhead::read(rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, char* buf,
                    std::uint64_t len, std::uint64_t off, std::uint64_t end)
{
    std::lock_guard<std::mutex> hold(m_lock);
    int rc = 0;
    if (m_pending != nullptr && m_offset == off && m_length == len) {
        rc = m_pending->waitAll();
        if (rc == 0) std::memcpy(buf, m_buffer.data(), len);
        m_pending.reset();
    } else {
        drop();
        rc = readData(io, image, objectSize, buf, len, off);
    }
    const std::uint64_t next = off + len;
    if (rc != 0 || next >= end) return rc;
    m_offset = next;
    m_length = std::min(len, end - next);
    m_buffer.resize(m_length);
    m_pending = std::make_unique<Pieces>();
    startRead(*m_pending, io, image, objectSize, m_buffer.data(), m_length, m_offset);
    return 0;
}

void ReadAhead::forget()
{
    std::lock_guard<std::mutex> hold(m_lock);
    drop();
}

void ReadAhead::drop()
{
    m_pending.reset();   // waits for its pieces
}

} // namespace radosstore
