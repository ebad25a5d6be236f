// The configuration of a RADOS server: keldrive/rados/NAME.conf under the
// install root, lines "key = value" with '#' comments, read with our one
// parser of such files.  Every fault names the file and its line.
#include "KeyValueFile.h"
#include "RadosStore.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <set>
#include <sstream>

namespace radosstore {

namespace {

// The stripe object's bounds: small enough for an OSD's largest object
// (128 MiB by default) and write (90 MiB), large enough not to waste calls.
const std::uint64_t MIN_OBJECT_SIZE = 64 * 1024;
const std::uint64_t MAX_OBJECT_SIZE = 64ull << 20;
const unsigned MAX_LOCK_SECONDS = 3600;

bool parseNumber(const std::string& text, std::uint64_t min, std::uint64_t max, std::uint64_t& out)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 19) return false;
    out = std::strtoull(text.c_str(), nullptr, 10);
    return out >= min && out <= max;
}

// One line's setting into config; "" when it is good, else why not.
std::string applySetting(const KeyValueLine& line, ServerConfig& config)
{
    if (!line.hasValue) return "\"" + line.text + "\" is not a \"key = value\" line";
    const std::string& key = line.name;
    const std::string& value = line.value;
    if (key == "ceph_conf" || key == "keyring") {
        if (value.empty() || value[0] != '/') return key + " must be an absolute path";
        (key == "ceph_conf" ? config.cephConf : config.keyring) = value;
    } else if (key == "pool") {
        if (!validName(value, 255)) return "pool \"" + value + "\" is not a pool name";
        config.pool = value;
    } else if (key == "client") {
        if (!validName(value, 255) || value.find_first_of(" \t.") != std::string::npos) {
            return "client \"" + value + "\" is not a client id";
        }
        config.client = value;
    } else if (key == "object_size") {
        if (!parseNumber(value, MIN_OBJECT_SIZE, MAX_OBJECT_SIZE, config.objectSize)) {
            return "object_size must be a number of bytes from " + std::to_string(MIN_OBJECT_SIZE) + " to " +
                   std::to_string(MAX_OBJECT_SIZE);
        }
    } else if (key == "lock_seconds") {
        std::uint64_t seconds = 0;
        if (!parseNumber(value, 1, MAX_LOCK_SECONDS, seconds)) {
            return "lock_seconds must be a number from 1 to " + std::to_string(MAX_LOCK_SECONDS);
        }
        config.lockSeconds = static_cast<unsigned>(seconds);
    } else {
        return "unknown key \"" + key + "\"";
    }
    return "";
}

} // namespace

std::string installRoot()
{
    const char* root = std::getenv("KELDV_ROOT");
    return root != nullptr && *root != '\0' ? root : "/usr/keldv";
}

std::string configDirectory(const std::string& root)
{
    return root + "/keldrive/rados";
}

bool validName(const std::string& name, size_t limit)
{
    if (name.empty() || name.size() > limit || name == "." || name == "..") return false;
    return std::none_of(name.begin(), name.end(),
                        [](char ch) { return ch == '/' || static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f; });
}

std::string nameOf(const std::string& serverName)
{
    const size_t prefix = std::strlen(SERVER_PREFIX);
    if (serverName.compare(0, prefix, SERVER_PREFIX) != 0) return "";
    const std::string name = serverName.substr(prefix);
    return validName(name) && name[0] != '.' ? name : "";
}

std::vector<std::string> listServers(const std::string& root)
{
    std::vector<std::string> names;
    DIR* dir = opendir(configDirectory(root).c_str());
    if (dir == nullptr) return names;
    const std::string suffix = ".conf";
    while (const dirent* e = readdir(dir)) {
        const std::string file = e->d_name;
        if (file.size() <= suffix.size() || file.compare(file.size() - suffix.size(), suffix.size(), suffix) != 0) {
            continue;
        }
        const std::string name = std::string(SERVER_PREFIX) + file.substr(0, file.size() - suffix.size());
        if (!nameOf(name).empty()) names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

int parseServerConfig(const std::string& text, const std::string& file, ServerConfig& config, std::string& error)
{
    std::vector<KeyValueLine> lines;
    std::string problem;
    if (!readKeyValueText(text, KeyValueSyntax(), lines, problem)) {
        error = file + ": " + problem;
        return RADOS_ECONFIG;
    }
    std::set<std::string> seen;
    for (const KeyValueLine& line : lines) {
        std::string why = applySetting(line, config);
        if (why.empty() && !seen.insert(line.name).second) why = line.name + " is given twice";
        if (!why.empty()) {
            error = file + " line " + std::to_string(line.number) + ": " + why;
            return RADOS_ECONFIG;
        }
    }
    for (const char* required : {"ceph_conf", "pool"}) {
        if (seen.count(required) == 0) {
            error = file + ": " + required + " is missing";
            return RADOS_ECONFIG;
        }
    }
    return 0;
}

int readServerConfig(const std::string& root, const std::string& name, ServerConfig& config, std::string& error)
{
    config = ServerConfig();
    config.name = name;
    config.file = configDirectory(root) + "/" + name + ".conf";
    std::ifstream in(config.file);
    if (!in) {
        const int err = errno;
        error = config.file + ": " + std::strerror(err);
        return err == ENOENT || err == ENOTDIR ? RADOS_ENOENT : RADOS_ECONFIG;
    }
    std::stringstream text;
    text << in.rdbuf();
    return parseServerConfig(text.str(), config.file, config, error);
}

} // namespace radosstore
