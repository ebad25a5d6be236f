#include "PidFile.h"
#include "ProcessHandler.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

// A copy of sleep under a name of our choosing, running once its command
// name shows the new name.
std::unique_ptr<keldtest::Child> namedSleeper(const keldtest::TempRoot& dir, const std::string& name)
{
    const std::string path = dir.path() + "/" + name;
    std::ofstream(path, std::ios::binary) << std::ifstream("/bin/sleep", std::ios::binary).rdbuf();
    ::chmod(path.c_str(), 0755);
    auto child = std::make_unique<keldtest::Child>(path, std::vector<std::string>{"30"});
    keldtest::waitFor([&] { return commOf(child->pid()) == name.substr(0, 15); }, 2s);
    return child;
}

// The kernel keeps fifteen characters of a command name: a longer name is
// matched whole, against the program the process runs.
TEST(ProcessHandler, SignalsEveryProcessOfExactlyThatNameAndNoOther)
{
    keldtest::TempRoot dir(false, false);
    const std::string name = "kph" + std::to_string(::getpid() % 100000);
    const std::string longName = "keld_long_process_name_" + std::to_string(::getpid() % 100000);
    const std::string cut = longName.substr(0, 15);
    auto target = namedSleeper(dir, name), bystander = namedSleeper(dir, name + "x");
    auto longOne = namedSleeper(dir, longName), sameStart = namedSleeper(dir, cut + "other");

    EXPECT_EQ(std::vector<pid_t>{target->pid()}, ProcessHandler(name).findProcesses());
    EXPECT_EQ(std::vector<pid_t>{longOne->pid()}, ProcessHandler(longName).findProcesses());
    EXPECT_EQ(2u, ProcessHandler(cut).findProcesses().size());
    const std::vector<pid_t> self = ProcessHandler(commOf(::getpid())).findProcesses();
    EXPECT_EQ(self.end(), std::find(self.begin(), self.end(), ::getpid())) << "never the caller";
    EXPECT_EQ(0, ProcessHandler("no-such-process-name").terminate());

    EXPECT_EQ(1, ProcessHandler(name).terminate());
    EXPECT_EQ(-2, target->wait(5s)) << "ended by the signal";
    EXPECT_EQ(1, ProcessHandler(longName).terminate());
    EXPECT_EQ(-2, longOne->wait(5s));
    EXPECT_TRUE(bystander->running());
    EXPECT_TRUE(sameStart->running());
}

// A process whose first thread has gone while another still runs, as
// every process is for a moment while it ends: its parent cannot collect
// it yet, so it has not ended.  Once the last thread is gone it has, and
// the parent collects it at once: what keldpxy -stop waits for.
TEST(ProcessHandler, AProcessEndsWithItsLastThreadNotItsFirst)
{
    int gate[2];
    ASSERT_EQ(0, ::pipe(gate));
    const pid_t pid = ::fork();
    ASSERT_LE(0, pid);
    if (pid == 0) {
        ::close(gate[1]);
        pthread_t worker;
        ::pthread_create(&worker, nullptr, [](void* fd) -> void* {
            char c;
            (void)!::read(*static_cast<int*>(fd), &c, 1);   // until the test closes its end
            ::_exit(0);
        }, &gate[0]);
        ::syscall(SYS_exit, 0);   // this thread only, and without unwinding through the test
    }
    ::close(gate[0]);
    const auto firstThreadGone = [&] {
        std::string stat;
        std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), stat);
        return stat.find(") Z ") != std::string::npos;
    };
    EXPECT_TRUE(keldtest::waitFor(firstThreadGone, 5s));
    EXPECT_FALSE(PidFile::startTime(pid).empty()) << "its other thread still runs";

    ::close(gate[1]);
    EXPECT_TRUE(keldtest::waitFor([&] { return PidFile::startTime(pid).empty(); }, 5s));
    int status = -1;
    EXPECT_EQ(pid, ::waitpid(pid, &status, WNOHANG)) << "ended, so its parent collects it at once";
    EXPECT_TRUE(WIFEXITED(status));
}

} // namespace
