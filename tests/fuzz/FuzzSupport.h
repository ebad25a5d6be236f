// Shared pieces of the fuzz targets: a failed property aborts, which
// libFuzzer reports as a crash and the corpus replay as a failed test.
#ifndef KELD_TESTS_FUZZSUPPORT_H
#define KELD_TESTS_FUZZSUPPORT_H

#include <cstddef>
#include <cstdint>
#include <string>

#define FUZZ_CHECK(cond)                                                      \
    do {                                                                      \
        if (!(cond)) keldfuzz::fail(#cond, __FILE__, __LINE__);               \
    } while (0)

namespace keldfuzz {

[[noreturn]] void fail(const char* what, const char* file, int line);

// A memory-backed file holding data; its path is "/proc/self/fd/N".
class MemoryFile {
public:
    MemoryFile(const uint8_t* data, size_t size);
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    std::string directory() const { return "/proc/self/fd"; }
    std::string name() const { return std::to_string(m_fd); }
    std::string path() const { return directory() + "/" + name(); }

private:
    int m_fd;
};

// A scratch install root on tmpfs, made once per process and removed at exit;
// KELDV_ROOT names it.
const std::string& scratchRoot();
void writeFile(const std::string& path, const uint8_t* data, size_t size);

} // namespace keldfuzz

#endif
