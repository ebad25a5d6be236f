#include "DataPathSides.h"

#include <cstring>
#include <unistd.h>

namespace bench {

namespace {

const char* const kLsu = "lsu0";
const CORBA::Long kOpenForReading = 1;
// The log filter of a client at the default verbosity: the service logs
// only the session's errors, so a transfer writes no log line.
const API::UInt32 kErrorLinesOnly = 0x8;

API::ImageDefinitionV13 imageDefinition(const std::string& image)
{
    API::ImageDefinitionV13 imd{};
    imd.base_name = image.c_str();
    imd.shortdate = "d";
    imd.fulldate = "f";
    return imd;
}

sts_image_def_t directDefinition(const std::string& image)
{
    sts_image_def_t def;
    std::memset(&def, 0, sizeof(def));
    std::strncpy(def.img_basename, image.c_str(), sizeof(def.img_basename) - 1);
    std::strcpy(def.img_date, "d");
    std::strcpy(def.img_fulldate, "f");
    return def;
}

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what);
}

template <typename Seq>
void fill(Seq& data, size_t size)
{
    data.length(static_cast<CORBA::ULong>(size));
    std::memset(data.get_buffer(), 'k', size);
}

} // namespace

std::string hostName()
{
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    return host;
}

// ---- through the service --------------------------------------------------

ProxiedSide::ProxiedSide(API::StorageServerManager_ptr manager, const std::string& sessionId,
                         const std::string& serverName)
{
    API::SessionDefinition ssd;
    ssd.proxy = "";
    ssd.id = sessionId.c_str();
    ssd.flags = kErrorLinesOnly;
    API::Credential none;
    none.len = 0;
    none.type = 0;
    const std::string server = serverName.empty() ? "Disk:" + hostName() : serverName;
    m_server = manager->openServerV12(1, ssd, server.c_str(), none, "", 0);
}

ProxiedSide::~ProxiedSide()
{
    try {
        m_server->closeServerV12(++m_serverSeq);
    } catch (const CORBA::Exception&) {
        // The service goes away with the benchmark anyway.
    }
}

void ProxiedSide::open(const std::string& image, bool writing, size_t transfer)
{
    m_writing = writing;
    m_transfer = transfer;
    m_imageSeq = 0;
    const API::ImageDefinitionV13 imd = imageDefinition(image);
    m_image = writing ? m_server->createImageV13(++m_serverSeq, kLsu, imd, 0)
                      : m_server->openImageV13(++m_serverSeq, kLsu, imd, kOpenForReading);
    if (writing) fill(m_data, transfer);
}

void ProxiedSide::move(size_t offset, size_t count)
{
    for (size_t i = 0; i < count; ++i, offset += m_transfer) {
        API::UInt64 done = 0;
        if (m_writing) {
            m_image->writeImageV12(++m_imageSeq, m_data, m_transfer, offset, done);
        } else {
            API::Bytes_var bytes;
            m_image->readImageV12(++m_imageSeq, bytes.out(), m_transfer, offset, done);
        }
        if (done != m_transfer) fail("short transfer through the service");
    }
}

void ProxiedSide::close()
{
    m_server->closeImageV12(++m_serverSeq, m_image, 0, 0);
    m_image = API::Image::_nil();
}

void ProxiedSide::remove(const std::string& image)
{
    m_server->deleteImageV13(++m_serverSeq, kLsu, imageDefinition(image), 0);
}

// ---- the plug-in in this process --------------------------------------------

DirectSide::DirectSide(const std::string& libDir)
{
    sts_session_def_t sd = {};
    if (stsm_init(11, libDir.c_str(), &m_api) != 0 || m_api->stsa_open_session(&sd, &m_session) != 0 ||
        m_api->stsa_open_server(m_session, ("Disk:" + hostName()).c_str(), nullptr, "", &m_server) != 0) {
        fail("cannot open the disk server through the storage API");
    }
    m_lsu.stl_server_handle = m_server;
    std::strcpy(m_lsu.stl_lsu_name.sln_name, kLsu);
}

std::unique_ptr<DirectSide> DirectSide::another()
{
    std::unique_ptr<DirectSide> side(new DirectSide);
    side->m_ownsServer = false;
    side->m_api = m_api;
    side->m_session = m_session;
    side->m_server = m_server;
    side->m_lsu = m_lsu;
    return side;
}

DirectSide::~DirectSide()
{
    if (!m_ownsServer) return;
    m_api->stsa_close_handle(m_server, 0);
    m_api->stsa_close_handle(m_session, 0);
    stsm_terminate();
}

void DirectSide::open(const std::string& image, bool writing, size_t transfer)
{
    m_writing = writing;
    m_transfer = transfer;
    const sts_image_def_t def = directDefinition(image);
    const int rc = writing ? m_api->stsa_create_image(&m_lsu, &def, 0, &m_image)
                           : m_api->stsa_open_image(&m_lsu, &def, kOpenForReading, &m_image);
    if (rc != 0) fail("cannot open an image through the storage API");
    m_data.assign(transfer, 'k');
}

void DirectSide::move(size_t offset, size_t count)
{
    for (size_t i = 0; i < count; ++i, offset += m_transfer) {
        sts_uint64_t done = 0;
        const int rc = m_writing ? m_api->stsa_write_image(m_image, nullptr, m_data.data(), m_transfer, offset, &done)
                                 : m_api->stsa_read_image(m_image, m_data.data(), m_transfer, offset, &done);
        if (rc != 0 || done != m_transfer) fail("short transfer through the storage API");
    }
}

void DirectSide::close()
{
    if (m_api->stsa_close_handle(m_image, 0) != 0) fail("stsa_close_handle");
    m_image = nullptr;
}

void DirectSide::remove(const std::string& image)
{
    const sts_image_def_t def = directDefinition(image);
    m_api->stsa_delete_image(&m_lsu, &def, 0);
}

// ---- the bare ORB -------------------------------------------------------------

void BareSide::open(const std::string&, bool writing, size_t transfer)
{
    m_writing = writing;
    m_transfer = transfer;
    if (writing) fill(m_data, transfer);
}

void BareSide::move(size_t, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        if (m_writing) {
            m_sink->put(m_data);
        } else {
            BareOrb::Bytes_var bytes = m_sink->get(static_cast<CORBA::ULong>(m_transfer));
            if (bytes->length() != m_transfer) fail("short transfer from the bare server");
        }
    }
}

// ---- the floor ------------------------------------------------------------------

void FloorSide::open(const std::string& image, bool writing, size_t transfer)
{
    m_writing = writing;
    m_transfer = transfer;
    m_sink->useFile((m_dir + "/" + image).c_str(), writing, m_logDirectory.c_str());
    if (writing) fill(m_data, transfer);
}

void FloorSide::move(size_t offset, size_t count)
{
    for (size_t i = 0; i < count; ++i, offset += m_transfer) {
        if (m_writing) {
            m_sink->store(m_data, offset);
        } else {
            BareOrb::Bytes_var bytes = m_sink->load(static_cast<CORBA::ULong>(m_transfer), offset);
            if (bytes->length() != m_transfer) fail("short transfer from the floor server");
        }
    }
}

void FloorSide::close()
{
    m_sink->useFile("", false, "");
}

void FloorSide::remove(const std::string& image)
{
    ::unlink((m_dir + "/" + image).c_str());
}

} // namespace bench
