#include "ProxyLogger.h"
#include "SessionId.h"
#include "SessionManager.h"

#include <gtest/gtest.h>
#include <set>
#include <thread>
#include <vector>

namespace {

sts_handle_t handle(long n)
{
    return reinterpret_cast<sts_handle_t>(n);
}

class Registry : public ::testing::Test {
protected:
    ProxyLogger log{1};
    SessionManager sm{&log};
};

TEST_F(Registry, PopFollowsInsertionEraseTakesOneMatchCountersGoWithTheirLastUserAndNoHandleGoesTwice)
{
    sm.Push("b", handle(1));
    sm.Push("b", handle(3));
    sm.Push("b", handle(3));
    sm.Erase("b", handle(9));          // not there: nothing changes
    sm.Erase("b", handle(3));
    EXPECT_EQ(handle(1), sm.Pop("b"));
    EXPECT_EQ(handle(3), sm.Pop());
    EXPECT_EQ(nullptr, sm.Pop());

    EXPECT_EQ(-1, sm.DeleteCounter("x"));
    EXPECT_EQ(0, sm.CheckCounter("x"));    // the failed delete created nothing
    EXPECT_EQ(1, sm.AddCounter("x"));
    EXPECT_EQ(2, sm.AddCounter("x"));
    EXPECT_EQ(1, sm.DeleteCounter("x"));
    EXPECT_EQ(0, sm.DeleteCounter("x"));
    EXPECT_EQ(-1, sm.DeleteCounter("x")); // the entry went with its last user
    EXPECT_EQ(nullptr, sm.Pop("x"));

    // Concurrent pops never hand out a handle twice.
    const int perThread = 500;
    for (long i = 1; i <= 4 * perThread; ++i) sm.Push("id", handle(i));
    std::vector<std::vector<sts_handle_t>> got(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (sts_handle_t h = sm.Pop("id"); h != nullptr; h = sm.Pop("id")) got[t].push_back(h);
        });
    }
    for (auto& th : threads) th.join();
    std::set<sts_handle_t> all;
    for (auto& v : got) all.insert(v.begin(), v.end());
    EXPECT_EQ(static_cast<size_t>(4 * perThread), got[0].size() + got[1].size() + got[2].size() + got[3].size());
    EXPECT_EQ(static_cast<size_t>(4 * perThread), all.size());
}

// Session ids are shared by text and go with their last holder, so the
// servants of months of sessions leave nothing behind.
TEST(SessionIds, HoldersOfOneTextShareItUntilTheLastGoes)
{
    const size_t before = SessionId::heldIds();
    {
        SessionId a("job-1");
        SessionId b(std::string("job-1").c_str());
        SessionId cut("job-1-and-more", 5);
        EXPECT_EQ(a.c_str(), b.c_str());
        EXPECT_EQ(a.c_str(), cut.c_str());
        SessionId copy = a;
        SessionId other("job-2");
        other = copy;
        EXPECT_EQ(a.c_str(), other.c_str());
        EXPECT_EQ(before + 1, SessionId::heldIds());
        EXPECT_EQ(nullptr, SessionId(nullptr).c_str());
    }
    EXPECT_EQ(before, SessionId::heldIds());
}

} // namespace
