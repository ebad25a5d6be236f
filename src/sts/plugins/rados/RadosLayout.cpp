// The layout of LSUs and images in the server's pool (described in
// RadosStore.h): index entries, image headers and the striped data.
#include "RadosStore.h"
#include "RadosSnapshots.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace radosstore {

namespace {

const char* const XATTR_DEF = "keld.def";
const char* const XATTR_STATE = "keld.state";
const char* const XATTR_SIZE = "keld.size";
const char* const XATTR_OBJECTS = "keld.objects";

std::uint64_t numberIn(const std::string& text)
{
    return std::strtoull(text.c_str(), nullptr, 10);
}

std::string indexValue(const std::string& state, std::uint64_t size)
{
    return state + " " + std::to_string(size);
}

// An LSU context for one call, destroyed with it.
class NamespaceContext {
public:
    NamespaceContext(const Cluster& c, const std::string& server, const std::string& lsu)
        : m_io(c.openNamespace(lsuNamespace(server, lsu)))
    {
    }
    ~NamespaceContext()
    {
        if (m_io != nullptr) rados_ioctx_destroy(m_io);
    }
    NamespaceContext(const NamespaceContext&) = delete;
    NamespaceContext& operator=(const NamespaceContext&) = delete;
    rados_ioctx_t io() const { return m_io; }

private:
    rados_ioctx_t m_io;
};

} // namespace

// ---- LSUs ----

std::string serverIndex(const std::string& name)
{
    return "keld.server." + name;
}

std::string lsuNamespace(const std::string& server, const std::string& lsu)
{
    return server + "/" + lsu;
}

int listLsus(const Cluster& c, const std::string& server, std::vector<std::string>& names)
{
    std::map<std::string, std::string> entries;
    const int rc = omapWithPrefix(c.pool(), serverIndex(server), "lsu.", entries);
    for (const auto& entry : entries) names.push_back(entry.first.substr(4));
    return rc;
}

int readLsu(const Cluster& c, const std::string& server, const std::string& lsu, LsuRecord& out)
{
    std::string present, quota;
    int rc = omapValue(c.pool(), serverIndex(server), "lsu." + lsu, present);
    if (rc != 0) return rc;
    rc = omapValue(c.pool(), serverIndex(server), "label." + lsu, out.label);
    if (rc == 0 || rc == -ENOENT) rc = omapValue(c.pool(), serverIndex(server), "quota." + lsu, quota);
    out.quota = numberIn(quota);
    return rc == -ENOENT ? 0 : rc;   // no label or no quota of its own
}

int createLsu(const Cluster& c, const std::string& server, const std::string& lsu, std::uint64_t quota)
{
    LsuRecord existing;
    const int rc = readLsu(c, server, lsu, existing);
    if (rc != -ENOENT) return rc == 0 ? -EEXIST : rc;
    std::map<std::string, std::string> set = {{"lsu." + lsu, ""}};
    if (quota > 0) set["quota." + lsu] = std::to_string(quota);
    return omapUpdate(c.pool(), serverIndex(server), set);
}

int deleteLsu(const Cluster& c, const std::string& server, const std::string& lsu)
{
    LsuRecord existing;
    int rc = readLsu(c, server, lsu, existing);
    if (rc != 0) return rc;
    std::vector<std::string> snapshots;
    rc = listSnapshots(c, server, lsu, snapshots);
    if (rc != 0) return rc;
    if (!snapshots.empty()) return -EBUSY;   // they still read the LSU's objects
    NamespaceContext ns(c, server, lsu);
    if (ns.io() == nullptr) return -ENOMEM;
    std::map<std::string, std::string> images;
    rc = listImages(ns.io(), "", images);
    if (rc != 0) return rc;
    if (!images.empty()) return -EBUSY;
    rc = rados_remove(ns.io(), LSU_INDEX);
    if (rc != 0 && rc != -ENOENT) return rc;
    std::vector<std::string> keys;
    for (const char* kind : {"lsu.", "label.", "quota.", "media.", "uid.", "pools.", "alloc.", "active.", "mount."}) {
        keys.push_back(kind + lsu);
    }
    return omapUpdate(c.pool(), serverIndex(server), {}, keys);
}

int setLsuLabel(const Cluster& c, const std::string& server, const std::string& lsu, const std::string& label)
{
    LsuRecord existing;
    const int rc = readLsu(c, server, lsu, existing);
    return rc != 0 ? rc : omapUpdate(c.pool(), serverIndex(server), {{"label." + lsu, label}});
}

