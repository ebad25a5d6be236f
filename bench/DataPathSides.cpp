#include "DataPathSides.h"

#include <chrono>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace bench {

namespace {

const char* const kLsu = "lsu0";
const CORBA::Long kOpenForReading = 1;

double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

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

} // namespace

std::string hostName()
{
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    return host;
}

// ---- through the service --------------------------------------------------

ProxiedSide::ProxiedSide(API::StorageServerManager_ptr manager, const std::string& sessionId)
{
    API::SessionDefinition ssd;
    ssd.proxy = "";
    ssd.id = sessionId.c_str();
    ssd.flags = 0;
    API::Credential none;
    none.len = 0;
    none.type = 0;
    m_server = manager->openServerV12(1, ssd, ("Disk:" + hostName()).c_str(), none, "", 0);
}

ProxiedSide::~ProxiedSide()
{
    try {
        m_server->closeServerV12(++m_seq);
    } catch (const CORBA::Exception&) {
        // The service goes away with the benchmark anyway.
    }
}

API::Image_ptr ProxiedSide::create(const std::string& image)
{
    try {
        return m_server->createImageV13(++m_seq, kLsu, imageDefinition(image), 0);
    } catch (const CORBA::NO_IMPLEMENT&) {
        throw Unavailable("the service does not create images yet");
    } catch (const API::STSError& e) {
        fail("createImageV13: " + std::to_string(e.stsErrorNo) + " " + e.errorMsg.in());
    }
}

void ProxiedSide::writeAll(API::Image_ptr image, size_t transfer, size_t total)
{
    API::Bytes bytes(static_cast<CORBA::ULong>(transfer));
    bytes.length(static_cast<CORBA::ULong>(transfer));
    std::memset(bytes.get_buffer(), 'k', transfer);
    API::UInt64 seq = 0;
    for (size_t offset = 0; offset < total; offset += transfer) {
        API::UInt64 written = 0;
        image->writeImageV12(++seq, bytes, transfer, offset, written);
        if (written != transfer) fail("short write through the service");
    }
    m_server->closeImageV12(++m_seq, image, 0, 0);
}

double ProxiedSide::writePass(size_t transfer, size_t total, const std::string& image)
{
    API::Image_var img = create(image);
    const auto start = std::chrono::steady_clock::now();
    writeAll(img, transfer, total);
    return secondsSince(start);
}

double ProxiedSide::readPass(size_t transfer, size_t total, const std::string& image)
{
    API::Image_var img = m_server->openImageV13(++m_seq, kLsu, imageDefinition(image), kOpenForReading);
    API::UInt64 seq = 0;
    const auto start = std::chrono::steady_clock::now();
    for (size_t offset = 0; offset < total; offset += transfer) {
        API::Bytes_var bytes;
        API::UInt64 read = 0;
        img->readImageV12(++seq, bytes.out(), transfer, offset, read);
        if (read != transfer) fail("short read through the service");
    }
    m_server->closeImageV12(++m_seq, img, 0, 0);
    return secondsSince(start);
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

DirectSide::~DirectSide()
{
    m_api->stsa_close_handle(m_server, 0);
    m_api->stsa_close_handle(m_session, 0);
    stsm_terminate();
}

double DirectSide::writePass(size_t transfer, size_t total, const std::string& image)
{
    const sts_image_def_t def = directDefinition(image);
    sts_handle_t h = nullptr;
    if (m_api->stsa_create_image(&m_lsu, &def, 0, &h) != 0) fail("stsa_create_image");
    std::vector<char> buf(transfer, 'k');
    const auto start = std::chrono::steady_clock::now();
    for (size_t offset = 0; offset < total; offset += transfer) {
        sts_uint64_t done = 0;
        if (m_api->stsa_write_image(h, nullptr, buf.data(), transfer, offset, &done) != 0 || done != transfer) {
            fail("stsa_write_image");
        }
    }
    if (m_api->stsa_close_handle(h, 0) != 0) fail("stsa_close_handle");
    return secondsSince(start);
}

double DirectSide::readPass(size_t transfer, size_t total, const std::string& image)
{
    const sts_image_def_t def = directDefinition(image);
    sts_handle_t h = nullptr;
    if (m_api->stsa_open_image(&m_lsu, &def, kOpenForReading, &h) != 0) fail("stsa_open_image");
    std::vector<char> buf(transfer);
    const auto start = std::chrono::steady_clock::now();
    for (size_t offset = 0; offset < total; offset += transfer) {
        sts_uint64_t done = 0;
        if (m_api->stsa_read_image(h, buf.data(), transfer, offset, &done) != 0 || done != transfer) {
            fail("stsa_read_image");
        }
    }
    m_api->stsa_close_handle(h, 0);
    return secondsSince(start);
}

void DirectSide::remove(const std::string& image)
{
    const sts_image_def_t def = directDefinition(image);
    m_api->stsa_delete_image(&m_lsu, &def, 0);
}

// ---- the bare ORB -------------------------------------------------------------

double BareSide::writePass(size_t transfer, size_t total, const std::string&)
{
    BareOrb::Bytes bytes(static_cast<CORBA::ULong>(transfer));
    bytes.length(static_cast<CORBA::ULong>(transfer));
    std::memset(bytes.get_buffer(), 'k', transfer);
    const auto start = std::chrono::steady_clock::now();
    for (size_t offset = 0; offset < total; offset += transfer) m_sink->put(bytes);
    return secondsSince(start);
}

double BareSide::readPass(size_t transfer, size_t total, const std::string&)
{
    const auto start = std::chrono::steady_clock::now();
    for (size_t offset = 0; offset < total; offset += transfer) {
        BareOrb::Bytes_var bytes = m_sink->get(static_cast<CORBA::ULong>(transfer));
        if (bytes->length() != transfer) fail("short read from the bare server");
    }
    return secondsSince(start);
}

} // namespace bench
