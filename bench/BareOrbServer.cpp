// A server with nothing but the ORB: receives or sends a sequence<octet>,
// answers a string; and, as the floor of a server that keeps the bytes,
// writes or reads them with one pwrite or pread of a file, if asked with
// the work the service must do for every transfer besides.  It takes the
// same ORB options as the service, so that the difference measured against
// it is what the service adds, and writes
// its object's reference to a file: a client that reached it by a corbaloc
// address would speak GIOP 1.0 without code set negotiation, while the
// service's clients get full references (GIOP 1.2, code sets) from the
// service's forward.
//   bare_orb_server <reference file> -ORBendPoint giop:tcp:127.0.0.1:PORT [-ORB...]
#include "BareOrb.hh"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// The work every numbered call of the service must do whatever it is
// built like: four debug lines, each an access of the log directory and,
// when that is there, the line written at once to the log file; and for a
// read, a copy of the bytes kept for a retry.  Nothing else: the lines are
// made the cheapest way (time text once a second, one snprintf, one
// write), so that a server doing this and only this is the most that any
// service with those duties can reach.
class RequiredWork {
public:
    void use(const char* logDirectory)
    {
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
        m_directory = logDirectory;
        if (m_directory.empty() || access(m_directory.c_str(), F_OK) != 0) return;
        m_fd = open((m_directory + "/required.log").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0640);
    }
    bool wanted() const { return !m_directory.empty(); }

    // The two lines before the storage is reached, and the two after.
    void logStart(const char* operation)
    {
        ++m_sequence;
        line("caller", operation);
        line("starting", operation);
    }
    void logEnd(const char* operation)
    {
        line("recorded", operation);
        line("completed", operation);
    }

    void keep(const BareOrb::Bytes& sent)
    {
        const CORBA::ULong n = sent.length();
        if (n > m_kept.maximum()) m_kept.length(0);
        m_kept.length(n);
        if (n > 0) std::memcpy(m_kept.get_buffer(), sent.get_buffer(), n);
    }

private:
    void line(const char* step, const char* operation)
    {
        if (access(m_directory.c_str(), 0) != 0 || m_fd < 0) return;
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_sec != m_second) {
            tm local{};
            localtime_r(&now.tv_sec, &local);
            std::snprintf(m_clock, sizeof(m_clock), "%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
            m_second = now.tv_sec;
        }
        thread_local const std::string ids =
            "[" + std::to_string(getpid()) + "." + std::to_string(syscall(SYS_gettid)) + "]";
        char text[512];
        const int n = std::snprintf(text, sizeof(text), "%s.%03ld%s[DEBUG][dummy][required]%p sequence = %llu %s: %s\n",
                                    m_clock, now.tv_nsec / 1000000, ids.c_str(), static_cast<void*>(this), m_sequence,
                                    step, operation);
        if (n > 0 && write(m_fd, text, static_cast<size_t>(n)) < 0) m_fd = -1;
    }

    std::string m_directory;
    int m_fd = -1;
    unsigned long long m_sequence = 0;
    time_t m_second = -1;
    char m_clock[16] = {0};
    BareOrb::Bytes m_kept;
};

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

    void useFile(const char* path, CORBA::Boolean writing, const char* logDirectory) override
    {
        m_required.use(logDirectory);
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
        if (m_required.wanted()) m_required.logStart("store");
        if (pwrite(m_fd, data.get_buffer(), data.length(), static_cast<off_t>(offset)) !=
            static_cast<ssize_t>(data.length()))
            throw CORBA::TRANSIENT(0, CORBA::COMPLETED_MAYBE);
        if (m_required.wanted()) m_required.logEnd("store");
    }

    BareOrb::Bytes* load(CORBA::ULong length, CORBA::ULongLong offset) override
    {
        if (m_required.wanted()) m_required.logStart("load");
        BareOrb::Bytes_var out = new BareOrb::Bytes(length);
        out->length(length);
        if (pread(m_fd, out->get_buffer(), length, static_cast<off_t>(offset)) != static_cast<ssize_t>(length))
            throw CORBA::TRANSIENT(0, CORBA::COMPLETED_MAYBE);
        if (m_required.wanted()) {
            m_required.keep(out.in());
            m_required.logEnd("load");
        }
        return out._retn();
    }

private:
    // One client at a time: the benchmark's single stream.
    int m_fd = -1;
    bool m_writing = false;
    RequiredWork m_required;
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
