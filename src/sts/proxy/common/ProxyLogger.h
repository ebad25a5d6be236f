// The service's text log: one line per event, in a file chosen by program
// and date, rolled by size, filtered by the flags of the session the line is
// written for.  Creating or removing the log directory switches the log on
// or off at once, without a restart.
//
// The same class serves the service (type 1, "keldpxy") and the client side
// (the remote storage plug-in, type 2, "libzvsclient"), which is why the
// service's remote log mailboxes reach it only through a poster the service
// installs.
#ifndef KELD_PROXY_PROXYLOGGER_H
#define KELD_PROXY_PROXYLOGGER_H

#include "sts_types.h"

#include <ace/Thread_Mutex.h>
#include <atomic>
#include <cstddef>
#include <string>

// Serialises the file writer: name selection, rolling and the write.
extern ACE_Thread_Mutex gs_logFileMutex;
// Severity texts by value; STS_ESCRITICAL has none.
extern const char* const gs_szSevStrArray[6];

class ProxyLogger {
public:
    // 1: the service's own log "keldpxy".  Any other type is the client-side
    // log "libzvsclient"; 2 also hands each line to the session's sd_log.
    explicit ProxyLogger(int type);
    ~ProxyLogger() = default;

    // Formats, filters and writes one line; always returns 0.  A null pSd
    // passes any filter and shows the session as "dummy".
    int logMsg(const sts_session_def_t* pSd, const char* szwho, sts_severity_t sev,
               const char* szFmt, ...) __attribute__((format(printf, 5, 6)));

private:
    int m_type;
};

// The file writer: appends msg to dir/prefix_NNNNN.log, moving to the next
// number once the file has reached max_size.
void log_msg(const char* dir, const char* prefix, unsigned long max_size, const char* msg);
// The same for a line whose length is known.
void writeLogLine(const char* dir, const char* prefix, unsigned long max_size, const char* msg, size_t length);

// Turns a debug level into the low four filter bits of a session's flags.
void sts_set_debug_flags(sts_uint32_t* flags, int verbose);

// The one way a credential reaches a log line: "[*** N bytes]", its size and
// never its bytes, whether decrypted or as they came over the wire.  The
// remote log mailboxes carry the lines as written, so they are covered too.
std::string maskedCredential(size_t bytes);
// The certificate bytes the credential holds.
std::string maskedCredential(const sts_cred_t& cred);

// Log callbacks handed to the storage library in sd_log.  Each writes
// nothing until its logger is set.
void logm(const char* id, const char* msg, sts_severity_t sev);
void log_corelib(const char* id, const char* msg, sts_severity_t sev);
void logm_plugin(const char* id, const char* msg, sts_severity_t sev);
void setLogmLogger(ProxyLogger* plog);
void setCorelibLogger(ProxyLogger* plog);
void setPluginLogger(ProxyLogger* plog);

// Where each written line of a type 1 log goes besides its file: the
// service installs its mailboxes' poster when the first remote logger opens
// (null: nowhere).  Whatever the poster raises reaches the caller of logMsg.
using RemoteLogPoster = void (*)(const char* line);
void setRemoteLogPoster(RemoteLogPoster post);

// On: the warnings and errors of a type 1 log written to its file also go
// to standard error, each line led by its syslog priority ("<4>", "<3>"),
// which the journal takes for the line's level.  The file is unchanged.
void setStderrEcho(bool on);

#endif
