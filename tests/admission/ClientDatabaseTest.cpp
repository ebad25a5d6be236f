// The SQLite client database as the service sees it, through the three entry
// points of the built libKdbMT.so, while the operator changes it with
// keldv-clients.
#include "TestSupport.h"
#include "kdb_client.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

struct Library {
    Library()
    {
        handle = dlopen(KELD_KDB_PATH, RTLD_LAZY);
        if (handle == nullptr) return;
        init = reinterpret_cast<int (*)(client_rec*, int)>(dlsym(handle, "db_initCLIENT_REC"));
        get = reinterpret_cast<int (*)(client_rec*, const char*)>(dlsym(handle, "db_getCLIENT"));
        release = reinterpret_cast<void (*)(client_rec*)>(dlsym(handle, "db_CLIENTfree"));
    }
    ~Library()
    {
        if (handle != nullptr) dlclose(handle);
    }
    // The result of one lookup, the way the service makes it.
    int lookup(const char* name, std::string* clientName = nullptr) const
    {
        client_rec rec;
        init(&rec, KDB_QUERY_BY_NAME);
        const int rc = get(&rec, name);
        if (clientName != nullptr && rec.client_name != nullptr) *clientName = rec.client_name;
        release(&rec);
        return rc;
    }

    void* handle = nullptr;
    int (*init)(client_rec*, int) = nullptr;
    int (*get)(client_rec*, const char*) = nullptr;
    void (*release)(client_rec*) = nullptr;
};

// Runs keldv-clients with the test's root; returns its exit status and output.
int clients(const std::string& args, std::string* out = nullptr)
{
    const std::string command = std::string(KELDV_CLIENTS_PATH) + " " + args + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    std::array<char, 256> chunk;
    std::string text;
    while (fgets(chunk.data(), chunk.size(), pipe) != nullptr) text += chunk.data();
    const int status = pclose(pipe);
    if (out != nullptr) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ClientDatabase, LookupsThroughTheEntryPointsFollowTheOperator)
{
    keldtest::TempRoot root(false, false);
    Library kdb;
    ASSERT_NE(nullptr, kdb.handle) << dlerror();
    ASSERT_TRUE(kdb.init && kdb.get && kdb.release);

    // No database yet: a failure, told apart from an unknown name.
    EXPECT_EQ(KDB_EDATABASE, kdb.lookup("web7"));
    std::string out;
    EXPECT_EQ(0, clients("list", &out));
    EXPECT_EQ("", out);

    ASSERT_EQ(0, clients("add web7"));
    ASSERT_EQ(0, clients("add db.example.test"));
    EXPECT_EQ(0, clients("add WEB7", &out));   // already known, whatever the case
    EXPECT_NE(std::string::npos, out.find("already a client")) << out;
    EXPECT_EQ(2, clients("add 'two words'"));
    EXPECT_EQ(0, clients("list", &out));
    EXPECT_EQ("db.example.test\nweb7\n", out);

    std::string name;
    EXPECT_EQ(KDB_OK, kdb.lookup("Web7", &name));
    EXPECT_EQ("web7", name);   // as the database keeps it
    EXPECT_EQ(KDB_ENOT_FOUND, kdb.lookup("web7.example.test"));
    EXPECT_EQ(KDB_EINVAL, kdb.lookup("bad name"));

    // One record, two questions, one free: the second answer replaces the
    // first, and the free leaves nothing behind.
    client_rec rec;
    kdb.init(&rec, KDB_QUERY_BY_NAME);
    EXPECT_EQ(KDB_ENOT_FOUND, kdb.get(&rec, "web7.example.test"));
    EXPECT_EQ(nullptr, rec.client_name);
    EXPECT_EQ(KDB_OK, kdb.get(&rec, "web7"));
    EXPECT_STREQ("web7", rec.current_hostname);
    EXPECT_EQ(KDB_OK, kdb.get(&rec, "db.example.test"));
    EXPECT_STREQ("db.example.test", rec.client_name);
    kdb.release(&rec);
    EXPECT_EQ(nullptr, rec.client_name);
    EXPECT_EQ(nullptr, rec.current_hostname);

    EXPECT_EQ(0, clients("remove web7"));
    EXPECT_EQ(1, clients("remove web7"));
    EXPECT_EQ(KDB_ENOT_FOUND, kdb.lookup("web7"));
}

TEST(ClientDatabase, ReadersGoOnWhileTheOperatorAddsAClient)
{
    keldtest::TempRoot root(false, false);
    Library kdb;
    ASSERT_NE(nullptr, kdb.handle) << dlerror();
    ASSERT_EQ(0, clients("add first"));

    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::array<std::atomic<bool>, 2> sawLate{};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&, i] {
            while (!stop) {
                // Every answer is a clean yes or no, never a failure.
                if (kdb.lookup("first") != KDB_OK) ++failures;
                const int rc = kdb.lookup("late-host");
                if (rc == KDB_OK) sawLate[i] = true;
                else if (rc != KDB_ENOT_FOUND) ++failures;
            }
        });
    }
    std::this_thread::sleep_for(50ms);
    for (int i = 0; i < 5; ++i) ASSERT_EQ(0, clients("add other" + std::to_string(i)));
    ASSERT_EQ(0, clients("add late-host"));
    const bool bothSaw = keldtest::waitFor([&] { return sawLate[0] && sawLate[1]; }, 10s);
    stop = true;
    for (std::thread& t : readers) t.join();
    EXPECT_TRUE(bothSaw);
    EXPECT_EQ(0, failures.load());
}

} // namespace
