#include "HopProbe.h"

#include <cerrno>
#include <memory>
#include <string>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

HopCause causeOf(int err)
{
    switch (err) {
    case ECONNREFUSED: return HopCause::Refused;
    case ETIMEDOUT: return HopCause::TimedOut;
    case EHOSTUNREACH:
    case ENETUNREACH: return HopCause::NoRoute;
    default: return HopCause::Unknown;
    }
}

// Waits for events on fd; false on time-out.
bool waitFor(int fd, short events, std::chrono::milliseconds limit)
{
    pollfd p{fd, events, 0};
    int rc;
    do {
        rc = poll(&p, 1, static_cast<int>(limit.count()));
    } while (rc < 0 && errno == EINTR);
    return rc > 0;
}

class Socket {
public:
    explicit Socket(const addrinfo& a) : m_fd(socket(a.ai_family, a.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a.ai_protocol)) {}
    ~Socket()
    {
        if (m_fd >= 0) close(m_fd);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return m_fd; }

private:
    int m_fd;
};

// The connection's fate once made: closed by the hop before we said anything
// (a refusal at accept), or still open.
HopCause watchConnection(int fd, std::chrono::milliseconds closeWatch)
{
    if (!waitFor(fd, POLLIN, closeWatch)) return HopCause::Unknown;
    char byte;
    const ssize_t n = recv(fd, &byte, 1, MSG_PEEK);
    return n == 0 || (n < 0 && (errno == ECONNRESET || errno == EPIPE)) ? HopCause::ClosedAtOnce : HopCause::Unknown;
}

} // namespace

HopCause probeHop(const HopAddress& hop, std::chrono::milliseconds connectLimit, std::chrono::milliseconds closeWatch)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int rc = getaddrinfo(hop.host.c_str(), std::to_string(hop.port).c_str(), &hints, &found);
    if (rc != 0) return rc == EAI_NONAME || rc == EAI_NODATA || rc == EAI_FAIL ? HopCause::NoName : HopCause::Unknown;
    std::unique_ptr<addrinfo, void (*)(addrinfo*)> held(found, freeaddrinfo);

    Socket s(*found);
    if (s.fd() < 0) return HopCause::Unknown;
    if (connect(s.fd(), found->ai_addr, found->ai_addrlen) != 0) {
        if (errno != EINPROGRESS) return causeOf(errno);
        if (!waitFor(s.fd(), POLLOUT, connectLimit)) return HopCause::TimedOut;
        int err = 0;
        socklen_t len = sizeof(err);
        if (getsockopt(s.fd(), SOL_SOCKET, SO_ERROR, &err, &len) != 0) return HopCause::Unknown;
        if (err != 0) return causeOf(err);
    }
    return watchConnection(s.fd(), closeWatch);
}
