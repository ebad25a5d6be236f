#include "ProcessHandler.h"

#include "PidFile.h"

#include <cctype>
#include <csignal>
#include <dirent.h>
#include <fstream>
#include <thread>
#include <unistd.h>

namespace {

const size_t kCommLength = 15;

std::string readFirstLine(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// argv[0] as the process itself was started, without its directory.
std::string programBaseName(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline");
    std::string argv0;
    std::getline(in, argv0, '\0');
    size_t slash = argv0.rfind('/');
    return slash == std::string::npos ? argv0 : argv0.substr(slash + 1);
}

bool isPidName(const char* s)
{
    if (*s == '\0') return false;
    for (; *s != '\0'; ++s)
        if (!std::isdigit(static_cast<unsigned char>(*s))) return false;
    return true;
}

} // namespace

ProcessHandler::ProcessHandler(const std::string& processName) : m_name(processName) {}

void ProcessHandler::setSignalType(int signal)
{
    m_signal = signal;
}

void ProcessHandler::setInstanceDirectory(const std::string& dir)
{
    m_instanceDir = dir;
}

bool ProcessHandler::matches(pid_t pid) const
{
    std::string comm = readFirstLine("/proc/" + std::to_string(pid) + "/comm");
    if (m_name.size() <= kCommLength) return comm == m_name;
    return comm == m_name.substr(0, kCommLength) && programBaseName(pid) == m_name;
}

std::vector<pid_t> ProcessHandler::findProcesses() const
{
    std::vector<pid_t> found;
    if (m_name.empty()) return found;
    const pid_t self = ::getpid();
    if (!m_instanceDir.empty()) {
        for (pid_t pid : PidFile::liveInstances(m_instanceDir, m_name))
            if (pid != self && matches(pid)) found.push_back(pid);
        return found;
    }
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) return found;
    while (const dirent* entry = ::readdir(proc)) {
        if (!isPidName(entry->d_name)) continue;
        pid_t pid = static_cast<pid_t>(std::stol(entry->d_name));
        if (pid != self && matches(pid)) found.push_back(pid);
    }
    ::closedir(proc);
    return found;
}

int ProcessHandler::terminate()
{
    m_signalled.clear();
    for (pid_t pid : findProcesses()) {
        const std::string started = PidFile::startTime(pid);
        if (::kill(pid, m_signal) == 0) m_signalled.emplace_back(pid, started);
    }
    return static_cast<int>(m_signalled.size());
}

std::vector<pid_t> ProcessHandler::waitForEnd(std::chrono::milliseconds timeout) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::vector<pid_t> running;
    for (;;) {
        running.clear();
        // A pid that now belongs to a process started later is one that ended.
        for (const auto& [pid, started] : m_signalled)
            if (!started.empty() && PidFile::startTime(pid) == started) running.push_back(pid);
        if (running.empty() || std::chrono::steady_clock::now() >= deadline) return running;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}
