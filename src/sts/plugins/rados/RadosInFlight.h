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

// Where a reader's bytes come from, and where it looks at the header: a
// context on the control route, so that the look does not wait behind the
// extents read ahead on the data's connection.
struct ReadSource {
    rados_ioctx_t data = nullptr;
    rados_ioctx_t header = nullptr;
    std::string image;
    std::uint64_t objectSize = 0;
};

// The reads of one handle opened for reading.  After each read the extents
// that follow it, of the same length, up to the size then known and to
// READ_AHEAD_BYTES, are on their way from the cluster in librados' own
// buffers; a read of exactly the first of them takes its bytes from there
// with one copy.
//
// No byte reaches the caller unless the image's header was found, not
// being deleted, after that byte arrived: a delete marks the header before
// it removes anything, so what was read before is the image's.  An extent
// read ahead starts that look as soon as its last piece lands, so a
// reader that keeps up finds it done.  The size that bounds the reads comes
// from the last such look, which ended before they started: a writer
// elsewhere makes its bytes durable before the header's size covers them.
class ReadAhead {
public:
    ReadAhead();
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    // The image to read, whose header gave size at its open.
    void open(const ReadSource& source, std::uint64_t size);
    // [off, off + len) up to the image's size into buf, done the bytes
    // read; then the extents after it start.  0, -ENOENT for an image
    // deleted under the reader, or librados' negative errno.
    int read(char* buf, std::uint64_t len, std::uint64_t off, std::uint64_t& done);
    // Waits for the extents in flight, if any, and drops them; before the
    // contexts they were started on go.
    void forget();

private:
    struct Extent;   // one extent on its way

    void drop();
    // The bytes from the cluster directly, with a look at the header
    // before (when the size known may not cover them) and after.
    int readDirectly(char* buf, std::uint64_t len, std::uint64_t off, std::uint64_t& done);
    // Reads the header now and learns from it.
    int lookNow();
    // The size of a header found, or -ENOENT when a delete marked it.
    int learn(const ImageHeader& header);
    // Starts extents of len after the last one (or from next) up to the
    // size known.
    void startAhead(std::uint64_t next, std::uint64_t len);

    std::mutex m_lock;
    ReadSource m_source;
    std::uint64_t m_size = 0;                      // from the last look at the header
    std::deque<std::unique_ptr<Extent>> m_ahead;   // in the order of the image
};

} // namespace radosstore

#endif
