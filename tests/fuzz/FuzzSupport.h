// Shared pieces of the fuzz targets: a failed property aborts, which
// libFuzzer reports as a crash and the corpus replay as a failed test.
#ifndef KELD_TESTS_FUZZSUPPORT_H
#define KELD_TESTS_FUZZSUPPORT_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <unistd.h>

#define FUZZ_CHECK(cond)                                                                                  \
    do {                                                                                                  \
        if (!(cond)) {                                                                                    \
            std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #cond);             \
            std::abort();                                                                                 \
        }                                                                                                 \
    } while (0)

namespace keldfuzz {

// A scratch install root on tmpfs, made once per process and removed at
// exit; KELDV_ROOT names it.
inline const std::string& scratchRoot()
{
    static std::string root;
    if (root.empty()) {
        char templ[] = "/dev/shm/keldv-fuzz-XXXXXX";
        if (mkdtemp(templ) == nullptr) throw std::runtime_error("cannot make a scratch root");
        root = templ;
        std::filesystem::create_directories(root + "/keldrive/logs");
        setenv("KELDV_ROOT", templ, 1);
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(root, ignored);
        });
    }
    return root;
}

inline void writeFile(const std::string& path, const uint8_t* data, size_t size)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data), size);
}

} // namespace keldfuzz

#endif
