// The remote plug-in's settings (documented in RemotePlugin.h) and how they
// are read.
#ifndef KELD_CLIENT_REMOTESETTINGS_H
#define KELD_CLIENT_REMOTESETTINGS_H

#include <cstdint>
#include <string>
#include <vector>

struct RemoteSettings {
    std::uint64_t maxTransfer = 16u << 20;
    int retryTries = 8;
    int retryBackoffMs = 10;
    int retryBackoffMaxMs = 1000;
    unsigned long callTimeoutMs = 0;
    bool tls = false;
    // Paths as written; a relative one is under <root>/keldrive (tlsPath).
    std::string tlsCaFile;
    std::string tlsCertificateFile;
    std::string tlsKeyFile;
};

// A TLS file setting as a path: absolute as written, else under
// <root>/keldrive like the service's own TLS files; "" stays "".
std::string tlsPath(const std::string& setting);

// Settings from the text of a settings file; each line that cannot be used
// leaves its default and adds a sentence to problems.
RemoteSettings parseRemoteSettings(const std::string& text, std::vector<std::string>& problems);

// <root>/keldrive/zvsclient.conf; a missing file gives the defaults.
std::string remoteSettingsPath();
RemoteSettings loadRemoteSettings(std::vector<std::string>& problems);

#endif
