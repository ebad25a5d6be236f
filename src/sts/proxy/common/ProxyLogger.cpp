#include "ProxyLogger.h"

#include <atomic>

#include "BoundedCopy.h"
#include "KeldvPaths.h"
#include "PrivateFile.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_Thread.h>
#include <ace/OS_NS_unistd.h>
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

ACE_Thread_Mutex gs_logFileMutex;
const char* const gs_szSevStrArray[6] = {"", "[INFO]", "[WARN]", "[DEBUG]", "[ERROR]", nullptr};

namespace {

const unsigned long LOG_MAX_FILE_SIZE = 0x1E00000;  // 30 MiB

// The sd_flags bit a severity needs to pass; 0 means no filter.
sts_uint32_t filterBit(sts_severity_t sev)
{
    switch (sev) {
    case STS_ESINFO: return 2;
    case STS_ESWARN: return 4;
    case STS_ESDEBUG: return 1;
    case STS_ESERROR: return 8;
    default: return 0;
    }
}

const char* severityText(sts_severity_t sev)
{
    const int i = static_cast<int>(sev);
    if (i < 0 || i > 5 || gs_szSevStrArray[i] == nullptr) return "";
    return gs_szSevStrArray[i];
}

// MMDDYY, each part zero-padded below 10.
std::string formatDate(const struct tm& t)
{
    auto part = [](bool pad, int value) { return (pad ? "0" : "") + std::to_string(value); };
    return part(t.tm_mon <= 8, t.tm_mon + 1) + part(t.tm_mday < 10, t.tm_mday) +
           part(t.tm_year <= 109, t.tm_year - 100);
}

// State of the file writer, guarded by gs_logFileMutex.
struct LogFileState {
    FILE* log_fp = nullptr;
    char log_file_path[1025] = {0};
    char log_dir_path[1025] = {0};
    char log_prefix[1025] = {0};
    sts_uint64_t log_file_size = 0;
    int log_current_id = 0;
};

// dir/prefix_NNNNN.log, cut to the path buffer like every bounded name.
void buildPath(LogFileState& s)
{
    char number[16];
    std::snprintf(number, sizeof(number), "_%05u.log", static_cast<unsigned>(s.log_current_id));
    const std::string path = std::string(s.log_dir_path) + "/" + s.log_prefix + number;
    boundedCopy(s.log_file_path, path.c_str(), sizeof(s.log_file_path));
}

bool reopen(LogFileState& s)
{
    if (s.log_fp != nullptr) std::fclose(s.log_fp);
    s.log_fp = nullptr;
    const int fd = openPrivateFile(s.log_file_path, O_RDWR | O_APPEND, kGroupReadableFileMode);
    if (fd < 0) return false;
    s.log_fp = ::fdopen(fd, "a+");
    if (s.log_fp == nullptr) ::close(fd);
    return s.log_fp != nullptr;
}

// At the first line of a process and of each date: continue in the highest
// file of the unbroken run from number 2, or in number 1.
bool selectFile(LogFileState& s, const char* dir, const char* prefix)
{
    boundedCopy(s.log_dir_path, dir, sizeof(s.log_dir_path));
    boundedCopy(s.log_prefix, prefix, sizeof(s.log_prefix));
    s.log_current_id = 1;
    s.log_file_size = 0;
    do {
        ++s.log_current_id;
        buildPath(s);
    } while (access(s.log_file_path, F_OK) == 0);
    --s.log_current_id;
    buildPath(s);
    struct stat st;
    if (stat(s.log_file_path, &st) == 0) s.log_file_size = static_cast<sts_uint64_t>(st.st_size);
    return reopen(s);
}

// Set by constructors on ORB threads (every server object sets gs_plog)
// and read by the callbacks on any thread.
std::atomic<ProxyLogger*> gs_plogm{nullptr};
std::atomic<ProxyLogger*> gs_plogCorelib{nullptr};
std::atomic<ProxyLogger*> gs_plog{nullptr};
std::atomic<RemoteLogPoster> gs_remoteLogPoster{nullptr};
std::atomic<bool> gs_stderrEcho{false};

// One write(2) per line, so that lines of several threads do not mix.
void echoToStderr(sts_severity_t sev, const char* line)
{
    const char* priority = sev == STS_ESERROR ? "<3>" : sev == STS_ESWARN ? "<4>" : nullptr;
    if (priority == nullptr) return;
    const std::string text = std::string(priority) + line;
    ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
    (void)written;   // nowhere to report a lost copy; the file has the line
}

// The log directory of a logger type under the install root, made again
// only when the root changes (a test process may switch roots): a line
// costs no path building.
const char* logDirectory(int type)
{
    struct Cached {
        std::string root;
        int type = 0;
        char directory[1024] = {0};
    };
    thread_local Cached cached;
    const char* env = std::getenv("KELDV_ROOT");
    const char* root = env != nullptr ? env : "";
    if (cached.type != type || cached.root != root) {
        cached.root = root;
        cached.type = type;
        const std::string logRoot = keldvPath("keldrive/logs");
        std::snprintf(cached.directory, sizeof(cached.directory), "%s%c%s", logRoot.c_str(), '/',
                      type == 1 ? "keldpxy" : "libzvsclient");
    }
    return cached.directory;
}

} // namespace

ProxyLogger::ProxyLogger(int type) : m_type(type) {}

