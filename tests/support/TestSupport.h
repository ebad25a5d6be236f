// Shared pieces of the tests: a temporary install root, free loopback ports,
// and a child keldpxy process that is always stopped.
#ifndef KELD_TESTS_TESTSUPPORT_H
#define KELD_TESTS_TESTSUPPORT_H

#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace keldtest {

// A fresh install root in /tmp laid out like an installed one; removed on
// destruction, unless KELD_KEEP_ROOT is set (to read a failed test's log).
// Sets KELDV_ROOT for this process while it lives.
class TempRoot {
public:
    explicit TempRoot(bool withLog = true, bool withPlugins = true);
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const std::string& path() const { return m_path; }
    std::string logDir() const { return m_path + "/keldrive/logs/keldpxy"; }
    // Every log line written so far, all files in name order.
    std::string readLog() const;
    void writeFile(const std::string& relative, const std::string& content) const;
    // Replaces lib/stsplugins with links to the plug-ins in `dir` only.
    void usePluginsFrom(const std::string& dir) const;

private:
    std::string m_path;
    std::string m_oldRoot;
    bool m_hadOldRoot = false;
};

// A TCP port on 127.0.0.1 that nothing listens on right now.
int freePort();
inline std::string endpointArg(int port) { return "iiop://127.0.0.1:" + std::to_string(port); }
inline std::string corbaloc(int port, const std::string& key)
{
    return "corbaloc::127.0.0.1:" + std::to_string(port) + "/" + key;
}

std::string keldpxyPath();           // the built executable

// A child process; on destruction, if still running, it gets signal 15
// and then, after 10 s, SIGKILL.
class Child {
public:
    // stderrPath, when given, receives the child's standard error; stdinFd,
    // when given, is its standard input.
    Child(const std::string& program, const std::vector<std::string>& args,
          const std::vector<std::string>& extraEnv = {}, const std::string& stderrPath = "", int stdinFd = -1);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return m_pid; }
    // Waits for the exit; returns the exit status, or -1 on time-out
    // (the child is then left running), -2 when killed by a signal.
    int wait(std::chrono::milliseconds timeout);
    bool running() { return wait(std::chrono::milliseconds(0)) == -1; }
    void signal(int sig)
    {
        if (!m_reaped) ::kill(m_pid, sig);
    }

private:
    pid_t m_pid = -1;
    int m_status = 0;
    bool m_reaped = false;
};

// Polls until pred() is true or the time is up.
bool waitFor(const std::function<bool()>& pred, std::chrono::milliseconds timeout);

// Runs keldpxy to the end with the given arguments; returns its exit status.
int runKeldpxy(const std::vector<std::string>& args, std::chrono::milliseconds timeout,
               const std::vector<std::string>& extraEnv = {});

} // namespace keldtest

#endif
