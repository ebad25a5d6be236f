// The three sides the data path benchmark sets side by side: images written
// and read through a running service, the same through the disk plug-in
// called in this process, and a bare ORB server that only moves the bytes.
// Each pass moves `total` bytes in transfers of `transfer` bytes and answers
// the seconds it took; a write pass ends with a durable close.
#ifndef KELD_BENCH_DATAPATHSIDES_H
#define KELD_BENCH_DATAPATHSIDES_H

#include "BareOrb.hh"
#include "Proxy.hh"
#include "sts_plugin.h"

#include <stdexcept>
#include <string>

namespace bench {

namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

// A side that cannot run (the service does not serve images yet, say).
struct Unavailable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Side {
public:
    virtual ~Side() = default;
    virtual double writePass(size_t transfer, size_t total, const std::string& image) = 0;
    virtual double readPass(size_t transfer, size_t total, const std::string& image) = 0;
};

// One client of the service with a session of its own, on LSU "lsu0" of
// the default disk server.
class ProxiedSide : public Side {
public:
    ProxiedSide(API::StorageServerManager_ptr manager, const std::string& sessionId);
    ~ProxiedSide() override;
    double writePass(size_t transfer, size_t total, const std::string& image) override;
    double readPass(size_t transfer, size_t total, const std::string& image) override;

    // The halves of a write pass, for clients that start together.
    API::Image_ptr create(const std::string& image);
    void writeAll(API::Image_ptr image, size_t transfer, size_t total);   // and closes it

private:
    API::StorageServer_var m_server;
    API::UInt64 m_seq = 0;
};

// The disk plug-in through the storage API, in this process.
class DirectSide : public Side {
public:
    explicit DirectSide(const std::string& libDir);
    ~DirectSide() override;
    double writePass(size_t transfer, size_t total, const std::string& image) override;
    double readPass(size_t transfer, size_t total, const std::string& image) override;
    // Deletes an image of lsu0, whichever side wrote it.
    void remove(const std::string& image);

private:
    sts_api_t* m_api = nullptr;
    sts_handle_t m_session = nullptr;
    sts_handle_t m_server = nullptr;
    sts_lsu_t m_lsu = {};
};

class BareSide : public Side {
public:
    explicit BareSide(BareOrb::Sink_ptr sink) : m_sink(BareOrb::Sink::_duplicate(sink)) {}
    double writePass(size_t transfer, size_t total, const std::string& image) override;
    double readPass(size_t transfer, size_t total, const std::string& image) override;

private:
    BareOrb::Sink_var m_sink;
};

std::string hostName();

} // namespace bench

#endif
