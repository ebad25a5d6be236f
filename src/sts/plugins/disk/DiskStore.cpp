#include "DiskStore.h"

#include "KeyValueFile.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <ftw.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace diskstore {

namespace {

std::string toHex(const unsigned char* bytes, size_t n)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 0xF];
    }
    return out;
}

// A configuration text is at most 64 KiB, so no line of it is too long to
// read: every line comes back.
std::vector<KeyValueLine> configLines(const std::string& text)
{
    std::vector<KeyValueLine> lines;
    std::string tooLong;
    readKeyValueText(text, KeyValueSyntax{}, lines, tooLong);
    return lines;
}

void syncDirectory(const std::string& path)
{
    const int dir = open(path.c_str(), O_RDONLY | O_DIRECTORY);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
}

void removeTree(const std::string& path)
{
    nftw(path.c_str(), [](const char* name, const struct stat*, int, FTW*) { return remove(name); }, 16,
         FTW_DEPTH | FTW_PHYS);
}

} // namespace

std::string storageRoot()
{
    const char* root = std::getenv("KELDV_ROOT");
    return storageRootUnder(root != nullptr && *root != '\0' ? root : "/usr/keldv");
}

std::string storageRootUnder(const std::string& installRoot)
{
    return installRoot + "/keldrive/storage";
}

std::string hostName()
{
    char host[512] = {0};
    gethostname(host, sizeof(host) - 1);
    return host;
}

bool validComponent(const std::string& name, size_t limit)
{
    return !name.empty() && name.size() < limit && name[0] != '.' &&
           name.find('/') == std::string::npos;
}

std::string serverDirectory(const std::string& serverName)
{
    const size_t prefix = std::strlen(SERVER_PREFIX);
    if (serverName.compare(0, prefix, SERVER_PREFIX) != 0) return "";
    const std::string host = serverName.substr(prefix);
    return validComponent(host) ? storageRoot() + "/" + host : "";
}

bool exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

bool makeDirectories(const std::string& path)
{
    for (size_t at = 1; at != std::string::npos;) {
        at = path.find('/', at + 1);
        const std::string part = path.substr(0, at);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    return true;
}

std::vector<std::string> listDirectory(const std::string& dir, const std::string& suffix)
{
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name[0] == '.') continue;
            if (suffix.empty()) {
                names.push_back(name);
            } else if (name.size() > suffix.size() &&
                       name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
                names.push_back(name.substr(0, name.size() - suffix.size()));
            }
        }
        closedir(d);
    }
    return names;
}

bool readFile(const std::string& path, std::string& content)
{
    std::ifstream in(path);
    if (!in) return false;
    std::stringstream ss;
    ss << in.rdbuf();
    content = ss.str();
    return true;
}

// Written beside under a name of its own (two writers never share one)
// and renamed into place, so a crash leaves the old or the new file, never
// half of one; the directory is synced so that the rename itself lasts.
bool writeFileDurably(const std::string& path, const std::string& content)
{
    std::string tmp = path + ".XXXXXX";
    const int fd = mkstemp(&tmp[0]);
    if (fd < 0) return false;
    const bool written = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
                         fsync(fd) == 0;
    close(fd);
    if (!written || rename(tmp.c_str(), path.c_str()) != 0) {
        const int err = errno;
        unlink(tmp.c_str());
        errno = err;
        return false;
    }
    const size_t slash = path.rfind('/');
    syncDirectory(slash == std::string::npos ? "." : path.substr(0, slash + 1));
    return true;
}

// The server is built whole under a hidden name of its own and renamed into
// place, so no opener (thread or process) ever sees it half made.  When
// another opener got there first the rename fails on the non-empty
// directory, and this copy is thrown away.
void ensureDefaultServer()
{
    const std::string root = storageRoot();
    if (!listDirectory(root).empty() || !makeDirectories(root)) return;
    std::string building = root + "/.default.XXXXXX";
    if (mkdtemp(&building[0]) == nullptr) return;
    const std::string host = hostName();
    const bool placed = chmod(building.c_str(), 0755) == 0 && makeDirectories(building + "/lsus/lsu0/images") &&
                        writeFileDurably(building + "/server.conf", "# server Disk:" + host + "\n") &&
                        rename(building.c_str(), (root + "/" + host).c_str()) == 0;
    if (placed) {
        syncDirectory(root);
    } else {
        removeTree(building);
    }
}

// Lines are read exactly as configProblem reads them, so that a setting the
// check accepted is the setting found here.
std::string configValue(const std::string& config, const std::string& name)
{
    for (const KeyValueLine& line : configLines(config)) {
        if (line.hasValue && line.name == name) return line.value;
    }
    return "";
}

namespace {

const size_t MAX_CONFIG_TEXT = 64 * 1024;

std::string settingProblem(const std::string& key, const std::string& value, const std::string& storedCredential)
{
    if (key == "host") {
        const bool hostChars = value.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_:") == std::string::npos;
        return validComponent(value) && hostChars ? "" : "host needs a host name or address shorter than 256";
    }
    if (key == "stream_format") {
        return !value.empty() && value.size() < 16 ? "" : "stream_format needs 1 to 15 characters";
    }
    if (key == "max_connections") {
        char* end = nullptr;
        const long n = std::strtol(value.c_str(), &end, 10);
        return !value.empty() && *end == '\0' && n >= 1 && n <= 65535 ? "" : "max_connections needs a number from 1 to 65535";
    }
    if (key == "credential") {
        return value == storedCredential ? "" : "the credential is set when the server is created and cannot be changed here";
    }
    return "unknown setting \"" + key + "\"";
}

} // namespace

std::string configProblem(const std::string& text, const std::string& storedCredential)
{
    if (text.size() > MAX_CONFIG_TEXT) return "the text is longer than 65536 bytes";
    if (text.find('\0') != std::string::npos) return "the text holds a NUL byte";
    bool seen[3] = {false, false, false};
    static const char* const single[3] = {"stream_format", "max_connections", "credential"};
    for (const KeyValueLine& line : configLines(text)) {
        std::string problem;
        if (!line.hasValue) {
            problem = "expected \"name = value\"";
        } else {
            problem = settingProblem(line.name, line.value, storedCredential);
            for (int i = 0; i < 3 && problem.empty(); ++i) {
                if (line.name != single[i]) continue;
                if (seen[i]) problem = line.name + " is given twice";
                seen[i] = true;
            }
        }
        if (!problem.empty()) return "line " + std::to_string(line.number) + ": " + problem;
    }
    return "";
}

std::string configToStore(const std::string& text, const std::string& storedCredential)
{
    std::string kept = text;
    if (!kept.empty() && kept.back() != '\n') kept += '\n';
    if (!storedCredential.empty() && configValue(kept, "credential").empty()) {
        kept += "credential = " + storedCredential + "\n";
    }
    return kept;
}

std::string hashCredential(const std::string& certificate, const std::string& saltHex)
{
    std::string salt = saltHex;
    if (salt.empty()) {
        unsigned char raw[16];
        RAND_bytes(raw, sizeof(raw));
        salt = toHex(raw, sizeof(raw));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    const std::string input = salt + certificate;
    EVP_Digest(input.data(), input.size(), digest, &len, EVP_sha256(), nullptr);
    return salt + ":" + toHex(digest, len);
}

bool credentialMatches(const std::string& stored, const std::string& certificate)
{
    const size_t colon = stored.find(':');
    return colon != std::string::npos && hashCredential(certificate, stored.substr(0, colon)) == stored;
}

} // namespace diskstore