int lsuUsage(const Cluster& c, const std::string& server, const std::string& lsu, LsuUsage& out)
{
    NamespaceContext ns(c, server, lsu);
    if (ns.io() == nullptr) return -ENOMEM;
    std::map<std::string, std::string> images;
    const int rc = listImages(ns.io(), "", images);
    for (const auto& image : images) {
        ++out.images;
        const size_t blank = image.second.find(' ');
        if (blank != std::string::npos) out.bytes += numberIn(image.second.substr(blank + 1));
    }
    return rc;
}

std::uint64_t capacity(const Cluster& c, const std::string& pool)
{
    const std::string command = "{\"prefix\": \"osd pool get-quota\", \"pool\": \"" + pool + "\", \"format\": \"json\"}";
    const char* commands[] = {command.c_str()};
    char *out = nullptr, *status = nullptr;
    size_t outLength = 0, statusLength = 0;
    std::uint64_t quota = 0;
    if (rados_mon_command(c.handle(), commands, 1, "", 0, &out, &outLength, &status, &statusLength) == 0 &&
        out != nullptr) {
        const std::string reply(out, outLength);
        const size_t at = reply.find("\"quota_max_bytes\":");
        if (at != std::string::npos) quota = numberIn(reply.substr(at + 18));
    }
    rados_buffer_free(out);
    rados_buffer_free(status);
    if (quota > 0) return quota;
    rados_cluster_stat_t stat = {};
    return rados_cluster_stat(c.handle(), &stat) == 0 ? stat.kb_avail * 1024 : 0;
}

// ---- images ----

std::string headerObject(const std::string& image)
{
    return "img." + image;
}

std::string metaObject(const std::string& image)
{
    return "meta." + image;
}

std::string dataObject(const std::string& image, std::uint64_t index)
{
    char suffix[24];
    std::snprintf(suffix, sizeof(suffix), ".%016" PRIx64, index);
    return "data." + image + suffix;
}

int readHeader(rados_ioctx_t io, const std::string& image, ImageHeader& out)
{
    rados_xattrs_iter_t it = nullptr;
    const int rc = rados_getxattrs(io, headerObject(image).c_str(), &it);
    if (rc != 0) return rc;
    const char* name = nullptr;
    const char* value = nullptr;
    size_t length = 0;
    while (rados_getxattrs_next(it, &name, &value, &length) == 0 && name != nullptr)
        takeHeaderXattr(out, name, value, length);
    rados_getxattrs_end(it);
    return 0;
}

void takeHeaderXattr(ImageHeader& out, const char* name, const char* value, std::size_t length)
{
    const std::string text(value != nullptr ? value : "", length);
    if (std::strcmp(name, XATTR_DEF) == 0 && length == sizeof(out.def)) std::memcpy(&out.def, value, length);
    if (std::strcmp(name, XATTR_STATE) == 0) out.state = text;
    if (std::strcmp(name, XATTR_SIZE) == 0) out.size = numberIn(text);
    if (std::strcmp(name, XATTR_OBJECTS) == 0) out.objects = numberIn(text);
}

int createHeader(rados_ioctx_t io, const std::string& image, const sts_image_def_t& def)
{
    const int snapc = applySnapContext(io);
    if (snapc != 0) return snapc;
    rados_write_op_t op = rados_create_write_op();
    rados_write_op_create(op, LIBRADOS_CREATE_EXCLUSIVE, nullptr);
    rados_write_op_setxattr(op, XATTR_DEF, reinterpret_cast<const char*>(&def), sizeof(def));
    rados_write_op_setxattr(op, XATTR_STATE, STATE_WRITING, std::strlen(STATE_WRITING));
    rados_write_op_setxattr(op, XATTR_SIZE, "0", 1);
    rados_write_op_setxattr(op, XATTR_OBJECTS, "0", 1);
    const int rc = rados_write_op_operate(op, io, headerObject(image).c_str(), nullptr, 0);
    rados_release_write_op(op);
    return rc != 0 ? rc : omapUpdate(io, LSU_INDEX, {{image, indexValue(STATE_WRITING, 0)}});
}

int writeState(rados_ioctx_t io, const std::string& image, const std::string& state, std::uint64_t size,
               std::uint64_t objects)
{
    const int snapc = applySnapContext(io);
    if (snapc != 0) return snapc;
    const std::string sizeText = std::to_string(size);
    const std::string objectsText = std::to_string(objects);
    rados_write_op_t op = rados_create_write_op();
    rados_write_op_assert_exists(op);
    rados_write_op_setxattr(op, XATTR_STATE, state.data(), state.size());
    rados_write_op_setxattr(op, XATTR_SIZE, sizeText.data(), sizeText.size());
    rados_write_op_setxattr(op, XATTR_OBJECTS, objectsText.data(), objectsText.size());
    const int rc = rados_write_op_operate(op, io, headerObject(image).c_str(), nullptr, 0);
    rados_release_write_op(op);
    return rc != 0 ? rc : omapUpdate(io, LSU_INDEX, {{image, indexValue(state, size)}});
}

