// Services and a client for the tests that go through the remote plug-in:
// keldpxy processes each with an install root of its own, and this process
// as the client, using our storage framework with the built plug-ins.
#ifndef KELD_TESTS_REMOTE_REMOTETESTSUPPORT_H
#define KELD_TESTS_REMOTE_REMOTETESTSUPPORT_H

#include "RemotePlugin.h"
#include "TestSupport.h"
#include "sts_plugin.h"

#include <memory>
#include <string>
#include <vector>

namespace remotetest {

std::string hostName();
std::string diskServer();   // "Disk:<host>", made with LSU lsu0 at first use

// A keldpxy on 127.0.0.1 serving its own install root (the disk tests and
// keldctl's use it as theirs; the remote plug-in is among its plug-ins).
class Service {
public:
    Service();
    // extraArgs: further -ORB options; extraEndpoints: more listen URLs.
    // Throws when the service does not come up.
    void start(const std::vector<std::string>& extraArgs = {}, const std::string& extraEndpoints = "");
    // Signal 15; the exit status (0 for a clean end), -1 when not running.
    int stop();
    int port() const { return m_port; }
    std::string hop() const { return "127.0.0.1:" + std::to_string(m_port); }
    keldtest::TempRoot& root() { return m_root; }
    std::string log() const { return m_root.readLog(); }
    size_t logCount(const std::string& text) const;

private:
    keldtest::TempRoot m_root;
    int m_port;
    std::unique_ptr<keldtest::Child> m_process;
};

// This process as a client: an install root of its own (made last, so its
// KELDV_ROOT is the one in effect) with these remote plug-in settings, the
// framework's table, and sessions whose log lines are kept.
class Client {
public:
    explicit Client(const std::string& settings = "");
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    sts_api_t* api() const { return m_api; }
    sts_handle_t session(const std::string& chain, const std::string& id = "remote-test");
    // The disk server opened through a session on chain.
    sts_handle_t server(const std::string& chain, const std::string& id = "remote-test");
    std::string lines() const;   // every line the sessions' sd_log received

private:
    keldtest::TempRoot m_root;
    sts_api_t* m_api = nullptr;
    std::vector<sts_handle_t> m_sessions;
    std::vector<std::unique_ptr<std::string>> m_ids;
};

sts_lsu_t lsuOf(sts_handle_t server, const std::string& name);
sts_image_def_t imageDef(const std::string& name);   // fixed dates

} // namespace remotetest

#endif
