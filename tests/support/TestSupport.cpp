#include "TestSupport.h"

#include <fcntl.h>

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace keldtest {

namespace {

void run(const std::string& command)
{
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

std::vector<std::string> listDir(const std::string& dir)
{
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] != '.') names.emplace_back(e->d_name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

TempRoot::TempRoot(bool withLog, bool withPlugins)
{
    char templ[] = "/tmp/keldv-test-XXXXXX";
    if (mkdtemp(templ) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = templ;
    run("mkdir -p '" + m_path + "/lib/stsplugins' '" + m_path + "/keldrive/logs' '" + m_path +
        "/keldrive/storage'");
    if (withLog) run("mkdir -p '" + logDir() + "'");
    if (withPlugins) usePluginsFrom(KELD_PLUGIN_DIR);
    if (const char* old = std::getenv("KELDV_ROOT")) {
        m_oldRoot = old;
        m_hadOldRoot = true;
    }
    setenv("KELDV_ROOT", m_path.c_str(), 1);
}

TempRoot::~TempRoot()
{
    if (m_hadOldRoot) {
        setenv("KELDV_ROOT", m_oldRoot.c_str(), 1);
    } else {
        unsetenv("KELDV_ROOT");
    }
    if (m_path.rfind("/tmp/keldv-test-", 0) == 0) {
        std::string cmd = "rm -rf '" + m_path + "'";
        (void)std::system(cmd.c_str());
    }
}

void TempRoot::usePluginsFrom(const std::string& dir) const
{
    const std::string target = m_path + "/lib/stsplugins";
    run("rm -f '" + target + "'/*.so");
    for (const std::string& name : listDir(dir)) {
        if (name.size() > 3 && name.compare(name.size() - 3, 3, ".so") == 0) {
            run("ln -sfn '" + dir + "/" + name + "' '" + target + "/" + name + "'");
        }
    }
}

std::string TempRoot::readLog() const
{
    std::string all;
    for (const std::string& name : listDir(logDir())) {
        std::ifstream in(logDir() + "/" + name);
        std::stringstream ss;
        ss << in.rdbuf();
        all += ss.str();
    }
    return all;
}

void TempRoot::writeFile(const std::string& relative, const std::string& content) const
{
    std::ofstream out(m_path + "/" + relative);
    out << content;
}

int freePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof(addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        close(fd);
        throw std::runtime_error("no free port");
    }
    close(fd);
    return ntohs(addr.sin_port);
}

std::string endpointArg(int port)
{
    return "iiop://127.0.0.1:" + std::to_string(port);
}

std::string corbaloc(int port, const std::string& key)
{
    return "corbaloc::127.0.0.1:" + std::to_string(port) + "/" + key;
}

std::string keldpxyPath()
{
    return KELDPXY_PATH;
}

Child::Child(const std::string& program, const std::vector<std::string>& args,
             const std::vector<std::string>& extraEnv, const std::string& stderrPath)
{
    m_pid = fork();
    if (m_pid < 0) throw std::runtime_error("fork failed");
    if (m_pid == 0) {
        if (!stderrPath.empty()) {
            const int fd = open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (fd >= 0) dup2(fd, 2);
        }
        for (const std::string& kv : extraEnv) putenv(strdup(kv.c_str()));
        std::vector<char*> argv;
        argv.push_back(strdup(program.c_str()));
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
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!m_reaped) {
        const pid_t r = waitpid(m_pid, &m_status, WNOHANG);
        if (r == m_pid) {
            m_reaped = true;
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -2;
}

bool Child::running()
{
    return wait(std::chrono::milliseconds(0)) == -1;
}

void Child::signal(int sig)
{
    if (!m_reaped) kill(m_pid, sig);
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
    Child child(keldpxyPath(), args, extraEnv);
    return child.wait(timeout);
}

} // namespace keldtest
