#include "MetricsEndpoint.h"

#include <httplib.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sys/socket.h>

namespace {

const int kHttpThreads = 2;
const time_t kReadTimeoutSeconds = 5;
const std::size_t kLargestRequestBody = 4096;   // nothing here takes a body

// Only the address may be reused (a restart while old connections linger);
// never the port by a second listener, so that two services configured
// alike do not split the scrapes between them silently.
void exclusivePortOptions(socket_t sock)
{
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
}

bool allDigits(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

} // namespace

bool MetricsEndpoint::parseAddress(const std::string& text, Address& out, std::string& why)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        why = "has no port (HOST:PORT)";
        return false;
    }
    std::string host = text.substr(0, colon);
    const std::string port = text.substr(colon + 1);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    } else if (host.find_first_of(":[]") != std::string::npos) {
        why = "has an IPv6 address without brackets ([ADDRESS]:PORT)";
        return false;
    }
    if (host.empty() || host.find_first_of(" \t/") != std::string::npos) {
        why = "has no host name or address (HOST:PORT)";
        return false;
    }
    if (!allDigits(port) || port.size() > 5 || std::stoi(port) < 1 || std::stoi(port) > 65535) {
        why = "has no port from 1 to 65535 (HOST:PORT)";
        return false;
    }
    out.host = host;
    out.port = std::stoi(port);
    return true;
}

MetricsEndpoint::MetricsEndpoint(std::function<std::string()> metricsText)
    : m_metricsText(std::move(metricsText)), m_server(std::make_unique<httplib::Server>())
{
    m_server->new_task_queue = [] { return new httplib::ThreadPool(kHttpThreads); };
    m_server->set_socket_options(exclusivePortOptions);
    m_server->set_read_timeout(kReadTimeoutSeconds, 0);
    m_server->set_write_timeout(kReadTimeoutSeconds, 0);
    m_server->set_keep_alive_max_count(1);
    m_server->set_payload_max_length(kLargestRequestBody);
    m_server->Get("/metrics", [this](const httplib::Request&, httplib::Response& res) {
        res.set_content(m_metricsText(), "text/plain; version=0.0.4; charset=utf-8");
    });
    m_server->Get("/healthz", [this](const httplib::Request&, httplib::Response& res) {
        const bool serving = m_serving.load();
        res.status = serving ? 200 : 503;
        res.set_content(serving ? "ok\n" : "stopping\n", "text/plain; charset=utf-8");
    });
}

MetricsEndpoint::~MetricsEndpoint()
{
    m_serving.store(false);
    if (!m_thread.joinable()) return;
    // A stop that comes before the thread listens would find nothing to
    // stop: ask again until the listening has ended.
    while (!m_listenEnded.load()) {
        m_server->stop();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    m_thread.join();
}

std::string MetricsEndpoint::bind(const Address& address)
{
    errno = 0;
    if (m_server->bind_to_port(address.host, address.port)) return "";
    const int err = errno;
    return err != 0 ? std::strerror(err) : "the address does not resolve or cannot be bound";
}

void MetricsEndpoint::serve()
{
    m_serving.store(true);
    m_thread = std::thread([this] {
        m_server->listen_after_bind();
        m_listenEnded.store(true);
    });
}
