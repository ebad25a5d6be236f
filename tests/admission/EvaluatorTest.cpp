// The admission rules of InsecureProxyServerEvaluator with a stand-in client
// database that counts its queries, and reverse lookups answered (and
// counted) by this test: getnameinfo below takes the place of the system's
// for every library in the process.
#include "PeerGate.h"
#include "ProxyEvaluator.h"
#include "TestSupport.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <map>
#include <netdb.h>
#include <string>

namespace {

std::atomic<int> g_lookups{0};

// Names this test gives to addresses of its own network.
const std::map<std::string, std::string>& testNames()
{
    static const std::map<std::string, std::string> names = {
        {"10.1.0.7", "web7.example.test"},
        {"10.1.0.8", "db.example.test"},
        {"10.1.0.9", "stranger.example.test"},
        {"10.1.0.10", "plainhost"},
        // 65 characters: one more than the evaluator has room for.
        {"10.1.0.65", std::string(53, 'h') + ".example.test"},
    };
    return names;
}

} // namespace

extern "C" int getnameinfo(const sockaddr* sa, socklen_t salen, char* host, socklen_t hostlen,
                           char* serv, socklen_t servlen, int flags)
{
    ++g_lookups;
    if (sa->sa_family == AF_INET) {
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, text, sizeof(text));
        auto it = testNames().find(text);
        if (it != testNames().end()) {
            if (it->second.size() >= hostlen) return EAI_OVERFLOW;
            std::memcpy(host, it->second.c_str(), it->second.size() + 1);
            return 0;
        }
    }
    using Real = int (*)(const sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "getnameinfo"));
    return real(sa, salen, host, hostlen, serv, servlen, flags);
}

namespace {

class Evaluator : public ::testing::Test {
protected:
    void SetUp() override
    {
        ::symlink(KELD_FAKE_KDB_PATH, (root.path() + "/lib/libKdbMT.so").c_str());
        // The evaluator opens the same file, so this is the same library.
        ASSERT_NE(nullptr, fake = dlopen(KELD_FAKE_KDB_PATH, RTLD_NOW)) << dlerror();
        setClients = reinterpret_cast<void (*)(const char*)>(dlsym(fake, "fake_kdb_set_clients"));
        counts = static_cast<int*>(dlsym(fake, "fake_kdb_counts"));
        setClients("web7,db.example.test");
    }
    void TearDown() override { dlclose(fake); }

    // The answer for a connection from address, and what it cost: database
    // queries, records made and freed, reverse lookups.
    std::string admit(InsecureProxyServerEvaluator& evaluator, const std::string& address) const
    {
        PeerAddr addr;
        const std::string host = address.find(':') == std::string::npos ? address : "[" + address + "]";
        EXPECT_TRUE(PeerGate::parsePeerAddress("giop:tcp:" + host + ":4000", addr)) << host;
        const int inits = counts[0], queries = counts[1], frees = counts[2], lookups = g_lookups;
        const bool allowed = evaluator.allow_peer(addr);
        return std::string(allowed ? "yes" : "no") + " q" + std::to_string(counts[1] - queries) + " i" +
               std::to_string(counts[0] - inits) + " f" + std::to_string(counts[2] - frees) + " l" +
               std::to_string(g_lookups - lookups);
    }

    keldtest::TempRoot root{false, false};
    void* fake = nullptr;
    void (*setClients)(const char*) = nullptr;
    const int* counts = nullptr;   // records made, queries, records freed
};

TEST_F(Evaluator, ServersClientsAndRefusals)
{
    root.writeFile("keldrive/servers", "# servers of this domain\n10.1.0.1\nlocalhost  10.1.0.2\n");
    InsecureProxyServerEvaluator evaluator;
    // Known servers, by address, by name, and as an IPv4 address mapped into
    // IPv6: no lookup, no query.
    EXPECT_EQ("yes q0 i0 f0 l0", admit(evaluator, "10.1.0.1"));
    EXPECT_EQ("yes q0 i0 f0 l0", admit(evaluator, "127.0.0.1"));
    EXPECT_EQ("yes q0 i0 f0 l0", admit(evaluator, "::ffff:10.1.0.2"));
    // Known by its short name only: the full name is asked first, then the
    // short one, on one record made and freed once.  Its next connection is
    // looked up again but costs no query: the full name was remembered.
    EXPECT_EQ("yes q2 i1 f1 l1", admit(evaluator, "10.1.0.7"));
    EXPECT_EQ("yes q0 i0 f0 l1", admit(evaluator, "10.1.0.7"));
    EXPECT_TRUE(evaluator.isInClientList("web7.example.test"));
    EXPECT_EQ("yes q1 i1 f1 l1", admit(evaluator, "10.1.0.8"));   // known by its full name
    // An IPv4 client reaching a listener on every address is looked up by
    // its IPv4 address.
    EXPECT_EQ("yes q0 i0 f0 l1", admit(evaluator, "::ffff:10.1.0.8"));
    // A stranger is asked about at every attempt, and admitted at the first
    // attempt after the database learns of it.
    EXPECT_EQ("no q2 i1 f1 l1", admit(evaluator, "10.1.0.9"));
    EXPECT_EQ("no q2 i1 f1 l1", admit(evaluator, "10.1.0.9"));
    setClients("web7,db.example.test,stranger");
    EXPECT_EQ("yes q2 i1 f1 l1", admit(evaluator, "10.1.0.9"));
    // A name without a point is tried whole, twice; one of 65 bytes does not
    // fit and is refused without a query.
    EXPECT_EQ("no q2 i1 f1 l1", admit(evaluator, "10.1.0.10"));
    EXPECT_EQ("no q0 i0 f0 l1", admit(evaluator, "10.1.0.65"));

    // The server list is read again when it changes.
    root.writeFile("keldrive/servers", "10.1.0.10\n");
    EXPECT_EQ("yes q0 i0 f0 l0", admit(evaluator, "10.1.0.10"));
    EXPECT_EQ("no", admit(evaluator, "10.1.0.1").substr(0, 2));
}

// A library that is no client database: the loader's text names the first
// entry point missing.  (A missing library is refused at the service's start.)
TEST_F(Evaluator, LibraryWithoutTheEntryPointsThrowsTheLoaderText)
{
    const std::string link = root.path() + "/lib/libKdbMT.so";
    ::unlink(link.c_str());
    ASSERT_EQ(0, ::symlink(KELD_OTHER_LIBRARY_PATH, link.c_str()));
    try {
        InsecureProxyServerEvaluator evaluator;
        ADD_FAILURE() << "no exception";
    } catch (const char* text) {
        EXPECT_NE(std::string::npos, std::string(text).find("undefined symbol: db_initCLIENT_REC")) << text;
    }
}

} // namespace
