#include "RemoteSettings.h"

#include "KeldvPaths.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

namespace {

std::string trim(const std::string& s)
{
    const size_t a = s.find_first_not_of(" \t\r");
    if (a == std::string::npos) return "";
    return s.substr(a, s.find_last_not_of(" \t\r") - a + 1);
}

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
    std::istringstream lines(text);
    std::string line;
    for (int n = 1; std::getline(lines, line); ++n) {
        line = trim(line);
        if (line.empty() || line[0] == '#') continue;
        const size_t eq = line.find('=');
        const std::string name = trim(line.substr(0, eq));
        const std::string value = eq == std::string::npos ? "" : trim(line.substr(eq + 1));
        const auto it = setters().find(name);
        if (eq == std::string::npos || it == setters().end()) {
            problems.push_back("line " + std::to_string(n) + ": unknown setting \"" + line + "\"");
        } else if (!it->second(settings, value)) {
            problems.push_back("line " + std::to_string(n) + ": bad value \"" + value + "\" for " + name);
        }
    }
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
