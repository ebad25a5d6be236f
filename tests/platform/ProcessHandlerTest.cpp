#include "ProcessHandler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

// A copy of sleep under a name of our choosing, run as a child.
class NamedSleeper {
public:
    explicit NamedSleeper(const std::string& name)
    {
        char tmpl[] = "/tmp/platform_proc_XXXXXX";
        if (::mkdtemp(tmpl) == nullptr) std::abort();
        m_dir = tmpl;
        m_path = m_dir + "/" + name;
        {
            std::ifstream src("/bin/sleep", std::ios::binary);
            std::ofstream dst(m_path, std::ios::binary);
            dst << src.rdbuf();
        }
        ::chmod(m_path.c_str(), 0755);
        m_pid = ::fork();
        if (m_pid == 0) {
            ::execl(m_path.c_str(), m_path.c_str(), "30", static_cast<char*>(nullptr));
            ::_exit(127);
        }
    }
    ~NamedSleeper()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        ::unlink(m_path.c_str());
        ::rmdir(m_dir.c_str());
    }
    pid_t pid() const { return m_pid; }

    // How the child ended: the signal that killed it, 0 if it exited, -1 if
    // it still runs at the timeout.
    int waitForSignal(std::chrono::milliseconds timeout)
    {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }

private:
    std::string m_dir;
    std::string m_path;
    pid_t m_pid = -1;
};

// The child has executed the copy once its command name shows the new name.
void waitUntilNamed(pid_t pid, const std::string& comm)
{
    for (int i = 0; i < 200; ++i) {
        std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
        std::string line;
        std::getline(in, line);
        if (line == comm) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::string uniqueName(const std::string& stem)
{
    return stem + std::to_string(::getpid() % 100000);
}

TEST(ProcessHandler, SignalsTheProcessOfThatNameAndNoOther)
{
    std::string name = uniqueName("kph");
    NamedSleeper target(name);
    NamedSleeper bystander(name + "x");
    waitUntilNamed(target.pid(), name);
    waitUntilNamed(bystander.pid(), name + "x");

    ProcessHandler handler(name);
    EXPECT_EQ(std::vector<pid_t>{target.pid()}, handler.findProcesses());
    handler.setSignalType(SIGUSR2);
    EXPECT_EQ(1, handler.terminate());
    EXPECT_EQ(SIGUSR2, target.waitForSignal(std::chrono::seconds(5)));
    EXPECT_EQ(-1, bystander.waitForSignal(std::chrono::milliseconds(100)));
}

TEST(ProcessHandler, DefaultSignalIsFifteen)
{
    std::string name = uniqueName("kphd");
    NamedSleeper target(name);
    waitUntilNamed(target.pid(), name);
    EXPECT_EQ(1, ProcessHandler(name).terminate());
    EXPECT_EQ(SIGTERM, target.waitForSignal(std::chrono::seconds(5)));
}

TEST(ProcessHandler, NamesLongerThanTheKernelKeepsAreMatchedWhole)
{
    std::string name = uniqueName("keld_long_process_name_");
    std::string comm = name.substr(0, 15);
    NamedSleeper target(name);
    NamedSleeper sameStart(comm + "other");
    waitUntilNamed(target.pid(), comm);
    waitUntilNamed(sameStart.pid(), comm);

    EXPECT_EQ(std::vector<pid_t>{target.pid()}, ProcessHandler(name).findProcesses());
    // Asked by the cut name, only the exact fifteen characters count.
    EXPECT_TRUE(ProcessHandler(comm).findProcesses().size() == 2u);
}

TEST(ProcessHandler, NeverFindsTheCallingProcess)
{
    std::ifstream in("/proc/self/comm");
    std::string self;
    std::getline(in, self);
    std::vector<pid_t> found = ProcessHandler(self).findProcesses();
    EXPECT_EQ(found.end(), std::find(found.begin(), found.end(), ::getpid()));
    EXPECT_EQ(0, ProcessHandler("no-such-process-name").terminate());
}

} // namespace
