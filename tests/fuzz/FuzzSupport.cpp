#include "FuzzSupport.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

namespace keldfuzz {

void fail(const char* what, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: property failed: %s\n", file, line, what);
    std::abort();
}

MemoryFile::MemoryFile(const uint8_t* data, size_t size) : m_fd(memfd_create("keld-fuzz", MFD_CLOEXEC))
{
    if (m_fd < 0) throw std::runtime_error("memfd_create failed");
    for (size_t done = 0; done < size;) {
        const ssize_t n = write(m_fd, data + done, size - done);
        if (n <= 0) throw std::runtime_error("memfd write failed");
        done += static_cast<size_t>(n);
    }
}

MemoryFile::~MemoryFile()
{
    close(m_fd);
}

namespace {

std::string g_root;

void removeRoot()
{
    const std::string cmd = "rm -rf '" + g_root + "'";
    if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "could not remove %s\n", g_root.c_str());
}

} // namespace

const std::string& scratchRoot()
{
    if (g_root.empty()) {
        char templ[] = "/dev/shm/keldv-fuzz-XXXXXX";
        if (mkdtemp(templ) == nullptr) throw std::runtime_error("mkdtemp failed");
        g_root = templ;
        const std::string cmd = "mkdir -p '" + g_root + "/keldrive/logs'";
        if (std::system(cmd.c_str()) != 0) throw std::runtime_error("mkdir failed");
        setenv("KELDV_ROOT", g_root.c_str(), 1);
        std::atexit(removeRoot);
    }
    return g_root;
}

void writeFile(const std::string& path, const uint8_t* data, size_t size)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) throw std::runtime_error("cannot write " + path);
    if (size > 0 && std::fwrite(data, 1, size, f) != size) throw std::runtime_error("short write " + path);
    std::fclose(f);
}

} // namespace keldfuzz
