#include "RawGiop.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace keldfuzz {

namespace {

const uint8_t kRequest = 0;
const uint8_t kReply = 1;
const uint8_t kCloseConnection = 5;
const uint8_t kMessageError = 6;
const uint8_t kFragment = 7;
const uint8_t kLittleEndianFlag = 0x01;
const uint8_t kMoreFragmentsFlag = 0x02;
const size_t kHeaderSize = 12;
// Larger than any reply the service may send (64 MiB of data and headers).
const uint32_t kLargestMessage = 256u << 20;

// CDR out of a chosen byte order, aligned from the start of the message.
class CdrWriter {
public:
    explicit CdrWriter(bool littleEndian) : m_little(littleEndian) {}

    void align(size_t n)
    {
        while (m_bytes.size() % n != 0) m_bytes.push_back(0);
    }
    void octet(uint8_t v) { m_bytes.push_back(v); }
    void octets(const void* data, size_t size)
    {
        const uint8_t* p = static_cast<const uint8_t*>(data);
        m_bytes.insert(m_bytes.end(), p, p + size);
    }
    void number(uint64_t v, size_t size)
    {
        align(size);
        for (size_t i = 0; i < size; ++i) {
            const size_t shift = 8 * (m_little ? i : size - 1 - i);
            m_bytes.push_back(static_cast<uint8_t>(v >> shift));
        }
    }
    void ulong(uint32_t v) { number(v, 4); }
    void string(const char* s)
    {
        const size_t length = std::strlen(s) + 1;
        ulong(static_cast<uint32_t>(length));
        octets(s, length);
    }
    void octetSequence(const std::string& s)
    {
        ulong(static_cast<uint32_t>(s.size()));
        octets(s.data(), s.size());
    }
    // The message size goes into the header once the message is whole.
    void patchSize()
    {
        const uint32_t size = static_cast<uint32_t>(m_bytes.size() - kHeaderSize);
        for (size_t i = 0; i < 4; ++i) m_bytes[8 + i] = static_cast<uint8_t>(size >> (8 * (m_little ? i : 3 - i)));
    }
    const std::vector<uint8_t>& bytes() const { return m_bytes; }

private:
    bool m_little;
    std::vector<uint8_t> m_bytes;
};

// CDR in, aligned from the start of the message; a read past the end
// leaves the reader failed.
class CdrReader {
public:
    CdrReader(const std::vector<uint8_t>& bytes, size_t at, bool littleEndian)
        : m_bytes(bytes), m_at(at), m_little(littleEndian)
    {
    }

    bool ok() const { return m_ok; }
    size_t position() const { return m_at; }
    void align(size_t n) { m_at = (m_at + n - 1) / n * n; }
    uint32_t ulong()
    {
        align(4);
        if (!has(4)) return 0;
        uint32_t v = 0;
        for (size_t i = 0; i < 4; ++i) {
            const size_t shift = 8 * (m_little ? i : 3 - i);
            v |= static_cast<uint32_t>(m_bytes[m_at + i]) << shift;
        }
        m_at += 4;
        return v;
    }
    void skip(size_t n)
    {
        if (has(n)) m_at += n;
    }

private:
    bool has(size_t n)
    {
        if (m_at > m_bytes.size() || m_bytes.size() - m_at < n) m_ok = false;
        return m_ok;
    }

