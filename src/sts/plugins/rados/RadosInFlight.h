// Data of one image handle on its way to or from the cluster, so that a
// stream of transfers keeps the cluster busy while the caller brings the
// next one or takes the last: a writer's transfers are left in flight up to
// a limit and settled at a flush or a close, and a reader's next extent is
// read while the caller takes the one it asked for.
#ifndef KELD_RADOS_IN_FLIGHT_H
#define KELD_RADOS_IN_FLIGHT_H

#include "RadosStore.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace radosstore {

// The writes of one handle.  A write returns once its bytes are handed to
// librados (which copies them) and no more than the limit is in flight;
// settle() returns once every write is on the cluster.  A write that failed
// fails that call or a later one and every call after it, settle() too: the
// failure stays with the handle, so no acknowledged byte is lost unnoticed.
class WriteBehind {
public:
    explicit WriteBehind(std::uint64_t limitBytes) : m_limit(limitBytes) {}
    ~WriteBehind() { settle(); }
    WriteBehind(const WriteBehind&) = delete;
    WriteBehind& operator=(const WriteBehind&) = delete;

    // 0 or librados' negative errno.
    int write(rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, const char* buf,
              std::uint64_t len, std::uint64_t off);
    int settle();

private:
    // Waits for the oldest writes until at most keep bytes are in flight.
    void retire(std::uint64_t keep);

    struct Batch {
        std::unique_ptr<Pieces> pieces;
        std::uint64_t bytes;
    };
    const std::uint64_t m_limit;
    std::mutex m_lock;
    std::deque<Batch> m_inFlight;   // oldest first
    std::uint64_t m_bytes = 0;
    int m_failed = 0;
};

// The reads of one handle opened for reading.  Each read starts reading the
// next extent of the same length, up to the size then known, into a buffer
// of its own; a read of exactly that extent takes it from there.
class ReadAhead {
public:
    ReadAhead() = default;
    ~ReadAhead() { drop(); }
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    // [off, off + len) into buf, then the extent after it up to end starts.
    // 0 or librados' negative errno.
    int read(rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, char* buf, std::uint64_t len,
             std::uint64_t off, std::uint64_t end);
    // Waits for the extent in flight, if any, and drops it; before the
    // context it was started on goes.
    void forget();

private:
    void drop();


    std::mutex m_lock;
    std::unique_ptr<Pieces> m_pending;
    std::vector<char> m_buffer;
    std::uint64_t m_offset = 0;
    std::uint64_t m_length = 0;
};

} // namespace radosstore

#endif
