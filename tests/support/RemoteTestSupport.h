// Services and a client for the tests that go through the remote plug-in:
// keldpxy processes each with an install root of its own, and this process
// as the client, using our storage framework with the built plug-ins.
#ifndef KELD_TESTS_REMOTETESTSUPPORT_H
#define KELD_TESTS_REMOTETESTSUPPORT_H

#include "RemotePlugin.h"
#include "TestSupport.h"
#include "sts_plugin.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <ostream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace remotetest {

inline std::string hostName()
{
    char host[512] = {0};
    gethostname(host, sizeof(host) - 1);
    return host;
}

// "Disk:<host>", made with LSU lsu0 at first use.
inline std::string diskServer()
{
    return "Disk:" + hostName();
}

// Runs a command line through the shell: its exit status, its output (both
// streams) in out.
inline int runTool(const std::string& cmd, std::string* out = nullptr)
{
    FILE* pipe = popen((cmd + " 2>&1").c_str(), "r");
    std::string text;
    char chunk[256];
    while (size_t n = std::fread(chunk, 1, sizeof(chunk), pipe)) text.append(chunk, n);
    const int status = pclose(pipe);
    if (out != nullptr) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The two ways the disk and keldctl tests reach the storage.
enum class Route { Direct, ThroughService };

inline void PrintTo(Route r, std::ostream* os)
{
    *os << (r == Route::Direct ? "direct" : "through a service");
}

// A keldpxy on 127.0.0.1 serving its own install root (the disk and
// keldctl tests use it as theirs; the remote plug-in is among its plug-ins).
class Service {
public:
    // extraArgs: further -ORB options; extraEndpoints: more listen URLs;
    // extraEnv: NAME=VALUE settings for the service's environment.
    void start(const std::vector<std::string>& extraArgs = {}, const std::string& extraEndpoints = "",
               std::vector<std::string> extraEnv = {})
    {
        extraEnv.push_back("KELDV_ROOT=" + m_root.path());
        std::vector<std::string> args{"-start", "-ORBListenEndPoints",
                                      keldtest::endpointArg(m_port) + (extraEndpoints.empty() ? "" : " " + extraEndpoints)};
        args.insert(args.end(), extraArgs.begin(), extraArgs.end());
        m_process = std::make_unique<keldtest::Child>(keldtest::keldpxyPath(), args, extraEnv);
        if (!keldtest::waitFor([&] { return logCount("succeed to advertise object EventChannelManager") > 0; },
                               std::chrono::seconds(20))) {
            throw std::runtime_error("the service did not start: " + log());
        }
    }
    // Signal 15; the exit status (0 for a clean end), -1 when not running.
    int stop()
    {
        if (!m_process) return -1;
        m_process->signal(SIGTERM);
        const int status = m_process->wait(std::chrono::seconds(20));
        m_process.reset();
        return status;
    }
    // Dies at once, as in a crash: nothing of it closes or cleans up.
    void kill()
    {
        if (!m_process) return;
        m_process->signal(SIGKILL);
        m_process->wait(std::chrono::seconds(20));
        m_process.reset();
    }
    bool running() const { return m_process != nullptr; }
    int port() const { return m_port; }
    std::string hop() const { return "127.0.0.1:" + std::to_string(m_port); }
    keldtest::TempRoot& root() { return m_root; }
    std::string log() const { return m_root.readLog(); }
    size_t logCount(const std::string& text) const
    {
        const std::string all = log();
        size_t n = 0;
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++n;
        return n;
    }

private:
    keldtest::TempRoot m_root;
    int m_port = keldtest::freePort();
    std::unique_ptr<keldtest::Child> m_process;
};

// Every line the client's sessions received through sd_log.
inline std::mutex g_linesLock;
inline std::string g_lines;

// This process as a client: an install root of its own (made last, so its
// KELDV_ROOT is the one in effect) with these remote plug-in settings, the
// framework's table, and sessions whose log lines are kept.
class Client {
public:
    explicit Client(const std::string& settings = "") : m_root(false, true)
    {
        m_root.writeFile("keldrive/zvsclient.conf", settings);
        mkdir((m_root.path() + "/keldrive/logs/libzvsclient").c_str(), 0755);
        if (stsm_init(STS_VERSION, (m_root.path() + "/lib").c_str(), &m_api) != 0) {
            throw std::runtime_error("the storage framework did not start");
        }
        std::lock_guard<std::mutex> guard(g_linesLock);
        g_lines.clear();
    }
    ~Client()
    {
        for (sts_handle_t s : m_sessions) m_api->stsa_close_handle(s, 0);
        stsm_terminate();
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    sts_api_t* api() const { return m_api; }
    sts_handle_t session(const std::string& chain, const std::string& id = "remote-test")
    {
        m_ids.push_back(std::make_unique<std::string>(id));
        sts_session_def_t sd = {};
        std::strncpy(sd.sd_proxy, chain.c_str(), sizeof(sd.sd_proxy) - 1);
        sd.sd_id = m_ids.back()->c_str();
        sd.sd_log = [](const char* who, const char* msg, sts_severity_t) {
            std::lock_guard<std::mutex> guard(g_linesLock);
            g_lines += std::string("[") + (who != nullptr ? who : "") + "]" + (msg != nullptr ? msg : "") + "\n";
        };
        sd.sd_flags = 0xE;   // information, warnings, errors
        sts_handle_t h = nullptr;
        if (m_api->stsa_open_session(&sd, &h) != 0) throw std::runtime_error("no session");
        m_sessions.push_back(h);
        return h;
    }
    // The disk server opened through a session on chain.
    sts_handle_t server(const std::string& chain, const std::string& id = "remote-test")
    {
        sts_handle_t svh = nullptr;
        const int rc = m_api->stsa_open_server(session(chain, id), diskServer().c_str(), nullptr, "", &svh);
        if (rc != 0) throw std::runtime_error("the disk server did not open: " + std::to_string(rc) + "\n" + lines());
        return svh;
    }
    std::string lines() const
    {
        std::lock_guard<std::mutex> guard(g_linesLock);
        return g_lines;
    }

private:
    keldtest::TempRoot m_root;
    sts_api_t* m_api = nullptr;
    std::vector<sts_handle_t> m_sessions;
    std::vector<std::unique_ptr<std::string>> m_ids;
};

inline sts_lsu_t lsuOf(sts_handle_t server, const std::string& name)
{
    sts_lsu_t lsu = {};
    lsu.stl_server_handle = server;
    std::strncpy(lsu.stl_lsu_name.sln_name, name.c_str(), sizeof(lsu.stl_lsu_name.sln_name) - 1);
    return lsu;
}

// An image definition with fixed dates.
inline sts_image_def_t imageDef(const std::string& name)
{
    sts_image_def_t def = {};
    def.version = 10;
    std::strncpy(def.img_basename, name.c_str(), sizeof(def.img_basename) - 1);
    std::strcpy(def.img_date, "20260101");
    std::strcpy(def.img_fulldate, "20260101000000");
    return def;
}

} // namespace remotetest

#endif
