#include "RemoteSettings.h"

#include "KeldvPaths.h"
#include "KeyValueFile.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

namespace {

// A whole decimal number within [low, high].
bool number(const std::string& text, std::uint64_t low, std::uint64_t high, std::uint64_t& out)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    const unsigned long long v = std::strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || v < low || v > high) return false;
    out = v;
    return true;
}

using Setter = std::function<bool(RemoteSettings&, const std::string&)>;

template <typename T>
Setter numberSetter(T RemoteSettings::*field, std::uint64_t low, std::uint64_t high)
{
    return [=](RemoteSettings& s, const std::string& v) {
        std::uint64_t n = 0;
        if (!number(v, low, high, n)) return false;
        s.*field = static_cast<T>(n);
        return true;
    };
}

Setter textSetter(std::string RemoteSettings::*field)
{
    return [=](RemoteSettings& s, const std::string& v) {
        s.*field = v;
        return true;
    };
}

const std::map<std::string, Setter>& setters()
{
    static const std::map<std::string, Setter> table = {
        {"max_transfer", numberSetter(&RemoteSettings::maxTransfer, 4096, 64u << 20)},
        {"retry_tries", numberSetter(&RemoteSettings::retryTries, 1, 1000)},
        {"retry_backoff_ms", numberSetter(&RemoteSettings::retryBackoffMs, 0, 60000)},
        {"retry_backoff_max_ms", numberSetter(&RemoteSettings::retryBackoffMaxMs, 0, 600000)},
        {"call_timeout_ms", numberSetter(&RemoteSettings::callTimeoutMs, 0, 86400000)},
        {"tls", [](RemoteSettings& s, const std::string& v) {
             if (v != "on" && v != "off") return false;
             s.tls = v == "on";
             return true;
         }},
        {"tls_ca_file", textSetter(&RemoteSettings::tlsCaFile)},
        {"tls_certificate_file", textSetter(&RemoteSettings::tlsCertificateFile)},
        {"tls_key_file", textSetter(&RemoteSettings::tlsKeyFile)},
    };
    return table;
}

} // namespace

RemoteSettings parseRemoteSettings(const std::string& text, std::vector<std::string>& problems)
{
    RemoteSettings settings;
    std::vector<KeyValueLine> lines;
    std::string error;
    const bool whole = readKeyValueText(text, KeyValueSyntax{}, lines, error);
    for (const KeyValueLine& line : lines) {
        const std::string at = "line " + std::to_string(line.number) + ": ";
        const auto it = setters().find(line.name);
        if (!line.hasValue || it == setters().end()) {
            problems.push_back(at + "unknown setting \"" + line.text + "\"");
        } else if (!it->second(settings, line.value)) {
            problems.push_back(at + "bad value \"" + line.value + "\" for " + line.name);
        }
    }
    if (!whole) problems.push_back(error);   // the lines after it keep their defaults
    if (settings.retryBackoffMaxMs < settings.retryBackoffMs) settings.retryBackoffMaxMs = settings.retryBackoffMs;
    return settings;
}

std::string tlsPath(const std::string& setting)
{
    if (setting.empty() || setting[0] == '/') return setting;
    return keldvPath("keldrive/" + setting);
}

std::string remoteSettingsPath()
{
    return keldvPath("keldrive/zvsclient.conf");
}

RemoteSettings loadRemoteSettings(std::vector<std::string>& problems)
{
    std::ifstream in(remoteSettingsPath());
    if (!in) return RemoteSettings();
    std::stringstream text;
    text << in.rdbuf();
    return parseRemoteSettings(text.str(), problems);
}