int ProxyLogger::logMsg(const sts_session_def_t* pSd, const char* szwho, sts_severity_t sev,
                        const char* szFmt, ...)
{
    // The filter comes first, so a dropped line costs no system call.
    const sts_uint32_t bit = filterBit(sev);
    if (pSd != nullptr && bit != 0 && (pSd->sd_flags & bit) == 0) return 0;

    const char* directory = logDirectory(m_type);
    bool bOnlyLog2Caller = false;
    if (access(directory, 0) != 0) {
        if (m_type == 1) return 0;
        bOnlyLog2Caller = true;
    }

    const char* session = (pSd != nullptr && pSd->sd_id != nullptr) ? pSd->sd_id : "dummy";
    const long pid = static_cast<long>(ACE_OS::getpid());
    const unsigned tid = static_cast<unsigned>(ACE_OS::thr_self());

    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    const std::string szDate = formatDate(local);
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    char szTime[14];
    std::snprintf(szTime, sizeof(szTime), "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min,
                  local.tm_sec, static_cast<int>(tv.tv_usec / 1000));

    char apMsg[1024] = {0};
    size_t szLen = 1023;
    size_t szWhere = 0;
    if (bOnlyLog2Caller) {
        std::snprintf(apMsg, szLen, "%s[%s]", severityText(sev), szwho);
    } else {
        std::snprintf(apMsg, szLen, "%s[%ld.%u]%s[%s][%s]", szTime, pid, tid, severityText(sev),
                      session, szwho);
    }
    szWhere = std::strlen(apMsg);
    szLen -= szWhere;
    va_list args;
    va_start(args, szFmt);
    std::vsnprintf(apMsg + szWhere, szLen, szFmt, args);
    va_end(args);
    // The prefix length is taken off a second time, not the text's: the
    // newline below depends on it, and an overlong line goes out without one.
    szLen = szLen > szWhere ? szLen - szWhere : 0;

    if (!bOnlyLog2Caller) {
        const size_t lineLen = std::strlen(apMsg);
        if (lineLen > 0 && apMsg[lineLen - 1] != '\n' && lineLen + 1 < szLen) {
            std::strcat(apMsg, "\n");
        }
    }
    if (m_type == 2 && pSd != nullptr && pSd->sd_log != nullptr) {
        pSd->sd_log(pSd->sd_id, apMsg, sev);
    }
    if (bOnlyLog2Caller) return 0;

    log_msg(directory, szDate.c_str(), LOG_MAX_FILE_SIZE, apMsg);
    if (m_type == 1 && gs_stderrEcho.load(std::memory_order_relaxed)) echoToStderr(sev, apMsg);
    const RemoteLogPoster post = gs_remoteLogPoster.load();
    if (m_type == 1 && post != nullptr) post(apMsg);
    return 0;
}

void log_msg(const char* dir, const char* prefix, unsigned long max_size, const char* msg)
{
    if (dir == nullptr || prefix == nullptr || msg == nullptr) return;
    static LogFileState state;
    ACE_Guard<ACE_Thread_Mutex> guard(gs_logFileMutex);

    if (std::strcmp(dir, state.log_dir_path) != 0 || std::strcmp(prefix, state.log_prefix) != 0) {
        if (!selectFile(state, dir, prefix)) return;
    }
    if (state.log_file_size >= max_size) {
        ++state.log_current_id;
        state.log_file_size = 0;
        buildPath(state);
        if (!reopen(state)) return;
    }
    if (state.log_fp != nullptr) {
        state.log_file_size += std::strlen(msg);
        std::fputs(msg, state.log_fp);
        std::fflush(state.log_fp);
    }
}

void sts_set_debug_flags(sts_uint32_t* flags, int verbose)
{
    *flags &= ~static_cast<sts_uint32_t>(0xF);
    switch (verbose) {
    case 2: *flags |= 0x4 | 0x8; break;
    case 3:
    case 4: *flags |= 0x2 | 0x4 | 0x8; break;
    case 5:
    case 6: *flags |= 0x1 | 0x2 | 0x4 | 0x8; break;
    default: *flags |= 0x8; break;
    }
}

std::string maskedCredential(size_t bytes)
{
    return "[*** " + std::to_string(bytes) + " bytes]";
}

std::string maskedCredential(const sts_cred_t& cred)
{
    return maskedCredential(std::min<size_t>(cred.cr_len, sizeof(cred.cr_cert)));
}

void setRemoteLogPoster(RemoteLogPoster post) { gs_remoteLogPoster = post; }
void setStderrEcho(bool on) { gs_stderrEcho = on; }
void setLogmLogger(ProxyLogger* plog) { gs_plogm = plog; }
void setCorelibLogger(ProxyLogger* plog) { gs_plogCorelib = plog; }
void setPluginLogger(ProxyLogger* plog) { gs_plog = plog; }

// The message is the format: a '%' in it is taken for a conversion.  Only
// the leftover cleanup's session uses this callback.
void logm(const char*, const char* msg, sts_severity_t sev)
{
    ProxyLogger* plog = gs_plogm.load();
    if (plog == nullptr) return;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    plog->logMsg(nullptr, "log_shmem", sev, msg);
#pragma GCC diagnostic pop
}

void log_corelib(const char* id, const char* msg, sts_severity_t sev)
{
    ProxyLogger* plog = gs_plogCorelib.load();
    if (plog == nullptr) return;
    sts_session_def_t sd = {};
    sd.sd_id = id;
    sd.sd_flags = 15;
    plog->logMsg(&sd, "log_corelib", sev, "%s", msg);
}

void logm_plugin(const char* id, const char* msg, sts_severity_t sev)
{
    ProxyLogger* plog = gs_plog.load();
    if (plog == nullptr) return;
    plog->logMsg(nullptr, id != nullptr ? id : "logm_plugin", sev, "%s", msg);
}
