// The service's HTTP side for monitoring: GET /metrics answers the metrics
// text, GET /healthz "ok" (200) while the service serves, and 503 before and
// once it stops.  It listens only on the address of METRICS_ENDPOINT, on two
// threads of its own, apart from the ORB's request threads; a slow or
// broken HTTP client can hold one of those two for the read timeout at
// most, never a storage call.
#ifndef KELD_PROXY_METRICSENDPOINT_H
#define KELD_PROXY_METRICSENDPOINT_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

class MetricsEndpoint {
public:
    struct Address {
        std::string host;   // a name or a numeric address, without brackets
        int port = 0;
    };
    // "HOST:PORT", "[v6-address]:PORT"; false with the reason in why.
    static bool parseAddress(const std::string& text, Address& out, std::string& why);

    // metricsText is called on an HTTP thread for each scrape.
    explicit MetricsEndpoint(std::function<std::string()> metricsText);
    // Stops serving and waits for the HTTP threads.
    ~MetricsEndpoint();
    MetricsEndpoint(const MetricsEndpoint&) = delete;
    MetricsEndpoint& operator=(const MetricsEndpoint&) = delete;

    // Takes the address, so that a port already in use stops the start;
    // nothing is answered before serve().  Empty on success, else why not.
    std::string bind(const Address& address);
    // Answers from now on, /healthz with "ok".
    void serve();
    // /healthz answers 503 from now on; /metrics goes on.
    void stopping() { m_serving.store(false); }

private:
    std::function<std::string()> m_metricsText;
    std::unique_ptr<httplib::Server> m_server;
    std::thread m_thread;
    std::atomic<bool> m_serving{false};
    std::atomic<bool> m_listenEnded{false};
};

#endif
