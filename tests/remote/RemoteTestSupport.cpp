#include "RemoteTestSupport.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace remotetest {

namespace {

std::mutex g_linesLock;
std::string g_lines;

void keepLine(const char* id, const char* msg, sts_severity_t)
{
    std::lock_guard<std::mutex> guard(g_linesLock);
    g_lines += std::string("[") + (id != nullptr ? id : "") + "]" + (msg != nullptr ? msg : "") + "\n";
}

} // namespace

std::string hostName()
{
    char host[512] = {0};
    gethostname(host, sizeof(host) - 1);
    return host;
}

std::string diskServer()
{
    return "Disk:" + hostName();
}

Service::Service() : m_port(keldtest::freePort()) {}

void Service::start(const std::vector<std::string>& extraArgs, const std::string& extraEndpoints)
{
    std::vector<std::string> args{"-start", "-ORBListenEndPoints",
                                  keldtest::endpointArg(m_port) + (extraEndpoints.empty() ? "" : " " + extraEndpoints)};
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    m_process = std::make_unique<keldtest::Child>(keldtest::keldpxyPath(), args,
                                                  std::vector<std::string>{"KELDV_ROOT=" + m_root.path()});
    if (!keldtest::waitFor([&] { return logCount("succeed to advertise object EventChannelManager") > 0; }, 20s)) {
        throw std::runtime_error("the service did not start: " + log());
    }
}

int Service::stop()
{
    if (!m_process) return -1;
    m_process->signal(SIGTERM);
    const int status = m_process->wait(20s);
    m_process.reset();
    return status;
}

size_t Service::logCount(const std::string& text) const
{
    const std::string all = log();
    size_t n = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++n;
    return n;
}

Client::Client(const std::string& settings) : m_root(false, true)
{
    m_root.writeFile("keldrive/zvsclient.conf", settings);
    mkdir((m_root.path() + "/keldrive/logs/libzvsclient").c_str(), 0755);
    if (stsm_init(STS_VERSION, (m_root.path() + "/lib").c_str(), &m_api) != 0) {
        throw std::runtime_error("the storage framework did not start");
    }
    std::lock_guard<std::mutex> guard(g_linesLock);
    g_lines.clear();
}

Client::~Client()
{
    for (sts_handle_t s : m_sessions) m_api->stsa_close_handle(s, 0);
    stsm_terminate();
}

sts_handle_t Client::session(const std::string& chain, const std::string& id)
{
    m_ids.push_back(std::make_unique<std::string>(id));
    sts_session_def_t sd = {};
    std::strncpy(sd.sd_proxy, chain.c_str(), sizeof(sd.sd_proxy) - 1);
    sd.sd_id = m_ids.back()->c_str();
    sd.sd_log = keepLine;
    sd.sd_flags = 0xE;   // information, warnings, errors
    sts_handle_t h = nullptr;
    if (m_api->stsa_open_session(&sd, &h) != 0) throw std::runtime_error("no session");
    m_sessions.push_back(h);
    return h;
}

sts_handle_t Client::server(const std::string& chain, const std::string& id)
{
    sts_handle_t svh = nullptr;
    const int rc = m_api->stsa_open_server(session(chain, id), diskServer().c_str(), nullptr, "", &svh);
    if (rc != 0) throw std::runtime_error("the disk server did not open: " + std::to_string(rc) + "\n" + lines());
    return svh;
}

std::string Client::lines() const
{
    std::lock_guard<std::mutex> guard(g_linesLock);
    return g_lines;
}

sts_lsu_t lsuOf(sts_handle_t server, const std::string& name)
{
    sts_lsu_t lsu = {};
    lsu.stl_server_handle = server;
    std::strncpy(lsu.stl_lsu_name.sln_name, name.c_str(), sizeof(lsu.stl_lsu_name.sln_name) - 1);
    return lsu;
}

sts_image_def_t imageDef(const std::string& name)
{
    sts_image_def_t def = {};
    def.version = 10;
    std::strncpy(def.img_basename, name.c_str(), sizeof(def.img_basename) - 1);
    std::strcpy(def.img_date, "20260101");
    std::strcpy(def.img_fulldate, "20260101000000");
    return def;
}

} // namespace remotetest
