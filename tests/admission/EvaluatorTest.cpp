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
    if (sa->sa_family == AF_INET) {
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, text, sizeof(text));
        auto it = testNames().find(text);
        if (it != testNames().end()) {
            ++g_lookups;
            if (it->second.size() >= hostlen) return EAI_OVERFLOW;
            std::memcpy(host, it->second.c_str(), it->second.size() + 1);
            return 0;
        }
    }
    ++g_lookups;
    using Real = int (*)(const sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "getnameinfo"));
    return real(sa, salen, host, hostlen, serv, servlen, flags);
}

namespace {

struct Counts {
    int inits = 0, queries = 0, frees = 0, lookups = 0;
};

class Evaluator : public ::testing::Test {
protected:
    void SetUp() override
    {
        ::symlink(KELD_FAKE_KDB_PATH, (root.path() + "/lib/libKdbMT.so").c_str());
        // The evaluator opens the same file, so this is the same library.
        fake = dlopen(KELD_FAKE_KDB_PATH, RTLD_NOW);
        ASSERT_NE(nullptr, fake) << dlerror();
        setClients = reinterpret_cast<void (*)(const char*)>(dlsym(fake, "fake_kdb_set_clients"));
        counts = reinterpret_cast<void (*)(int*, int*, int*)>(dlsym(fake, "fake_kdb_counts"));
        setClients("web7,db.example.test");
    }
    void TearDown() override { dlclose(fake); }

    Counts now() const
    {
        Counts c;
        counts(&c.inits, &c.queries, &c.frees);
        c.lookups = g_lookups;
        return c;
    }
    static PeerAddr peer(const std::string& address)
    {
        PeerAddr addr;
        const std::string uri = address.find(':') == std::string::npos
                                    ? "giop:tcp:" + address + ":4000"
                                    : "giop:tcp:[" + address + "]:4000";
        EXPECT_TRUE(PeerGate::parsePeerAddress(uri, addr)) << uri;
        return addr;
    }

    keldtest::TempRoot root{false, false};
    void* fake = nullptr;
    void (*setClients)(const char*) = nullptr;
    void (*counts)(int*, int*, int*) = nullptr;
};

TEST_F(Evaluator, ServersClientsAndRefusals)
{
    root.writeFile("keldrive/servers", "# servers of this domain\n10.1.0.1\nlocalhost  10.1.0.2\n");
    InsecureProxyServerEvaluator evaluator;
    Counts before = now();

    // Known servers, by address, by name, and as an IPv4 address mapped into
    // IPv6: no lookup, no query.
    EXPECT_TRUE(evaluator.allow_peer(peer("10.1.0.1")));
    EXPECT_TRUE(evaluator.allow_peer(peer("127.0.0.1")));
    EXPECT_TRUE(evaluator.allow_peer(peer("::ffff:10.1.0.2")));
    EXPECT_EQ(before.queries, now().queries);
    EXPECT_EQ(before.lookups, now().lookups);

    // Known by its short name only: the full name is asked first, then the
    // short one; the record is made and freed once.
    before = now();
    EXPECT_TRUE(evaluator.allow_peer(peer("10.1.0.7")));
    EXPECT_EQ(before.queries + 2, now().queries);
    EXPECT_EQ(before.inits + 1, now().inits);
    EXPECT_EQ(before.frees + 1, now().frees);
    // Its next connection is looked up again but costs no query: the full
    // name was remembered.
    before = now();
    EXPECT_TRUE(evaluator.allow_peer(peer("10.1.0.7")));
    EXPECT_TRUE(evaluator.isInClientList("web7.example.test"));
    EXPECT_EQ(before.queries, now().queries);
    EXPECT_EQ(before.lookups + 1, now().lookups);

    // Known by its full name: one query.
    before = now();
    EXPECT_TRUE(evaluator.allow_peer(peer("10.1.0.8")));
    EXPECT_EQ(before.queries + 1, now().queries);
    EXPECT_EQ(before.frees + 1, now().frees);

    // A stranger is asked about at every attempt, and admitted at the first
    // attempt after the database learns of it.
    before = now();
    EXPECT_FALSE(evaluator.allow_peer(peer("10.1.0.9")));
    EXPECT_FALSE(evaluator.allow_peer(peer("10.1.0.9")));
    EXPECT_EQ(before.queries + 4, now().queries);
    EXPECT_EQ(before.frees + 2, now().frees);
    setClients("web7,db.example.test,stranger");
    EXPECT_TRUE(evaluator.allow_peer(peer("10.1.0.9")));

    // A name without a point is tried whole, twice.
    before = now();
    EXPECT_FALSE(evaluator.allow_peer(peer("10.1.0.10")));
    EXPECT_EQ(before.queries + 2, now().queries);

    // A name of 65 bytes does not fit: refused without a query.
    before = now();
    EXPECT_FALSE(evaluator.allow_peer(peer("10.1.0.65")));
    EXPECT_EQ(before.lookups + 1, now().lookups);
    EXPECT_EQ(before.queries, now().queries);

    // The server list is read again when it changes.
    EXPECT_FALSE(evaluator.allow_peer(peer("10.1.0.10")));
    root.writeFile("keldrive/servers", "10.1.0.10\n");
    EXPECT_TRUE(evaluator.allow_peer(peer("10.1.0.10")));
    EXPECT_FALSE(evaluator.allow_peer(peer("10.1.0.1")));
}

TEST_F(Evaluator, MissingLibraryOrEntryPointThrowsTheLoaderText)
{
    const std::string link = root.path() + "/lib/libKdbMT.so";
    ::unlink(link.c_str());
    try {
        InsecureProxyServerEvaluator evaluator;
        ADD_FAILURE() << "no exception";
    } catch (const char* text) {
        EXPECT_EQ(link + ": cannot open shared object file: No such file or directory",
                  std::string(text));
    }
    // A library that is no client database: the first entry point is missing.
    ASSERT_EQ(0, ::symlink(KELD_OTHER_LIBRARY_PATH, link.c_str()));
    try {
        InsecureProxyServerEvaluator evaluator;
        ADD_FAILURE() << "no exception";
    } catch (const char* text) {
        EXPECT_NE(std::string::npos, std::string(text).find("undefined symbol: db_initCLIENT_REC"))
            << text;
    }
}

} // namespace
