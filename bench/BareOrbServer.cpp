// A server with nothing but the ORB: receives or sends a sequence<octet>,
// answers a string; and, as the floor of a server that keeps the bytes,
// writes or reads them with one pwrite or pread of a file.  It takes the
// same ORB options as the service, so that the difference measured against
// it is what the service adds, and writes
// its object's reference to a file: a client that reached it by a corbaloc
// address would speak GIOP 1.0 without code set negotiation, while the
// service's clients get full references (GIOP 1.2, code sets) from the
// service's forward.
//   bare_orb_server <reference file> -ORBendPoint giop:tcp:127.0.0.1:PORT [-ORB...]
#include "BareOrb.hh"

#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

class SinkImpl : public POA_BareOrb::Sink {
public:
    void put(const BareOrb::Bytes&) override {}

    // A new sequence for each call, as any server must return one.
    BareOrb::Bytes* get(CORBA::ULong length) override
    {
        BareOrb::Bytes_var out = new BareOrb::Bytes(length);
        out->length(length);
        return out._retn();
    }

    char* getString() override { return CORBA::string_dup("BareOrb::Sink::getString"); }

    void useFile(const char* path, CORBA::Boolean writing) override
    {
        if (m_fd >= 0) {
            if (m_writing) fsync(m_fd);
            close(m_fd);
            m_fd = -1;
        }
        if (*path == '\0') return;
        m_writing = writing;
        m_fd = writing ? open(path, O_CREAT | O_WRONLY | O_TRUNC, 0600) : open(path, O_RDONLY);
        if (m_fd < 0) throw CORBA::BAD_PARAM(0, CORBA::COMPLETED_NO);
    }

    void store(const BareOrb::Bytes& data, CORBA::ULongLong offset) override
    {
        if (pwrite(m_fd, data.get_buffer(), data.length(), static_cast<off_t>(offset)) !=
            static_cast<ssize_t>(data.length()))
            throw CORBA::TRANSIENT(0, CORBA::COMPLETED_MAYBE);
    }

    BareOrb::Bytes* load(CORBA::ULong length, CORBA::ULongLong offset) override
    {
        BareOrb::Bytes_var out = new BareOrb::Bytes(length);
        out->length(length);
        if (pread(m_fd, out->get_buffer(), length, static_cast<off_t>(offset)) != static_cast<ssize_t>(length))
            throw CORBA::TRANSIENT(0, CORBA::COMPLETED_MAYBE);
        return out._retn();
    }

private:
    // One client at a time: the benchmark's single stream.
    int m_fd = -1;
    bool m_writing = false;
};

} // namespace

int main(int argc, char** argv)
{
    CORBA::ORB_var orb = CORBA::ORB_init(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: bare_orb_server <reference file> -ORBendPoint ...\n");
        return 2;
    }
    CORBA::Object_var ref = orb->resolve_initial_references("RootPOA");
    PortableServer::POA_var poa = PortableServer::POA::_narrow(ref);
    PortableServer::ServantBase_var sink = new SinkImpl;
    PortableServer::ObjectId_var id = poa->activate_object(sink.in());
    CORBA::Object_var obj = poa->id_to_reference(id.in());
    PortableServer::POAManager_var manager = poa->the_POAManager();
    manager->activate();
    {
        // Written under another name and renamed, so that a reader never
        // sees half of it.
        const std::string path = argv[1];
        CORBA::String_var ior = orb->object_to_string(obj);
        std::ofstream(path + ".part") << ior.in();
        std::rename((path + ".part").c_str(), path.c_str());
    }
    orb->run();
    return 0;
}
