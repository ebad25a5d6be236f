// Writes the seed corpus of the servant request fuzz target: well-formed
// little-endian request bodies for the common operations, marshalled by the
// ORB's own code.  Its output is committed in corpus/servant_request; run
// it again when the contract changes the place of an operation:
//
//   build/fuzz/servant_request_seeds tests/fuzz/corpus/servant_request
#include "ContractNames.h"
#include "ContractOperations.h"

#include "Proxy.hh"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>

namespace {

// The in arguments of one request, in order.
class Body {
public:
    Body& u64(CORBA::ULongLong v) { return put(v); }
    Body& u32(CORBA::ULong v) { return put(v); }
    Body& i32(CORBA::Long v) { return put(v); }
    Body& i16(CORBA::Short v) { return put(v); }
    Body& str(const char* s)
    {
        m_stream.marshalString(s);
        return *this;
    }
    Body& bytes(const char* text)
    {
        API::Bytes b(static_cast<CORBA::ULong>(std::strlen(text)));
        b.length(static_cast<CORBA::ULong>(std::strlen(text)));
        std::memcpy(b.get_buffer(), text, std::strlen(text));
        return put(b);
    }
    Body& nilObject()
    {
        CORBA::Object::_marshalObjRef(CORBA::Object::_nil(), m_stream);
        return *this;
    }
    template <typename T>
    Body& put(const T& value)
    {
        value >>= m_stream;
        return *this;
    }
    std::string data() const
    {
        return std::string(static_cast<const char*>(m_stream.bufPtr()), m_stream.bufSize());
    }

private:
    // Zeroed, and larger than any seed: the ORB leaves alignment padding
    // as it finds it, and the seeds come out the same on every run.
    cdrMemoryStream m_stream{4096, true};
};

API::ImageDefinitionV13 imageDefinition(const char* baseName)
{
    API::ImageDefinitionV13 imd = API::ImageDefinitionV13();
    imd.base_name = CORBA::string_dup(baseName);
    return imd;
}

API::SessionDefinition session(const char* id)
{
    API::SessionDefinition ssd = API::SessionDefinition();
    ssd.proxy = CORBA::string_dup("");
    ssd.id = CORBA::string_dup(id);
    return ssd;
}

API::VolumeSpecV11 nfsVolume()
{
    API::VolumeSpecV11 v;
    v.vs_volume_type = API::STS_VOLUME_NFS;
    v.v.v_nfs(API::NfsVolumeV11());
    return v;
}

template <size_t N>
int placeOf(const keldfuzz::ContractOperation (&operations)[N], const char* name)
{
    for (size_t i = 0; i < N; ++i) {
        if (std::strcmp(operations[i].name, name) == 0) return static_cast<int>(i);
    }
    std::fprintf(stderr, "no operation %s in the contract\n", name);
    std::exit(1);
}

// Written as "<object>-<operation>[-<what>]".
class SeedWriter {
public:
    explicit SeedWriter(std::string dir) : m_dir(std::move(dir)) {}

    void server(const char* operation, const Body& body, const char* what = nullptr)
    {
        write(0, placeOf(keldfuzz::kStorageServerOperations, operation), "server", operation, what, body);
    }
    void image(const char* operation, const Body& body, const char* what = nullptr)
    {
        write(1, placeOf(keldfuzz::kImageOperations, operation), "image", operation, what, body);
    }

private:
    void write(int object, int place, const char* objectName, const char* operation, const char* what,
               const Body& body)
    {
        const unsigned char littleEndian = 2;
        std::string name = m_dir + "/" + objectName + "-" + operation;
        if (what != nullptr) name += std::string("-") + what;
        std::ofstream out(name, std::ios::binary | std::ios::trunc);
        out.put(static_cast<char>(object | littleEndian));
        out.put(static_cast<char>(place));
        out << body.data();
    }

