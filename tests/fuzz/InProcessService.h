// The service's storage servants in this process, as the service builds
// them: an ORB listening on 127.0.0.1 only, the root POA, the storage
// server manager, the storage library held on a scratch install root with
// the disk plug-in alone, and one open storage server with one image
// created on it.  Fuzz inputs reach the server and the image over the
// ORB's own connection by their object keys.
//
// Made once per process; the fixture (server and image) is renewed on
// fresh storage whenever the caller asks, and everything is closed and the
// ORB destroyed at exit, so that a leak check sees only the service's own
// leaks.
#ifndef KELD_TESTS_FUZZ_INPROCESSSERVICE_H
#define KELD_TESTS_FUZZ_INPROCESSSERVICE_H

#include "Proxy.hh"

#include <memory>
#include <string>

namespace keldfuzz {

class InProcessService {
public:
    static InProcessService& instance();

    int port() const { return m_port; }
    const std::string& serverKey() const { return m_serverKey; }
    const std::string& imageKey() const { return m_imageKey; }

    // Closes an object a request handed out (an image, a list, an LSU, a
    // server), as its client would; whether that succeeds is the
    // service's business.
    void closeReturned(CORBA::Object_ptr object);

    // Closes the fixture's image and server, empties the storage and the
    // log, and opens both anew.
    void renew();

    ~InProcessService();

private:
    InProcessService();
    void openFixture();
    void closeFixture();

    struct Parts;
    std::unique_ptr<Parts> m_parts;
    int m_port = 0;
    std::string m_serverKey;
    std::string m_imageKey;
};

} // namespace keldfuzz

#endif
