// The command line built from any words (the input split at NUL bytes): the
// parser only removes words, keeps the rest in order, bounds its copies and
// holds the idle interval within a year either way.
#include "CommandLine.h"
#include "FuzzSupport.h"

#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> words{"keldpxy"};
    const char* text = reinterpret_cast<const char*>(data);
    for (size_t at = 0; at < size && words.size() < 64;) {
        const void* nul = std::memchr(text + at, '\0', size - at);
        const size_t end = nul != nullptr ? static_cast<const char*>(nul) - text : size;
        words.emplace_back(text + at, end - at);
        at = end + 1;
    }
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    const std::vector<char*> before = argv;

    int argc = static_cast<int>(words.size());
    const CommandLine cl = parseCommandLine(argc, argv.data());

    FUZZ_CHECK(argc >= 1 && argc <= static_cast<int>(words.size()));
    FUZZ_CHECK(argv[0] == before[0]);
    size_t next = 0;   // what is left is a subsequence of the words given
    for (int i = 0; i < argc; ++i) {
        while (next < words.size() && before[next] != argv[i]) ++next;
        FUZZ_CHECK(next < words.size());
        ++next;
    }
    FUZZ_CHECK(cl.interval >= -kMaxIdleMinutes * 60 && cl.interval <= kMaxIdleMinutes * 60);
    FUZZ_CHECK(std::memchr(cl.lsuname, '\0', sizeof(cl.lsuname)) != nullptr);
    FUZZ_CHECK(std::memchr(cl.serviceName, '\0', sizeof(cl.serviceName)) != nullptr);
    return 0;
}
