// The three sides the data path benchmark sets side by side: an image
// written and read through a running service, the same through the disk
// plug-in called in this process, and a bare ORB server that only moves the
// bytes.  A side opens its image (creates it to write), moves a run of
// transfers at increasing offsets as often as it is asked, and closes it
// (durably, for a write); only the transfers are timed, so that the disk's
// own pace at the close, the same whoever writes, does not hide the cost of
// the path.
#ifndef KELD_BENCH_DATAPATHSIDES_H
#define KELD_BENCH_DATAPATHSIDES_H

#include "BareOrb.hh"
#include "Proxy.hh"
#include "sts_plugin.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

class Side {
public:
    virtual ~Side() = default;
    virtual void open(const std::string& image, bool writing, size_t transfer) = 0;
    // count transfers, the first at offset.
    virtual void move(size_t offset, size_t count) = 0;
    virtual void close() = 0;

protected:
    bool m_writing = false;
    size_t m_transfer = 0;
};

// One client of the service with a session of its own, on LSU "lsu0" of
// serverName (the default disk server when empty).
class ProxiedSide : public Side {
public:
    ProxiedSide(API::StorageServerManager_ptr manager, const std::string& sessionId,
                const std::string& serverName = "");
    ~ProxiedSide() override;
    void open(const std::string& image, bool writing, size_t transfer) override;
    void move(size_t offset, size_t count) override;
    void close() override;
    // Deletes an image of lsu0 through the service.
    void remove(const std::string& image);

private:
    API::StorageServer_var m_server;
    API::UInt64 m_serverSeq = 1;
    API::Image_var m_image;
    API::UInt64 m_imageSeq = 0;
    API::Bytes m_data;
};

// The disk plug-in through the storage API, in this process.
class DirectSide : public Side {
public:
    explicit DirectSide(const std::string& libDir);
    ~DirectSide() override;
    // Another writer or reader with an image of its own, on this side's
    // server; used while this side lives.
    std::unique_ptr<DirectSide> another();
    void open(const std::string& image, bool writing, size_t transfer) override;
    void move(size_t offset, size_t count) override;
    void close() override;
    // Deletes an image of lsu0, whichever side wrote it.
    void remove(const std::string& image);

private:
    DirectSide() = default;

    bool m_ownsServer = true;
    sts_api_t* m_api = nullptr;
    sts_handle_t m_session = nullptr;
    sts_handle_t m_server = nullptr;
    sts_lsu_t m_lsu = {};
    sts_handle_t m_image = nullptr;
    std::vector<char> m_data;
};

class BareSide : public Side {
public:
    explicit BareSide(BareOrb::Sink_ptr sink) : m_sink(BareOrb::Sink::_duplicate(sink)) {}
    void open(const std::string& image, bool writing, size_t transfer) override;
    void move(size_t offset, size_t count) override;
    void close() override {}

private:
    BareOrb::Sink_var m_sink;
    BareOrb::Bytes m_data;
};

// The least work of a server that keeps what it moves: the bare ORB server
// writing each transfer to a file, or reading it from one, with one pwrite
// or pread, in a directory of the same file system as the service's images.
// With a log directory, the same server also does the work the service
// must do for every transfer (its four log lines, the copy a read keeps);
// a directory that is not there leaves only its four access calls, as for
// a service without a log directory.
class FloorSide : public Side {
public:
    FloorSide(BareOrb::Sink_ptr sink, const std::string& dir, const std::string& logDirectory = "")
        : m_sink(BareOrb::Sink::_duplicate(sink)), m_dir(dir), m_logDirectory(logDirectory)
    {
    }
    void open(const std::string& image, bool writing, size_t transfer) override;
    void move(size_t offset, size_t count) override;
    void close() override;
    void remove(const std::string& image);

private:
    BareOrb::Sink_var m_sink;
    std::string m_dir;
    std::string m_logDirectory;
    BareOrb::Bytes m_data;
};

std::string hostName();

} // namespace bench

#endif
