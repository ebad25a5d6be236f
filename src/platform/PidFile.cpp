#include "PidFile.h"

#include "PrivateFile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string g_ownFile;

void removeOwnFile()
{
    if (!g_ownFile.empty()) ::unlink(g_ownFile.c_str());
}

std::string fileName(const std::string& name, pid_t pid)
{
    return name + "." + std::to_string(pid) + ".pid";
}

// "<name>.<digits>.pid" gives the pid; anything else gives 0.
pid_t pidOfFile(const std::string& file, const std::string& name)
{
    const std::string prefix = name + ".";
    const std::string suffix = ".pid";
    if (file.size() <= prefix.size() + suffix.size()) return 0;
    if (file.compare(0, prefix.size(), prefix) != 0) return 0;
    if (file.compare(file.size() - suffix.size(), suffix.size(), suffix) != 0) return 0;
    const std::string digits = file.substr(prefix.size(), file.size() - prefix.size() - suffix.size());
    if (digits.find_first_not_of("0123456789") != std::string::npos) return 0;
    return static_cast<pid_t>(std::strtol(digits.c_str(), nullptr, 10));
}

} // namespace

namespace PidFile {

// Fields 3 (the state), 20 (the threads) and 22 of /proc/PID/stat, counted
// after the command name, which may itself hold blanks and parentheses.
// The first thread of an ending process shows "Z" while the others still
// wind down, and its parent cannot collect it yet: it has ended only once
// it is the last.
std::string startTime(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    std::getline(in, stat);
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) return "";
    std::istringstream fields(stat.substr(close + 1));
    std::string field, state;
    for (int i = 3; i <= 22 && fields >> field; ++i) {
        if (i == 3) state = field;
        if (i == 20 && state == "Z" && field == "1") return "";   // ended, only not yet collected
        if (i == 22) return field;
    }
    return "";
}

bool registerThisProcess(const std::string& dir, const std::string& name)
{
    if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return false;
    const pid_t self = ::getpid();
    const std::string path = dir + "/" + fileName(name, self);
    const int fd = openPrivateFile(path.c_str(), O_WRONLY | O_TRUNC, kGroupReadableFileMode);
    FILE* f = fd < 0 ? nullptr : ::fdopen(fd, "w");
    if (f == nullptr) {
        if (fd >= 0) ::close(fd);
        return false;
    }
    std::fprintf(f, "%d %s\n", static_cast<int>(self), startTime(self).c_str());
    if (std::fclose(f) != 0) return false;
    if (g_ownFile.empty()) {
        std::atexit(removeOwnFile);
        std::at_quick_exit(removeOwnFile);
    }
    g_ownFile = path;
    return true;
}

std::vector<pid_t> liveInstances(const std::string& dir, const std::string& name)
{
    std::vector<pid_t> live;
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) return live;
    while (const dirent* entry = ::readdir(d)) {
        const pid_t pid = pidOfFile(entry->d_name, name);
        if (pid <= 0) continue;
        const std::string path = dir + "/" + entry->d_name;
        std::ifstream in(path);
        long recordedPid = 0;
        std::string recordedStart;
        in >> recordedPid >> recordedStart;
        const std::string actualStart = startTime(pid);
        if (recordedPid == pid && !actualStart.empty() && actualStart == recordedStart) {
            live.push_back(pid);
        } else {
            ::unlink(path.c_str());
        }
    }
    ::closedir(d);
    return live;
}

} // namespace PidFile
