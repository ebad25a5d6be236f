// A loopback TCP relay between a client and a service that loses replies on
// purpose: it reads the GIOP message headers in both directions, and when a
// Reply is about to go back to the client it may instead close both
// connections.  The request has then reached the service and run there;
// the client sees its connection drop and must resend.
#ifndef KELD_TESTS_REMOTE_GIOPRELAY_H
#define KELD_TESTS_REMOTE_GIOPRELAY_H

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class GiopRelay {
public:
    // Relays 127.0.0.1:port() to 127.0.0.1:targetPort; drops every
    // dropEvery-th Reply (0: none).
    GiopRelay(int targetPort, unsigned dropEvery);
    ~GiopRelay();
    GiopRelay(const GiopRelay&) = delete;
    GiopRelay& operator=(const GiopRelay&) = delete;

    int port() const { return m_port; }
    unsigned long dropped() const { return m_dropped; }

    struct Connection;

private:
    void acceptLoop();
    void pump(std::shared_ptr<Connection> c, bool towardsService);

    int m_listenFd = -1;
    int m_port = 0;
    int m_targetPort;
    const unsigned m_dropEvery;
    std::atomic<bool> m_stop{false};
    std::atomic<unsigned long> m_replies{0};
    std::atomic<unsigned long> m_dropped{0};
    std::mutex m_lock;
    std::atomic<int> m_activePumps{0};
    std::vector<std::weak_ptr<Connection>> m_connections;
    std::thread m_acceptor;
};

#endif
