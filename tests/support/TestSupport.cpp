#include "TestSupport.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace keldtest {

namespace {

void run(const std::string& command)
{
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

} // namespace

TempRoot::TempRoot(bool withLog, bool withPlugins)
{
    char templ[] = "/tmp/keldv-test-XXXXXX";
    if (mkdtemp(templ) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = templ;
    run("mkdir -p '" + m_path + "/lib/stsplugins' '" + m_path + "/keldrive/storage'" +
        (withLog ? " '" + logDir() + "'" : " '" + m_path + "/keldrive/logs'"));
    if (withPlugins) usePluginsFrom(KELD_PLUGIN_DIR);
    if (const char* old = std::getenv("KELDV_ROOT")) m_oldRoot = old;
    m_hadOldRoot = std::getenv("KELDV_ROOT") != nullptr;
    setenv("KELDV_ROOT", m_path.c_str(), 1);
}

TempRoot::~TempRoot()
{
    if (m_hadOldRoot) {
        setenv("KELDV_ROOT", m_oldRoot.c_str(), 1);
    } else {
        unsetenv("KELDV_ROOT");
    }
    if (!std::getenv("KELD_KEEP_ROOT")) (void)std::system(("rm -rf '" + m_path + "'").c_str());
}

void TempRoot::usePluginsFrom(const std::string& dir) const
{
    run("rm -f '" + m_path + "/lib/stsplugins'/*.so && for f in '" + dir + "'/*.so; do [ ! -e \"$f\" ] || ln -sfn \"$f\" '" +
        m_path + "/lib/stsplugins/'; done");
}

std::string TempRoot::readLog() const
{
    std::vector<std::string> names;
    if (DIR* d = opendir(logDir().c_str())) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] != '.') names.emplace_back(e->d_name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());   // the order they were written in
    std::string all;
    for (const std::string& name : names) {
        std::ifstream in(logDir() + "/" + name);
        all.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return all;
}

void TempRoot::writeFile(const std::string& relative, const std::string& content) const
{
    std::ofstream(m_path + "/" + relative) << content;
}

int freePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
                    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    close(fd);
    if (!ok) throw std::runtime_error("no free port");
    return ntohs(addr.sin_port);
}

std::string keldpxyPath()
{
    return KELDPXY_PATH;
}

Child::Child(const std::string& program, const std::vector<std::string>& args,
             const std::vector<std::string>& extraEnv, const std::string& stderrPath, int stdinFd)
{
    m_pid = fork();
    if (m_pid < 0) throw std::runtime_error("fork failed");
    if (m_pid == 0) {
        if (!stderrPath.empty()) dup2(open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
        if (stdinFd >= 0) dup2(stdinFd, 0);
        for (const std::string& kv : extraEnv) putenv(strdup(kv.c_str()));
        std::vector<char*> argv{strdup(program.c_str())};
        for (const std::string& a : args) argv.push_back(strdup(a.c_str()));
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
}

// Asked to stop first, so that a service ends through its own exit path
// (where the leak check of a sanitizer build runs); killed if it lingers.
Child::~Child()
{
    if (m_reaped || m_pid <= 0) return;
    kill(m_pid, SIGTERM);
    if (wait(std::chrono::seconds(10)) == -1) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &m_status, 0);
    }
}

int Child::wait(std::chrono::milliseconds timeout)
{
    const bool done = m_reaped || waitFor([&] { return waitpid(m_pid, &m_status, WNOHANG) == m_pid; }, timeout);
    if (!done) return -1;
    m_reaped = true;
    return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -2;
}

bool waitFor(const std::function<bool()>& pred, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

int runKeldpxy(const std::vector<std::string>& args, std::chrono::milliseconds timeout,
               const std::vector<std::string>& extraEnv)
{
    return Child(keldpxyPath(), args, extraEnv).wait(timeout);
}

} // namespace keldtest
