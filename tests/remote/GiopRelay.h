// A loopback TCP relay between a client and a service that loses replies on
// purpose: it reads the GIOP message headers in both directions, and when a
// Reply is about to go back to the client it may instead close both
// connections.  The request has then reached the service and run there;
// the client sees its connection drop and must resend.
#ifndef KELD_TESTS_REMOTE_GIOPRELAY_H
#define KELD_TESTS_REMOTE_GIOPRELAY_H

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

class GiopRelay {
public:
    // Relays 127.0.0.1:port() to 127.0.0.1:targetPort; drops every
    // dropEvery-th Reply (0: none).
    GiopRelay(int targetPort, unsigned dropEvery) : m_targetPort(targetPort), m_dropEvery(dropEvery)
    {
        sockaddr_in addr = loopback(0);
        socklen_t len = sizeof(addr);
        m_listenFd = socket(AF_INET, SOCK_STREAM, 0);
        if (bind(m_listenFd, asAddr(addr), sizeof(addr)) != 0 || listen(m_listenFd, 16) != 0 ||
            getsockname(m_listenFd, asAddr(addr), &len) != 0) {
            close(m_listenFd);
            throw std::runtime_error("relay: cannot listen");
        }
        m_port = ntohs(addr.sin_port);
        m_acceptor = std::thread([this] { acceptLoop(); });
    }
    ~GiopRelay()
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
    GiopRelay(const GiopRelay&) = delete;
    GiopRelay& operator=(const GiopRelay&) = delete;

    int port() const { return m_port; }
    unsigned long dropped() const { return m_dropped; }

private:
    struct Connection {
        int fd[2] = {-1, -1};   // the client's, the service's
        ~Connection()
        {
            for (int f : fd) close(f);
        }
        void cut()
        {
            for (int f : fd) shutdown(f, SHUT_RDWR);
        }
    };

    static sockaddr_in loopback(int port)
    {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(port));
        return addr;
    }
    static sockaddr* asAddr(sockaddr_in& addr) { return reinterpret_cast<sockaddr*>(&addr); }
    // Reads or sends exactly n bytes.
    static bool io(int fd, unsigned char* buf, size_t n, bool reading)
    {
        while (n > 0) {
            const ssize_t r = reading ? ::read(fd, buf, n) : ::send(fd, buf, n, MSG_NOSIGNAL);
            if (r <= 0) return false;
            buf += r;
            n -= static_cast<size_t>(r);
        }
        return true;
    }

    void acceptLoop()
    {
        while (!m_stop) {
            pollfd p{m_listenFd, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) continue;
            auto c = std::make_shared<Connection>();
            c->fd[0] = accept(m_listenFd, nullptr, nullptr);
            c->fd[1] = socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in target = loopback(m_targetPort);
            if (c->fd[0] < 0 || connect(c->fd[1], asAddr(target), sizeof(target)) != 0) continue;   // the client sees a close
            const int one = 1;
            for (int f : c->fd) setsockopt(f, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
            std::lock_guard<std::mutex> guard(m_lock);
            m_connections.erase(std::remove_if(m_connections.begin(), m_connections.end(),
                                               [](const std::weak_ptr<Connection>& w) { return w.expired(); }),
                                m_connections.end());
            m_connections.push_back(c);
            m_activePumps += 2;
            std::thread([this, c] { pump(c, 0, 1); }).detach();
            std::thread([this, c] { pump(c, 1, 0); }).detach();
        }
    }

    // Forwards whole messages.  Towards the client a Reply (type 1) may be
    // dropped: its header is not passed on and both connections close.
    void pump(std::shared_ptr<Connection> c, int from, int to)
    {
        std::vector<unsigned char> buf(256 << 10);
        unsigned char h[12];
        while (io(c->fd[from], h, sizeof(h), true) && std::memcmp(h, "GIOP", 4) == 0) {
            if (to == 0 && h[7] == 1 && m_dropEvery != 0 && ++m_replies % m_dropEvery == 0) {
                ++m_dropped;
                break;
            }
            // The body length; byte 6 bit 0 is the byte order (little endian when set).
            uint32_t left = (h[6] & 1) != 0 ? (uint32_t(h[8]) | uint32_t(h[9]) << 8 | uint32_t(h[10]) << 16 | uint32_t(h[11]) << 24)
                                            : (uint32_t(h[11]) | uint32_t(h[10]) << 8 | uint32_t(h[9]) << 16 | uint32_t(h[8]) << 24);
            bool ok = io(c->fd[to], h, sizeof(h), false);
            while (ok && left > 0) {
                const size_t n = std::min<size_t>(left, buf.size());
                ok = io(c->fd[from], buf.data(), n, true) && io(c->fd[to], buf.data(), n, false);
                left -= static_cast<uint32_t>(n);
            }
            if (!ok) break;
        }
        c->cut();
        --m_activePumps;
    }

    int m_listenFd = -1;
    int m_port = 0;
    const int m_targetPort;
    const unsigned m_dropEvery;
    std::atomic<bool> m_stop{false};
    std::atomic<unsigned long> m_replies{0};
    std::atomic<unsigned long> m_dropped{0};
    std::atomic<int> m_activePumps{0};
    std::mutex m_lock;
    std::vector<std::weak_ptr<Connection>> m_connections;
    std::thread m_acceptor;
};

#endif
