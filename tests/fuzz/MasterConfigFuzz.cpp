// The master configuration reader on any file content: it accepts the file
// or names the file and the line, and leaves the result untouched then.
#include "FuzzSupport.h"
#include "MasterConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string path = keldfuzz::scratchRoot() + "/keldrive/keldrive.conf";
    keldfuzz::writeFile(path, data, size);
    MasterConfig out;
    out.VERBOSE = -12345;
    std::string error;
    const int rc = KD_read_master_config_file(path, out, error);
    if (rc == 0) {
        FUZZ_CHECK(error.empty());
    } else {
        FUZZ_CHECK(rc == 2);
        FUZZ_CHECK(error.rfind(path + ":", 0) == 0);
        FUZZ_CHECK(out.VERBOSE == -12345);
    }
    return 0;
}
