// The SQLite client database as the service sees it, through the three entry
// points of the built libKdbMT.so, while the operator changes it with
// keldv-clients.
#include "Shell.h"
#include "TestSupport.h"
#include "kdb_client.h"

#include <atomic>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

// Runs keldv-clients with the test's root; its exit status, its output in out.
int clients(const std::string& args, std::string* out = nullptr)
{
    return shell(std::string(KELDV_CLIENTS_PATH) + " " + args, out);
}

TEST(ClientDatabase, LookupsThroughTheEntryPointsFollowTheOperator)
{
    keldtest::TempRoot root(false, false);
    void* handle = dlopen(KELD_KDB_PATH, RTLD_LAZY);
    ASSERT_NE(nullptr, handle) << dlerror();
    const auto init = reinterpret_cast<int (*)(client_rec*, int)>(dlsym(handle, "db_initCLIENT_REC"));
    const auto get = reinterpret_cast<int (*)(client_rec*, const char*)>(dlsym(handle, "db_getCLIENT"));
    const auto release = reinterpret_cast<void (*)(client_rec*)>(dlsym(handle, "db_CLIENTfree"));
    ASSERT_TRUE(init && get && release);
    // One lookup the way the service makes it; the name as the database keeps it.
    auto lookup = [&](const char* name, std::string* kept = nullptr) {
        client_rec rec;
        init(&rec, KDB_QUERY_BY_NAME);
        const int rc = get(&rec, name);
        if (kept != nullptr && rec.client_name != nullptr) *kept = rec.client_name;
        release(&rec);
        return rc;
    };

    EXPECT_EQ(KDB_EDATABASE, lookup("web7")) << "no database yet: a failure, not an unknown name";
    std::string out;
    EXPECT_EQ(0, clients("list", &out));
    EXPECT_EQ("", out);
    // Whatever the operator's umask, the database is the owner's alone.
    ASSERT_EQ(0, shell(std::string("umask 000; ") + KELDV_CLIENTS_PATH + " add web7"));
    struct stat st;
    ASSERT_EQ(0, ::stat((root.path() + "/keldrive/clients.db").c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777);
    ASSERT_EQ(0, clients("add db.example.test"));
    EXPECT_EQ(0, clients("add WEB7", &out));   // already known, whatever the case
    EXPECT_NE(std::string::npos, out.find("already a client")) << out;
    EXPECT_EQ(2, clients("add 'two words'"));
    EXPECT_EQ(0, clients("list", &out));
    EXPECT_EQ("db.example.test\nweb7\n", out);

    std::string name;
    EXPECT_EQ(KDB_OK, lookup("Web7", &name));
    EXPECT_EQ("web7", name);
    EXPECT_EQ(KDB_ENOT_FOUND, lookup("web7.example.test"));
    EXPECT_EQ(KDB_EINVAL, lookup("bad name"));

    // One record, three questions, one free: each answer replaces the one
    // before, and the free leaves nothing behind.
    client_rec rec;
    init(&rec, KDB_QUERY_BY_NAME);
    EXPECT_EQ(KDB_ENOT_FOUND, get(&rec, "web7.example.test"));
    EXPECT_EQ(nullptr, rec.client_name);
    EXPECT_EQ(KDB_OK, get(&rec, "web7"));
    EXPECT_STREQ("web7", rec.current_hostname);
    EXPECT_EQ(KDB_OK, get(&rec, "db.example.test"));
    EXPECT_STREQ("db.example.test", rec.client_name);
    release(&rec);
    EXPECT_EQ(nullptr, rec.client_name);
    EXPECT_EQ(nullptr, rec.current_hostname);
    EXPECT_EQ(0, clients("remove web7"));
    EXPECT_EQ(1, clients("remove web7"));
    EXPECT_EQ(KDB_ENOT_FOUND, lookup("web7"));

    // Readers go on while the operator adds clients: every answer is a clean
    // yes or no, never a failure, and the new client is seen.
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0}, sawLate{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            for (bool saw = false; !stop;) {
                if (lookup("db.example.test") != KDB_OK) ++failures;
                const int rc = lookup("late-host");
                if (rc != KDB_OK && rc != KDB_ENOT_FOUND) ++failures;
                if (rc == KDB_OK && !saw) saw = ++sawLate > 0;
            }
        });
    }
    std::this_thread::sleep_for(50ms);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(0, clients("add other" + std::to_string(i)));
    EXPECT_EQ(0, clients("add late-host"));
    const bool bothSaw = keldtest::waitFor([&] { return sawLate == 2; }, 10s);
    stop = true;
    for (std::thread& t : readers) t.join();
    EXPECT_TRUE(bothSaw);
    EXPECT_EQ(0, failures.load());
    dlclose(handle);
}

} // namespace