    std::string m_dir;
};

void serverSeeds(SeedWriter& w)
{
    w.server("getServerPropV12", Body().u64(1));
    w.server("getLsuPropByNameV12", Body().u64(1).str("lsu0"));
    w.server("openLsuListV12", Body().u64(1).put(API::LsuDefinitionV11()));
    w.server("openImageListV12", Body().u64(1).str("lsu0").i32(0));
    w.server("openImageGroupListV13", Body().u64(1).str("lsu0").put(imageDefinition("fuzz")).i32(0));
    w.server("createImageV13", Body().u64(1).str("lsu0").put(imageDefinition("seed")).i32(0));
    w.server("openImageV13", Body().u64(1).str("lsu0").put(imageDefinition("fuzz")).i32(1));
    w.server("getImagePropByNameV13", Body().u64(1).str("lsu0").put(imageDefinition("fuzz")));
    w.server("getImageGroupByNameV13", Body().u64(1).str("lsu0").put(imageDefinition("fuzz")));
    w.server("deleteImageV13", Body().u64(1).str("lsu0").put(imageDefinition("fuzz")).i32(0));
    w.server("findLsuV12", Body().u64(1).str("lsu0"));
    w.server("labelLsuV12", Body().u64(1).str("lsu0").str("label"));
    w.server("openLsuV12", Body().u64(1).str("lsu0"));
    w.server("deleteLsuV12", Body().u64(1).str("lsu0"));
    w.server("mountLsuV12", Body().u64(1).str("lsu0").str("/m").i32(0).str(""));
    w.server("activateLsuV12", Body().u64(1).put(session("fuzz")).str("lsu0").i32(1));
    w.server("getHostV12", Body().u64(1).i32(4).i32(1), "four");
    w.server("getStorelV12", Body().u64(1).i32(4), "four");
    w.server("openTargetServerV12", Body().u64(1).str("Disk:fuzz").put(API::Credential()).str(""));
    API::Credential unknownType = API::Credential();
    unknownType.len = 4;
    unknownType.type = 0x30303031;
    unknownType.cert.length(4);
    std::memcpy(unknownType.cert.get_buffer(), "cert", 4);
    w.server("openTargetServerV12", Body().u64(1).str("Disk:fuzz").put(unknownType).str(""),
             "credential-type-out-of-range");
    w.server("getServerConfigV12", Body().u64(1).u32(4096));
    w.server("setServerConfigV12", Body().u64(1).bytes("max_connections = 8\n").u32(256));
    w.server("getLsuUniqueId", Body().u64(1).str("lsu0"));
    w.server("getDDUPStatsV12", Body().u64(1).i16(20008));
    // Each control names its command; these name another control's, with a
    // larger record.
    w.server("getDDUPStatsV12", Body().u64(1).i16(20005), "command-of-another-control");
    w.server("setRetryConnectTimeoutV12", Body().u64(1).i16(20003).i32(1), "command-of-another-control");
    w.server("setMediaStateV12", Body().u64(1).i16(20002).put(API::MediaState()));
    w.server("cleanupSessionV12", Body().u64(1).str("nobody"));
    w.server("cleanupSessionV12", Body().u64(1).str("fuzz"), "own-session-image-still-open");
    w.server("closeImageV12", Body().u64(1).nilObject().i32(0).i32(0), "nil");
    w.server("getSnapPropByNameV11", Body().str("lsu0").put(API::SnapDefinitionV11()));
    w.server("openSnapChangeListV11", Body()
                                          .str("lsu0")
                                          .put(API::SnapDefinitionV11())
                                          .put(API::SnapDefinitionV11())
                                          .put(nfsVolume())
                                          .u32(0));
    w.server("openImageV9", Body().str("lsu0").put(API::ImageDefinitionV9()).i32(0), "older-form");
    w.server("closeServerV12", Body().u64(1), "image-still-open");
}

void imageSeeds(SeedWriter& w)
{
    w.image("writeImageV12", Body().u64(1).bytes("sixteen bytes!!\n").u64(16).u64(0));
    w.image("readImageV12", Body().u64(1).u64(16).u64(0));
    w.image("writeImageMetaV12", Body().u64(1).bytes("meta").u64(4).u64(0));
    w.image("readImageMetaV12", Body().u64(1).u64(4).u64(0));
    w.image("getImagePropV13", Body().u64(1));
    w.image("getImageGroupV12", Body().u64(1));
    w.image("flushV12", Body().u64(1));
    w.image("asyncWriteImageV12", Body().u64(1).u64(16).u64(0));
    w.image("asyncWaitV12", Body().u64(1).u32(1));
    w.image("copyExtentV12", Body().u64(1).u64(0).nilObject().u64(0).u64(16).i32(0), "nil");
    w.image("includeInImageV12", Body().u64(1).u64(0).nilObject().u64(0).u64(16), "nil");
    API::StringSeq paths(1);
    paths.length(1);
    paths[0] = CORBA::string_dup("file");
    w.image("deleteFilesV12", Body().u64(1).put(paths).i32(1));
    w.image("extractFilesV12", Body().u64(1).str("lsu0").i32(0));
    w.image("readImage", Body().u64(16).u64(0), "older-form");
    w.image("closeImageV12", Body().u64(1).i32(0).i32(0));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    int orbArgc = 0;
    CORBA::ORB_var orb = CORBA::ORB_init(orbArgc, nullptr);   // the code sets of marshalled strings
    SeedWriter writer(argv[1]);
    serverSeeds(writer);
    imageSeeds(writer);
    orb->destroy();
    return 0;
}
