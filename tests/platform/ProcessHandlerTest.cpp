#include "ProcessHandler.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

std::string commOf(pid_t pid)
{
    std::string line;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), line);
    return line;
}

// A copy of sleep under a name of our choosing, run as a child.
class NamedSleeper {
public:
    NamedSleeper(const keldtest::TempRoot& dir, const std::string& name) : m_path(dir.path() + "/" + name)
    {
        std::ofstream(m_path, std::ios::binary) << std::ifstream("/bin/sleep", std::ios::binary).rdbuf();
        ::chmod(m_path.c_str(), 0755);
        if ((m_pid = ::fork()) == 0) {
            ::execl(m_path.c_str(), m_path.c_str(), "30", static_cast<char*>(nullptr));
            ::_exit(127);
        }
        // It runs the copy once its command name shows the new name.
        keldtest::waitFor([&] { return commOf(m_pid) == name.substr(0, 15); }, 2s);
    }
    ~NamedSleeper()
    {
        if (m_pid > 0) ::kill(m_pid, SIGKILL);
        endedBy(5s);
    }
    pid_t pid() const { return m_pid; }
    // The signal that ended the child, 0 for an exit, -1 while it runs on.
    int endedBy(std::chrono::milliseconds timeout)
    {
        int status = 0;
        if (m_pid <= 0 || !keldtest::waitFor([&] { return ::waitpid(m_pid, &status, WNOHANG) == m_pid; }, timeout)) {
            return -1;
        }
        m_pid = -1;
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

private:
    std::string m_path;
    pid_t m_pid = -1;
};

// The kernel keeps fifteen characters of a command name: a longer name is
// matched whole, against the program the process runs.
TEST(ProcessHandler, SignalsEveryProcessOfExactlyThatNameAndNoOther)
{
    keldtest::TempRoot dir(false, false);
    const std::string name = "kph" + std::to_string(::getpid() % 100000);
    const std::string longName = "keld_long_process_name_" + std::to_string(::getpid() % 100000);
    const std::string cut = longName.substr(0, 15);
    NamedSleeper target(dir, name), bystander(dir, name + "x"), longOne(dir, longName), sameStart(dir, cut + "other");

    ProcessHandler handler(name);
    EXPECT_EQ(std::vector<pid_t>{target.pid()}, handler.findProcesses());
    EXPECT_EQ(std::vector<pid_t>{longOne.pid()}, ProcessHandler(longName).findProcesses());
    EXPECT_EQ(2u, ProcessHandler(cut).findProcesses().size());
    const std::vector<pid_t> self = ProcessHandler(commOf(::getpid())).findProcesses();
    EXPECT_EQ(self.end(), std::find(self.begin(), self.end(), ::getpid()));
    EXPECT_EQ(0, ProcessHandler("no-such-process-name").terminate());

    handler.setSignalType(SIGUSR2);
    EXPECT_EQ(1, handler.terminate());
    EXPECT_EQ(SIGUSR2, target.endedBy(5s));
    EXPECT_EQ(1, ProcessHandler(longName).terminate());
    EXPECT_EQ(SIGTERM, longOne.endedBy(5s)) << "15 unless told otherwise";
    EXPECT_EQ(-1, bystander.endedBy(100ms));
    EXPECT_EQ(-1, sameStart.endedBy(0ms));
}

} // namespace
