#include "MasterConfig.h"

#include "BoundedCopy.h"
#include "KeldvPaths.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

MasterConfig gs_masterConfig;

const int kYearSeconds = 365 * 24 * 3600;

enum ReadResult { kRead, kMissing, kUnreadable };

// Whole file into text; reading (not just opening) must succeed, so that a
// directory in place of the file counts as unreadable.
ReadResult readWholeFile(const std::string& path, std::string& text, int& err)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        err = errno;
        return err == ENOENT ? kMissing : kUnreadable;
    }
    char chunk[4096];
    ReadResult result = kRead;
    for (;;) {
        ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            err = errno;
            result = kUnreadable;
            break;
        }
        text.append(chunk, static_cast<size_t>(n));
    }
    ::close(fd);
    return result;
}

std::string trim(const std::string& s)
{
    const char* blanks = " \t\r\n";
    size_t first = s.find_first_not_of(blanks);
    if (first == std::string::npos) return "";
    size_t last = s.find_last_not_of(blanks);
    return s.substr(first, last - first + 1);
}

bool parseInt(const std::string& text, int& value)
{
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < INT_MIN || v > INT_MAX) return false;
    value = static_cast<int>(v);
    return true;
}

// A number of seconds from 1 to limit (named limitText in the refusal).
bool applySeconds(const std::string& value, int limit, const char* limitText, int& seconds,
                  const std::string& where, std::string& error)
{
    int parsed = 0;
    if (parseInt(value, parsed) && parsed >= 1 && parsed <= limit) {
        seconds = parsed;
        return true;
    }
    error = where + "' is not a number of seconds from 1 to " + limitText;
    return false;
}

std::string directoryOf(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

// Applies one "NAME = value" line; names this reader does not know are
// skipped, so the file can carry settings of other components.
bool applyLine(const std::string& rawLine, int lineNo, const std::string& path,
               MasterConfig& cfg, std::string& error)
{
    std::string line = trim(rawLine.substr(0, rawLine.find('#')));
    size_t eq = line.find('=');
    if (line.empty() || eq == std::string::npos) return true;
    std::string name = trim(line.substr(0, eq));
    std::string value = trim(line.substr(eq + 1));
    const std::string where = path + ":" + std::to_string(lineNo) + ": " + name + " value '" + value;
    if (name == "VERBOSE") {
        if (parseInt(value, cfg.VERBOSE)) return true;
        error = where + "' is not an integer";
        return false;
    }
    if (name == "PEER_ADMISSION") {
        if (parseInt(value, cfg.PEER_ADMISSION) &&
            (cfg.PEER_ADMISSION == 0 || cfg.PEER_ADMISSION == 1))
            return true;
        error = where + "' is not 0 or 1";
        return false;
    }
    if (name == "REMOTE_LOG_IDLE_SECONDS") {
        return applySeconds(value, kYearSeconds, "a year", cfg.REMOTE_LOG_IDLE_SECONDS, where, error);
    }
    if (name == "CLOSE_RETRY_SECONDS") {
        return applySeconds(value, 3600, "3600", cfg.CLOSE_RETRY_SECONDS, where, error);
    }
    int* seconds = name == "STOP_GRACE_SECONDS"          ? &cfg.STOP_GRACE_SECONDS
                   : name == "JOB_IDLE_SECONDS"          ? &cfg.JOB_IDLE_SECONDS
                   : name == "STOP_COMMAND_WAIT_SECONDS" ? &cfg.STOP_COMMAND_WAIT_SECONDS
                                                         : nullptr;
    if (seconds != nullptr) {
        if (parseInt(value, *seconds) && *seconds >= 0) return true;
        error = where + "' is not a number of seconds";
        return false;
    }
    std::string* file = name == "TLS_CERTIFICATE"   ? &cfg.TLS_CERTIFICATE
                        : name == "TLS_PRIVATE_KEY" ? &cfg.TLS_PRIVATE_KEY
                        : name == "TLS_CA_FILE"     ? &cfg.TLS_CA_FILE
                                                    : nullptr;
    if (file != nullptr && !value.empty()) {
        *file = value.front() == '/' ? value : directoryOf(path) + "/" + value;
    }
    return true;
}

} // namespace

std::string master_config_path()
{
    return keldvPath("keldrive/keldrive.conf");
}

int KD_read_master_config_file(const std::string& path, MasterConfig& out, std::string& error)
{
    std::string text;
    int err = 0;
    switch (readWholeFile(path, text, err)) {
    case kMissing:
        out = MasterConfig();
        return 0;
    case kUnreadable:
        error = path + ": cannot read master configuration: " + std::strerror(err);
        return 1;
    case kRead:
        break;
    }
    MasterConfig cfg;
    size_t pos = 0;
    for (int lineNo = 1; pos < text.size(); ++lineNo) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) nl = text.size();
        if (!applyLine(text.substr(pos, nl - pos), lineNo, path, cfg, error)) return 2;
        pos = nl + 1;
    }
    out = cfg;
    return 0;
}

int KD_read_master_config()
{
    std::string error;
    int rc = KD_read_master_config_file(master_config_path(), gs_masterConfig, error);
    if (rc != 0) std::fprintf(stderr, "%s\n", error.c_str());
    return rc;
}

const MasterConfig* get_master_config_ptr()
{
    return &gs_masterConfig;
}

int read_AD_HOC_config_entry(const char* dir, const char* name, int /*flags*/, char* buf,
                             size_t size, int /*options*/, const char* /*file*/, int /*line*/)
{
    if (dir == nullptr || name == nullptr || buf == nullptr || size == 0) return EINVAL;
    std::string text;
    int err = 0;
    std::string path = std::string(dir) + "/" + name;
    if (readWholeFile(path, text, err) != kRead) return err != 0 ? err : EIO;
    std::string first = text.substr(0, text.find('\n'));
    if (!first.empty() && first.back() == '\r') first.pop_back();
    boundedCopy(buf, first.c_str(), size);
    return 0;
}
