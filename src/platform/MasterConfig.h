// Reader of the product's master configuration, <root>/keldrive/keldrive.conf:
// lines "NAME = value" (see KeyValueFile.h), '#' starts a comment anywhere on
// a line, a line without '=' is let be.  A name nobody reads is passed over
// with a warning, so that a misspelt one is not lost in silence.  And the
// touch-file reader.
#ifndef KELD_PLATFORM_MASTERCONFIG_H
#define KELD_PLATFORM_MASTERCONFIG_H

#include <cstddef>
#include <string>
#include <vector>

struct MasterConfig {
    int VERBOSE = 0;
    // 1: only known servers and clients may connect (0 or 1).
    int PEER_ADMISSION = 0;
    // Seconds a remote log mailbox may go unpolled before the service closes
    // it (1 .. a year); 0 leaves the service's own default.
    int REMOTE_LOG_IDLE_SECONDS = 0;
    // Seconds an object closed by its own call stays reachable for a client
    // that resends the close (1 .. 3600).
    int CLOSE_RETRY_SECONDS = 60;
    // The TLS transport: PEM files; a relative path is taken from the
    // directory of the configuration file.  TLS_CA_FILE may stay empty.
    std::string TLS_CERTIFICATE;
    std::string TLS_PRIVATE_KEY;
    std::string TLS_CA_FILE;
    // A stop, once its wait for jobs is over, gives the calls still running
    // this long (at least 1) to end; then the process ends without them.
    int STOP_GRACE_SECONDS = 30;
    // The jobs a session announced end when it has made no call for this
    // long (0: never).
    int JOB_IDLE_SECONDS = 600;
    // How long keldpxy -stop waits for the services it signalled to end
    // (0: it does not wait).
    int STOP_COMMAND_WAIT_SECONDS = 60;
    // HOST:PORT where /metrics and /healthz are served; empty: not served.
    // Checked when the service starts.
    std::string METRICS_ENDPOINT;
};

// 0 on success (a missing file gives the defaults); non-zero when the file
// cannot be read or a value is malformed.  On failure one line naming the file
// and the line goes to stderr.  On success warnings (when given) holds a line
// for the log per name nobody reads ("unknown key NAME at line N of PATH,
// ignored").
int KD_read_master_config(std::vector<std::string>* warnings = nullptr);
const MasterConfig* get_master_config_ptr();
// Same reader on an explicit path (tests).  On failure error holds the line
// that KD_read_master_config writes to stderr; out is left untouched.
int KD_read_master_config_file(const std::string& path, MasterConfig& out, std::string& error,
                               std::vector<std::string>* warnings = nullptr);
// Where KD_read_master_config looks: <root>/keldrive/keldrive.conf.
std::string master_config_path();

// Reads the first line of <dir>/<name> into buf (at most size - 1 bytes, no
// trailing newline).  Returns 0 on success, non-zero when the file is missing
// or unreadable.  flags, options, file and line are accepted for the caller's
// diagnostics only.
int read_AD_HOC_config_entry(const char* dir, const char* name, int flags, char* buf,
                             size_t size, int options, const char* file, int line);

#endif