    const std::vector<uint8_t>& m_bytes;
    size_t m_at;
    bool m_little;
    bool m_ok = true;
};

bool littleEndianMessage(const std::vector<uint8_t>& message)
{
    return (message[6] & kLittleEndianFlag) != 0;
}

bool moreFragments(const std::vector<uint8_t>& message)
{
    return (message[6] & kMoreFragmentsFlag) != 0;
}

bool sendAll(int fd, const std::vector<uint8_t>& bytes)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

bool receiveAll(int fd, uint8_t* into, size_t size)
{
    size_t got = 0;
    while (got < size) {
        const ssize_t n = ::recv(fd, into + got, size - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        got += static_cast<size_t>(n);
    }
    return true;
}

// A connect that a signal interrupted (libFuzzer's timer) goes on in the
// background: wait for it and take its result.
bool connectionCompletes(int fd)
{
    if (errno != EINTR) return false;
    pollfd p{fd, POLLOUT, 0};
    while (::poll(&p, 1, -1) < 0) {
        if (errno != EINTR) return false;
    }
    int error = 0;
    socklen_t length = sizeof(error);
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return false;
    errno = error;
    return error == 0;
}

CallOutcome failed(const char* why)
{
    std::fprintf(stderr, "raw GIOP: %s\n", why);
    return CallOutcome::Failed;
}

} // namespace

bool GiopReply::systemException(SystemException& out) const
{
    if (status != ReplyStatus::SystemException) return false;
    CdrReader in(body, 0, littleEndian);
    const uint32_t length = in.ulong();
    if (!in.ok() || length == 0 || length > body.size() - in.position()) return false;
    out.id.assign(reinterpret_cast<const char*>(body.data()) + in.position(), length - 1);
    in.skip(length);
    out.minor = in.ulong();
    out.completed = in.ulong();
    return in.ok();
}

RawGiopConnection::RawGiopConnection(int port) : m_port(port) {}

RawGiopConnection::~RawGiopConnection()
{
    disconnect();
}

bool RawGiopConnection::connectIfNeeded()
{
    if (m_fd >= 0) return true;
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) return false;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(m_port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int one = 1;
    ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    if (::connect(m_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 && !connectionCompletes(m_fd)) {
        std::fprintf(stderr, "raw GIOP: cannot connect to 127.0.0.1:%d: %s\n", m_port, std::strerror(errno));
        disconnect();
        return false;
    }
    return true;
}

void RawGiopConnection::disconnect()
{
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

RawGiopConnection::Read RawGiopConnection::readMessage(std::vector<uint8_t>& message)
{
    message.resize(kHeaderSize);
    if (!receiveAll(m_fd, message.data(), kHeaderSize)) return Read::Closed;
    if (std::memcmp(message.data(), "GIOP", 4) != 0 || message[4] != 1 || message[5] != 2) return Read::Garbled;
    CdrReader header(message, 8, littleEndianMessage(message));
    const uint32_t size = header.ulong();
    if (size > kLargestMessage) return Read::Garbled;
    message.resize(kHeaderSize + size);
    return receiveAll(m_fd, message.data() + kHeaderSize, size) ? Read::Message : Read::Closed;
}

CallOutcome RawGiopConnection::call(const std::string& objectKey, const char* operation, bool littleEndian,
                                    const uint8_t* body, size_t size, GiopReply& reply)
{
    if (!connectIfNeeded()) return CallOutcome::Failed;
    const uint32_t requestId = m_nextRequestId++;
    CdrWriter out(littleEndian);
    out.octets("GIOP", 4);
    out.octet(1);
    out.octet(2);
    out.octet(littleEndian ? kLittleEndianFlag : 0);
    out.octet(kRequest);
    out.ulong(0);
    out.ulong(requestId);
    out.octet(3);   // a response is expected
    out.octets("\0\0\0", 3);
    out.number(0, 2);   // the target is addressed by its object key
    out.octetSequence(objectKey);
    out.string(operation);
    out.ulong(0);   // no service contexts
    if (size > 0) {
        out.align(8);
        out.octets(body, size);
    }
    out.patchSize();
    // A peer that closed at once shows when the reply is read.
    sendAll(m_fd, out.bytes());
    const CallOutcome outcome = readReply(requestId, reply);
    if (outcome != CallOutcome::Replied) disconnect();
    return outcome;
}

CallOutcome RawGiopConnection::readReply(uint32_t requestId, GiopReply& reply)
{
    std::vector<uint8_t> message;
    const Read read = readMessage(message);
    if (read == Read::Closed) return CallOutcome::Dropped;
    if (read == Read::Garbled) return failed("the answer is not GIOP 1.2");
    if (message[7] == kMessageError || message[7] == kCloseConnection) return CallOutcome::Dropped;
    if (message[7] != kReply) return failed("the answer is not a reply");
    reply.littleEndian = littleEndianMessage(message);
    CdrReader in(message, kHeaderSize, reply.littleEndian);
    reply.requestId = in.ulong();
    reply.status = static_cast<ReplyStatus>(in.ulong());
    for (uint32_t contexts = in.ulong(); in.ok() && contexts > 0; --contexts) {
        in.ulong();
        in.skip(in.ulong());
    }
    in.align(8);
    if (!in.ok() || reply.requestId != requestId) return failed("the reply does not answer this request");
    reply.body.assign(message.begin() + static_cast<std::ptrdiff_t>(std::min(in.position(), message.size())),
                      message.end());
    // The rest of a fragmented reply: each fragment names the request
    // again, then carries the next bytes of the body.
    const size_t kFragmentDataAt = kHeaderSize + 4;
    while (moreFragments(message)) {
        if (readMessage(message) != Read::Message || message[7] != kFragment || message.size() < kFragmentDataAt) {
            return failed("a fragment of the reply is missing");
        }
        reply.body.insert(reply.body.end(), message.begin() + kFragmentDataAt, message.end());
    }
    return CallOutcome::Replied;
}

} // namespace keldfuzz
