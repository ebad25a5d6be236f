// Asks the kernel to start writing a file's new bytes to the disk every
// kStep bytes written, without waiting for it.  The disk then works while a
// stream comes in, and the fsync at its end finds little left: left to the
// kernel, a machine with room for gigabytes of dirty pages would start on
// them only at that fsync.  A hint: on a pipe it does nothing, and a
// failure shows at the fsync.  Writers of one file may call it at once.
#ifndef KELD_PLATFORM_WRITEBACKSTARTER_H
#define KELD_PLATFORM_WRITEBACKSTARTER_H

#include <atomic>
#include <cstdint>
#include <fcntl.h>

class WriteBackStarter {
public:
    static constexpr std::uint64_t kStep = 8ull << 20;

    // bytes more were written to fd.
    void wrote(int fd, std::uint64_t bytes)
    {
        const std::uint64_t pending = m_notStarted.fetch_add(bytes) + bytes;
        if (pending < kStep || m_notStarted.exchange(0) < kStep) return;
        sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
    }

private:
    std::atomic<std::uint64_t> m_notStarted{0};
};

#endif
