// The disk plug-in's configuration text and names.  The input's first line
// is the stored credential (hexadecimal and ':' only, as the plug-in writes
// it), the rest the text an operator sends.  An accepted text, as it is
// kept, is accepted again and carries the stored credential; a server name
// maps to a directory inside the storage directory or to nothing.
#include "DiskStore.h"
#include "FuzzSupport.h"

#include <cstring>

namespace {

void checkConfig(const std::string& stored, const std::string& text)
{
    if (!diskstore::configProblem(text, stored).empty()) return;
    const std::string kept = diskstore::configToStore(text, stored);
    FUZZ_CHECK(diskstore::configProblem(kept, stored).empty());
    if (!stored.empty()) FUZZ_CHECK(diskstore::configValue(kept, "credential") == stored);
}

void checkServerName(const std::string& input)
{
    const std::string name(input.c_str());   // names arrive as C strings
    const std::string dir = diskstore::serverDirectory("Disk:" + name);
    if (dir.empty()) return;
    const std::string root = diskstore::storageRoot() + "/";
    FUZZ_CHECK(dir == root + name);
    FUZZ_CHECK(name.find('/') == std::string::npos);
    FUZZ_CHECK(name != "." && name != ".." && !name.empty());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t nl = input.find('\n');
    std::string stored = input.substr(0, nl);
    if (stored.find_first_not_of("0123456789abcdef:") != std::string::npos) stored.clear();
    checkConfig(stored, nl == std::string::npos ? "" : input.substr(nl + 1));
    checkServerName(input);
    return 0;
}
