// A client connection that writes its GIOP 1.2 requests itself: the header
// and request header are built here, the body goes out exactly as given,
// so the server's ORB unmarshals whatever bytes a fuzz input holds.  One
// request at a time, each waiting for its reply.  Only for 127.0.0.1.
#ifndef KELD_TESTS_FUZZ_RAWGIOP_H
#define KELD_TESTS_FUZZ_RAWGIOP_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace keldfuzz {

// GIOP reply status values.
enum class ReplyStatus : uint32_t {
    NoException = 0,
    UserException = 1,
    SystemException = 2,
    LocationForward = 3,
};

struct GiopReply {
    uint32_t requestId = 0;
    ReplyStatus status = ReplyStatus::NoException;
    bool littleEndian = true;
    // The reply body, fragments joined; its first byte is 8-aligned in the
    // message, so a stream over it aligns as the ORB did.
    std::vector<uint8_t> body;
    // The body of a system exception; false for any other reply.
    struct SystemException {
        std::string id;   // "IDL:omg.org/CORBA/MARSHAL:1.0"
        uint32_t minor = 0;
        uint32_t completed = 0;   // 0 yes, 1 no, 2 maybe
    };
    bool systemException(SystemException& out) const;
};

// What came of one request.
enum class CallOutcome {
    Replied,
    // The ORB refused the message and ended the connection (a GIOP
    // MessageError, or the connection closed), as it does for a body with
    // bytes left over after the arguments; the next call connects again.
    Dropped,
    // No connection could be made, or the answer was not a GIOP reply to
    // this request.
    Failed,
};

class RawGiopConnection {
public:
    explicit RawGiopConnection(int port);
    ~RawGiopConnection();
    RawGiopConnection(const RawGiopConnection&) = delete;
    RawGiopConnection& operator=(const RawGiopConnection&) = delete;

    // Sends one request to the object with that key and reads its reply.
    CallOutcome call(const std::string& objectKey, const char* operation, bool littleEndian, const uint8_t* body,
                     size_t size, GiopReply& reply);

private:
    bool connectIfNeeded();
    void disconnect();
    enum class Read { Message, Closed, Garbled };
    Read readMessage(std::vector<uint8_t>& message);
    CallOutcome readReply(uint32_t requestId, GiopReply& reply);

    int m_port;
    int m_fd = -1;
    uint32_t m_nextRequestId = 1;
};

} // namespace keldfuzz

#endif
