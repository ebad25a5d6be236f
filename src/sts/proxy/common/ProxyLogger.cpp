#include "ProxyLogger.h"

#include <atomic>

#include "BoundedCopy.h"
#include "KeldvPaths.h"
#include "PrivateFile.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_Thread.h>
#include <ace/OS_NS_unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
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

namespace {

// The time of a line and the date of its file, "HH:MM:SS.mmm" and MMDDYY:
// the local-time conversion and the date text are made once a second per
// thread (time zone rules change only on whole seconds); within the second
// only the milliseconds are written.
struct LineTime {
    char stamp[13];        // HH:MM:SS.mmm
    const char* date;      // MMDDYY
};

LineTime lineTime()
{
    struct SecondCache {
        time_t second = -1;
        std::string date;
        char clock[9] = {0};   // HH:MM:SS
    };
    thread_local SecondCache cache;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != cache.second) {
        struct tm local;
        localtime_r(&now.tv_sec, &local);
        cache.date = formatDate(local);
        std::snprintf(cache.clock, sizeof(cache.clock), "%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
        cache.second = now.tv_sec;
    }
    LineTime t;
    const int ms = static_cast<int>(now.tv_nsec / 1000000);
    std::memcpy(t.stamp, cache.clock, 8);
    t.stamp[8] = '.';
    t.stamp[9] = static_cast<char>('0' + ms / 100);
    t.stamp[10] = static_cast<char>('0' + ms / 10 % 10);
    t.stamp[11] = static_cast<char>('0' + ms % 10);
    t.stamp[12] = '\0';
    t.date = cache.date.c_str();
    return t;
}

// getpid() is a system call; the number is kept, and taken afresh in the
// child of a fork.
std::atomic<long> s_pid{0};

long processId()
{
    static const bool registered = [] { return pthread_atfork(nullptr, nullptr, [] { s_pid = 0; }) == 0; }();
    long pid = s_pid.load(std::memory_order_relaxed);
    if (pid == 0 || !registered) {
        pid = static_cast<long>(ACE_OS::getpid());
        s_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

// "[pid.tid]" of the calling thread, made once per thread (and again in the
// child of a fork).
const char* processAndThread()
{
    thread_local long forPid = 0;
    thread_local char text[48];
    const long pid = processId();
    if (forPid != pid) {
        std::snprintf(text, sizeof(text), "[%ld.%u]", pid, static_cast<unsigned>(ACE_OS::thr_self()));
        forPid = pid;
    }
    return text;
}

// Appends to a line the way snprintf fills its buffer: at most size - 1
// characters, always terminated, the rest cut.
class LineBuffer {
public:
    LineBuffer(char* buffer, size_t size) : m_buffer(buffer), m_room(size > 0 ? size - 1 : 0) { *m_buffer = '\0'; }
    LineBuffer& operator<<(const char* text)
    {
        if (text == nullptr) text = "(null)";   // as printf shows it
        const size_t n = std::min(std::strlen(text), m_room - m_length);
        std::memcpy(m_buffer + m_length, text, n);
        m_length += n;
        m_buffer[m_length] = '\0';
        return *this;
    }
    size_t length() const { return m_length; }

private:
    char* m_buffer;
    size_t m_room;
    size_t m_length = 0;
};

} // namespace

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
    const LineTime when = lineTime();

    char apMsg[1024];   // terminated by whichever fills it first
    size_t szLen = 1023;
    size_t szWhere = 0;
    if (bOnlyLog2Caller) {
        std::snprintf(apMsg, szLen, "%s[%s]", severityText(sev), szwho);
        szWhere = std::strlen(apMsg);
    } else {
        // The layout of "%s[%ld.%u]%s[%s][%s]": time, [pid.tid], severity,
        // [session][who].
        LineBuffer prefix(apMsg, szLen);
        prefix << when.stamp << processAndThread() << severityText(sev) << "[" << session << "][" << szwho << "]";
        szWhere = prefix.length();
    }
    szLen -= szWhere;
    va_list args;
    va_start(args, szFmt);
    std::vsnprintf(apMsg + szWhere, szLen, szFmt, args);
    va_end(args);
    size_t lineLen = szWhere + std::strlen(apMsg + szWhere);
    // The prefix length is taken off a second time, not the text's: the
    // newline below depends on it, and an overlong line goes out without one.
    szLen = szLen > szWhere ? szLen - szWhere : 0;

    if (!bOnlyLog2Caller && lineLen > 0 && apMsg[lineLen - 1] != '\n' && lineLen + 1 < szLen) {
        apMsg[lineLen++] = '\n';
        apMsg[lineLen] = '\0';
    }
    if (m_type == 2 && pSd != nullptr && pSd->sd_log != nullptr) {
        pSd->sd_log(pSd->sd_id, apMsg, sev);
    }
    if (bOnlyLog2Caller) return 0;

    writeLogLine(directory, when.date, LOG_MAX_FILE_SIZE, apMsg, lineLen);
    if (m_type == 1 && gs_stderrEcho.load(std::memory_order_relaxed)) echoToStderr(sev, apMsg);
    const RemoteLogPoster post = gs_remoteLogPoster.load();
    if (m_type == 1 && post != nullptr) post(apMsg);
    return 0;
}

void log_msg(const char* dir, const char* prefix, unsigned long max_size, const char* msg)
{
    if (msg == nullptr) return;
    writeLogLine(dir, prefix, max_size, msg, std::strlen(msg));
}

namespace {

// One write(2) per line, straight to the file: the line is on its way to the
// disk when the call returns, as a flushed stream would have it, without the
// stream's copy and lock.
void writeAll(int fd, const char* text, size_t length)
{
    while (length > 0) {
        const ssize_t n = ::write(fd, text, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        text += n;
        length -= static_cast<size_t>(n);
    }
}

} // namespace

void writeLogLine(const char* dir, const char* prefix, unsigned long max_size, const char* msg, size_t length)
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
        state.log_file_size += length;
        writeAll(fileno(state.log_fp), msg, length);
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
