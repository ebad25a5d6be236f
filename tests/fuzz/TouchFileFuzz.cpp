// The touch-file reader and the service's two touch files on any content:
// the reader copies a bounded prefix of the first line, and the service
// always ends with a usable thread count and an idle time of at most a year.
#include "CommandLine.h"
#include "FuzzSupport.h"
#include "MasterConfig.h"
#include "ProxyLogger.h"
#include "ProxyV9SVC.h"

#include <algorithm>
#include <cstring>

namespace {

// One service object for the whole run; its log is off (no log directory).
ProxyV9SVC& service()
{
    static ProxyLogger* logger = new ProxyLogger(1);
    static char name[] = "keldpxy";
    static char* argv[] = {name, nullptr};
    static ProxyV9SVC* svc = new ProxyV9SVC(1, argv, logger, true, false, 60, "ProxyV9SVC", false);
    return *svc;
}

void checkReader(const std::string& dir, const char* name, const uint8_t* data, size_t size)
{
    const size_t firstLine = std::find(data, data + size, '\n') - data;
    for (size_t bufSize : {1, 2, 9, 1024}) {
        char buf[1024 + 16];
        std::memset(buf, 0x7f, sizeof(buf));
        FUZZ_CHECK(read_AD_HOC_config_entry(dir.c_str(), name, 0, buf, bufSize, 0, __FILE__, __LINE__) == 0);
        const size_t len = strnlen(buf, bufSize);
        FUZZ_CHECK(len < bufSize);
        FUZZ_CHECK(len <= firstLine);
        FUZZ_CHECK(len == 0 || std::memcmp(buf, data, len) == 0);   // data is null when empty
        for (size_t i = bufSize; i < sizeof(buf); ++i) FUZZ_CHECK(buf[i] == 0x7f);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string logs = keldfuzz::scratchRoot() + "/keldrive/logs";
    keldfuzz::writeFile(logs + "/PROXY_SERVER_THREAD_NUMBER", data, size);
    keldfuzz::writeFile(logs + "/KELDPXY_TIMEOUT", data, size);
    checkReader(logs, "KELDPXY_TIMEOUT", data, size);
    const int threads = service().getThreadNumberFromTouchFile();
    FUZZ_CHECK(threads > 0 && threads <= 1024);   // beyond 1024 it falls back to 30
    const int minutes = service().getTimeoutValueFromTouchFile();
    FUZZ_CHECK(minutes >= 0 && minutes <= kMaxIdleMinutes);
    return 0;
}
