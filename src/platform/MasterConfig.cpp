#include "MasterConfig.h"

#include "BoundedCopy.h"
#include "KeldvPaths.h"
#include "KeyValueFile.h"

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

// A number of seconds from 1 to limit.
bool applySeconds(const std::string& value, int limit, int& seconds)
{
    int parsed = 0;
    if (!parseInt(value, parsed) || parsed < 1 || parsed > limit) return false;
    seconds = parsed;
    return true;
}

std::string secondsUpTo(const char* limit)
{
    return std::string("is not a number of seconds from 1 to ") + limit;
}

std::string directoryOf(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

enum class Applied { kSet, kUnknownName, kBadValue };

// Applies one "NAME = value" line.
Applied applyLine(const KeyValueLine& line, const std::string& path, MasterConfig& cfg, std::string& error)
{
    const std::string& name = line.name;
    const std::string& value = line.value;
    const std::string where = path + ":" + std::to_string(line.number) + ": " + name + " value '" + value;
    const auto refuse = [&](const std::string& why) {
        error = where + "' " + why;
        return Applied::kBadValue;
    };
    if (name == "VERBOSE") {
        return parseInt(value, cfg.VERBOSE) ? Applied::kSet : refuse("is not an integer");
    }
    if (name == "PEER_ADMISSION") {
        const bool ok = parseInt(value, cfg.PEER_ADMISSION) && (cfg.PEER_ADMISSION == 0 || cfg.PEER_ADMISSION == 1);
        return ok ? Applied::kSet : refuse("is not 0 or 1");
    }
    if (name == "REMOTE_LOG_IDLE_SECONDS") {
        return applySeconds(value, kYearSeconds, cfg.REMOTE_LOG_IDLE_SECONDS) ? Applied::kSet
                                                                              : refuse(secondsUpTo("a year"));
    }
    if (name == "CLOSE_RETRY_SECONDS") {
        return applySeconds(value, 3600, cfg.CLOSE_RETRY_SECONDS) ? Applied::kSet : refuse(secondsUpTo("3600"));
    }
    int* seconds = name == "STOP_GRACE_SECONDS"          ? &cfg.STOP_GRACE_SECONDS
                   : name == "JOB_IDLE_SECONDS"          ? &cfg.JOB_IDLE_SECONDS
                   : name == "STOP_COMMAND_WAIT_SECONDS" ? &cfg.STOP_COMMAND_WAIT_SECONDS
                                                         : nullptr;
    if (seconds != nullptr) {
        return parseInt(value, *seconds) && *seconds >= 0 ? Applied::kSet : refuse("is not a number of seconds");
    }
    if (name == "METRICS_ENDPOINT") {
        cfg.METRICS_ENDPOINT = value;
        return Applied::kSet;
    }
    std::string* file = name == "TLS_CERTIFICATE"   ? &cfg.TLS_CERTIFICATE
                        : name == "TLS_PRIVATE_KEY" ? &cfg.TLS_PRIVATE_KEY
                        : name == "TLS_CA_FILE"     ? &cfg.TLS_CA_FILE
                                                    : nullptr;
    if (file == nullptr) return Applied::kUnknownName;
    if (!value.empty()) *file = value.front() == '/' ? value : directoryOf(path) + "/" + value;
    return Applied::kSet;
}

} // namespace

std::string master_config_path()
{
    return keldvPath("keldrive/keldrive.conf");
}

int KD_read_master_config_file(const std::string& path, MasterConfig& out, std::string& error,
                               std::vector<std::string>* warnings)
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
    std::vector<KeyValueLine> lines;
    if (!readKeyValueText(text, KeyValueSyntax{true}, lines, error)) {
        error = path + ": " + error;
        return 2;
    }
    std::vector<std::string> unknown;
    for (const KeyValueLine& line : lines) {
        if (!line.hasValue) continue;   // not a setting: the file has always let such lines be
        switch (applyLine(line, path, cfg, error)) {
        case Applied::kSet:
            break;
        case Applied::kUnknownName:
            unknown.push_back("unknown key " + line.name + " at line " + std::to_string(line.number) + " of " + path +
                              ", ignored");
            break;
        case Applied::kBadValue:
            return 2;
        }
    }
    if (warnings != nullptr) *warnings = unknown;
    out = cfg;
    return 0;
}

int KD_read_master_config(std::vector<std::string>* warnings)
{
    std::string error;
    int rc = KD_read_master_config_file(master_config_path(), gs_masterConfig, error, warnings);
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