namespace {

// One attribute of an existing header, in the context's snapshot context.
int setHeaderXattr(rados_ioctx_t io, const std::string& image, const char* name, const std::string& value)
{
    rados_write_op_t op = rados_create_write_op();
    rados_write_op_assert_exists(op);
    rados_write_op_setxattr(op, name, value.data(), value.size());
    const int rc = rados_write_op_operate(op, io, headerObject(image).c_str(), nullptr, 0);
    rados_release_write_op(op);
    return rc;
}

} // namespace

int raiseObjects(rados_ioctx_t io, const std::string& image, std::uint64_t objects)
{
    const int snapc = applySnapContext(io);
    return snapc != 0 ? snapc : setHeaderXattr(io, image, XATTR_OBJECTS, std::to_string(objects));
}

// The header goes last but one and the index entry last, so that an
// interrupted delete leaves the image listed and can be repeated.
int removeImage(rados_ioctx_t io, const std::string& image)
{
    int rc = applySnapContext(io);
    if (rc != 0) return rc;
    ImageHeader header;
    rc = readHeader(io, image, header);
    if (rc == -ENOENT) {
        omapUpdate(io, LSU_INDEX, {}, {image});   // an entry a crash left behind
        return rc;
    }
    if (rc != 0) return rc;
    rc = setHeaderXattr(io, image, XATTR_STATE, STATE_DELETING);
    if (rc != 0) return rc;
    Pieces pieces;
    for (std::uint64_t i = 0; i < header.objects; ++i) {
        const std::string oid = dataObject(image, i);
        pieces.add([&](rados_completion_t c) { return rados_aio_remove(io, oid.c_str(), c); });
    }
    pieces.add([&](rados_completion_t c) { return rados_aio_remove(io, metaObject(image).c_str(), c); });
    rc = pieces.waitAll();
    if (rc != 0 && rc != -ENOENT) return rc;
    rc = rados_remove(io, headerObject(image).c_str());
    if (rc != 0 && rc != -ENOENT) return rc;
    return omapUpdate(io, LSU_INDEX, {}, {image});
}

int listImages(rados_ioctx_t io, const std::string& prefix, std::map<std::string, std::string>& out)
{
    return omapWithPrefix(io, LSU_INDEX, prefix, out);
}

// ---- data ----

int Pieces::waitAll()
{
    int first = m_notStarted;
    m_notStarted = 0;
    for (const Piece& p : m_pieces) {
        rados_aio_wait_for_complete(p.completion);
        int rc = rados_aio_get_return_value(p.completion);
        if (p.readInto != nullptr) {
            const std::uint64_t got = rc > 0 ? static_cast<std::uint64_t>(rc) : 0;
            if (got < p.length) std::memset(p.readInto + got, 0, p.length - got);
            if (rc == -ENOENT || rc > 0) rc = 0;
        }
        if (rc < 0 && first == 0) first = rc;
        rados_aio_release(p.completion);
    }
    m_pieces.clear();
    return first;
}

void startWrite(Pieces& pieces, rados_ioctx_t io, const std::string& image, std::uint64_t objectSize,
                const char* buf, std::uint64_t len, std::uint64_t off)
{
    forEachPiece(objectSize, len, off, [&](std::uint64_t index, std::uint64_t at, std::uint64_t n, std::uint64_t from) {
        const std::string oid = dataObject(image, index);
        pieces.add([&](rados_completion_t c) { return rados_aio_write(io, oid.c_str(), c, buf + from, n, at); });
    });
}

void startRead(Pieces& pieces, rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, char* buf,
               std::uint64_t len, std::uint64_t off)
{
    forEachPiece(objectSize, len, off, [&](std::uint64_t index, std::uint64_t at, std::uint64_t n, std::uint64_t from) {
        const std::string oid = dataObject(image, index);
        pieces.add([&](rados_completion_t c) { return rados_aio_read(io, oid.c_str(), c, buf + from, n, at); },
                   buf + from, n);
    });
}

int writeData(rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, const char* buf,
              std::uint64_t len, std::uint64_t off)
{
    const int snapc = applySnapContext(io);
    if (snapc != 0) return snapc;
    Pieces pieces;
    startWrite(pieces, io, image, objectSize, buf, len, off);
    return pieces.waitAll();
}

int readData(rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, char* buf, std::uint64_t len,
             std::uint64_t off)
{
    Pieces pieces;
    startRead(pieces, io, image, objectSize, buf, len, off);
    return pieces.waitAll();
}

} // namespace radosstore
