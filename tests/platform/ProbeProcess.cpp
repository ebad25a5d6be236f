#include "ProbeProcess.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <fstream>
#include <netinet/in.h>
#include <signal.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

int freeLoopbackPort()
{
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        ::close(fd);
        throw std::runtime_error("no free loopback port");
    }
    ::close(fd);
    return ntohs(addr.sin_port);
}

CORBA::ORB_ptr clientOrb()
{
    static CORBA::ORB_ptr orb = [] {
        int argc = 1;
        char name[] = "platform_tests";
        char* argv[] = {name, nullptr};
        CORBA::ORB_ptr o = CORBA::ORB_init(argc, argv);
        // A hung server must fail a test, not stall the whole run.
        omniORB::setClientCallTimeout(20000);
        return o;
    }();
    return orb;
}

ProbeProcess::ProbeProcess(const std::string& mode, int threads, int port) : m_port(port)
{
    char tmpl[] = "/tmp/platform_probe_XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_dir = tmpl;
    m_log = m_dir + "/events.log";
    std::string threadText = std::to_string(threads);
    std::string endpoint = "iiop://127.0.0.1:" + std::to_string(port);
    std::vector<std::string> args = {PROBE_SERVER_PATH, m_log, threadText, mode,
                                     "-ORBListenEndPoints", endpoint};
    m_pid = ::fork();
    if (m_pid == 0) {
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
}

ProbeProcess::~ProbeProcess()
{
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    ::unlink(m_log.c_str());
    ::rmdir(m_dir.c_str());
}

std::string ProbeProcess::corbaloc() const
{
    return "corbaloc::127.0.0.1:" + std::to_string(m_port) + "/Probe.Sleeper";
}

PlatformProbe::Sleeper_ptr ProbeProcess::sleeper() const
{
    CORBA::Object_var ref = clientOrb()->string_to_object(corbaloc().c_str());
    return PlatformProbe::Sleeper::_narrow(ref);
}

std::string ProbeProcess::events() const
{
    std::ifstream in(m_log);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool ProbeProcess::waitForEvent(const std::string& line, std::chrono::milliseconds timeout) const
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    do {
        if (("\n" + events()).find("\n" + line + "\n") != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

int ProbeProcess::waitExit(std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    do {
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (std::chrono::steady_clock::now() < deadline);
    return -1;
}
