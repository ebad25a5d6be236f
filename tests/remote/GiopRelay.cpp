#include "GiopRelay.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const unsigned char GIOP_REPLY = 1;
const size_t HEADER = 12;

bool readAll(int fd, unsigned char* buf, size_t n)
{
    while (n > 0) {
        const ssize_t r = ::read(fd, buf, n);
        if (r <= 0) return false;
        buf += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

bool writeAll(int fd, const unsigned char* buf, size_t n)
{
    while (n > 0) {
        const ssize_t w = ::send(fd, buf, n, MSG_NOSIGNAL);
        if (w <= 0) return false;
        buf += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

// The body length of a GIOP header; byte 6 bit 0 is the byte order (little
// endian when set) in every GIOP version.
uint32_t bodyLength(const unsigned char* h)
{
    const bool little = (h[6] & 1) != 0;
    return little ? (uint32_t(h[8]) | uint32_t(h[9]) << 8 | uint32_t(h[10]) << 16 | uint32_t(h[11]) << 24)
                  : (uint32_t(h[11]) | uint32_t(h[10]) << 8 | uint32_t(h[9]) << 16 | uint32_t(h[8]) << 24);
}

int connectTo(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    return fd;
}

} // namespace

struct GiopRelay::Connection {
    int client = -1;
    int service = -1;
    ~Connection()
    {
        if (client >= 0) close(client);
        if (service >= 0) close(service);
    }
    void cut()
    {
        shutdown(client, SHUT_RDWR);
        shutdown(service, SHUT_RDWR);
    }
};

GiopRelay::GiopRelay(int targetPort, unsigned dropEvery) : m_targetPort(targetPort), m_dropEvery(dropEvery)
{
    m_listenFd = socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (bind(m_listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(m_listenFd, 16) != 0 ||
        getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        close(m_listenFd);
        throw std::runtime_error("relay: cannot listen");
    }
    m_port = ntohs(addr.sin_port);
    m_acceptor = std::thread([this] { acceptLoop(); });
}

GiopRelay::~GiopRelay()
{
    m_stop = true;
    m_acceptor.join();
    close(m_listenFd);
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (auto& weak : m_connections) {
            if (auto c = weak.lock()) c->cut();
        }
    }
    // The pumps run detached, so that thousands of dropped connections
    // leave no threads behind; they end once their sockets are cut.
    while (m_activePumps > 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

void GiopRelay::acceptLoop()
{
    while (!m_stop) {
        pollfd p{m_listenFd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        const int client = accept(m_listenFd, nullptr, nullptr);
        if (client < 0) continue;
        auto c = std::make_shared<Connection>();
        c->client = client;
        c->service = connectTo(m_targetPort);
        if (c->service < 0) continue;   // the client sees its connection close
        const int one = 1;
        setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        std::lock_guard<std::mutex> guard(m_lock);
        m_connections.erase(std::remove_if(m_connections.begin(), m_connections.end(),
                                           [](const std::weak_ptr<Connection>& w) { return w.expired(); }),
                            m_connections.end());
        m_connections.push_back(c);
        m_activePumps += 2;
        std::thread([this, c] { pump(c, true); }).detach();
        std::thread([this, c] { pump(c, false); }).detach();
    }
}

// Forwards whole messages.  Towards the client a Reply may be dropped: the
// header is not passed on and both connections close.
void GiopRelay::pump(std::shared_ptr<Connection> c, bool towardsService)
{
    const int from = towardsService ? c->client : c->service;
    const int to = towardsService ? c->service : c->client;
    std::vector<unsigned char> buf(256 << 10);
    unsigned char header[HEADER];
    while (readAll(from, header, HEADER)) {
        if (std::memcmp(header, "GIOP", 4) != 0) break;
        if (!towardsService && header[7] == GIOP_REPLY && m_dropEvery != 0 && ++m_replies % m_dropEvery == 0) {
            ++m_dropped;
            break;
        }
        if (!writeAll(to, header, HEADER)) break;
        uint32_t left = bodyLength(header);
        bool ok = true;
        while (ok && left > 0) {
            const size_t n = std::min<size_t>(left, buf.size());
            ok = readAll(from, buf.data(), n) && writeAll(to, buf.data(), n);
            left -= static_cast<uint32_t>(n);
        }
        if (!ok) break;
    }
    c->cut();
    --m_activePumps;
}
