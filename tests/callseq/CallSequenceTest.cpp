#include "CallSequence.h"
#include "ProxyLogger.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <set>
#include <thread>

namespace {

std::atomic<int> g_sleeps{0};
void countingSleep(unsigned)
{
    ++g_sleeps;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

class Sequencing : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_sleeps = 0;
        CallSequence::setWaitSleep(countingSleep);
    }
    void TearDown() override { CallSequence::setWaitSleep(nullptr); }

    // A sequenced operation that returns 7 through long1 and counts its runs.
    CORBA::Long answer(API::UInt64 seq)
    {
        return runSequenced(cs, seq, "Test::answer", nullptr,
            [](CallSequence& rec) {
                CORBA::Long v = -1;
                rec.getLong1(&v);
                return v;
            },
            [this](CallSequence& rec) {
                ++runs;
                rec.setLong1(7);
                rec.recordCompletion(0, "ok");
                return CORBA::Long(7);
            });
    }

    void failing(API::UInt64 seq, API::UInt64 bytes)
    {
        API::UInt64 replayed = 0;
        runSequenced(cs, seq, "Test::failing", &replayed, [](CallSequence&) {},
            [&](CallSequence& rec) {
                ++runs;
                failRecorded(rec, 2060099, "boom", bytes);
            });
    }

    ProxyLogger log{1};
    CallSequence cs{&log};
    int runs = 0;
};

TEST_F(Sequencing, NumberZeroRunsEveryTime)
{
    EXPECT_EQ(7, answer(0));
    EXPECT_EQ(7, answer(0));
    EXPECT_EQ(2, runs);
    EXPECT_FALSE(cs.checkCompletion(0, "x", nullptr));
}

TEST_F(Sequencing, RetryAfterSuccessReplaysWithoutASecondRun)
{
    EXPECT_EQ(7, answer(5));
    EXPECT_EQ(7, answer(5));
    EXPECT_EQ(1, runs);
    EXPECT_EQ(0, cs.getErrorCode());
}

TEST_F(Sequencing, RetryAfterFailureReplaysTheSameErrorAndCount)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            failing(3, 4096);
            FAIL() << "no exception";
        } catch (const API::STSError_val& e) {
            EXPECT_EQ(2060099, e.stsErrorNo);
            EXPECT_STREQ("boom", e.errorMsg);
            EXPECT_EQ(4096u, e.bytesReturned);
        }
    }
    EXPECT_EQ(1, runs);
}

TEST_F(Sequencing, HigherNumberRunsAndClearsThePreviousResults)
{
    answer(5);
    cs.startCall(6, "next");
    CORBA::Long v = 0;
    EXPECT_FALSE(cs.getLong1(&v));
    cs.recordCompletion(0, "ok");
    cs.complete();
    EXPECT_EQ(7, answer(7));
    EXPECT_EQ(2, runs);
}

TEST_F(Sequencing, LowerNumberIsTossedAndChangesNothing)
{
    answer(5);
    try {
        answer(4);
        FAIL() << "not tossed";
    } catch (const API::STSError& e) {
        EXPECT_EQ(2060058, e.stsErrorNo);
        EXPECT_STREQ("out of order call sequence", e.errorMsg);
    }
    EXPECT_EQ(7, answer(5));   // still answered from the record
    EXPECT_EQ(1, runs);
}

TEST_F(Sequencing, RetryDuringTheRunningCallWaitsForItsResult)
{
    std::atomic<bool> release{false};
    std::atomic<bool> started{false};
    std::thread first([&] {
        runSequenced(cs, 9, "Test::slow", nullptr, [](CallSequence&) { return 0; },
            [&](CallSequence& rec) {
                started = true;
                while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
                rec.setLong1(42);
                rec.recordCompletion(0, "ok");
                return 0;
            });
    });
    while (!started) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::thread releaser([&] {
        while (g_sleeps < 3) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        release = true;
    });
    EXPECT_TRUE(cs.checkCompletion(9, "retry", nullptr));
    CORBA::Long v = 0;
    EXPECT_TRUE(cs.getLong1(&v));
    EXPECT_EQ(42, v);
    first.join();
    releaser.join();
}

TEST_F(Sequencing, WaitGivesUpAfterTwentyNineChecks)
{
    cs.startCall(11, "never ends");
    EXPECT_THROW(cs.checkCompletion(11, "retry", nullptr), CORBA::TIMEOUT);
    EXPECT_EQ(29, g_sleeps.load());
    // The running call still finishes and a later retry is a hit.
    cs.recordCompletion(0, "ok");
    cs.complete();
    EXPECT_TRUE(cs.checkCompletion(11, "retry", nullptr));
}

TEST_F(Sequencing, NothingRecordedReplaysUnknownException)
{
    auto op = [&] {
        runSequenced(cs, 2, "Test::orb", nullptr, [](CallSequence&) {},
                     [&](CallSequence&) { ++runs; throw CORBA::BAD_PARAM(); });
    };
    EXPECT_THROW(op(), CORBA::BAD_PARAM);
    try {
        op();
        FAIL() << "no replay";
    } catch (const API::STSError& e) {
        EXPECT_EQ(2060058, e.stsErrorNo);
        EXPECT_STREQ("unknown exception", e.errorMsg);
    }
    EXPECT_EQ(1, runs);
}

// One record per session, kept while a retry may still come: records go
// only when idle, unheld and without an open server, after the idle limit,
// or earlier (least recently used first) above the bound.
TEST_F(Sequencing, ManagerKeepsOneRecordPerSessionWithinItsBounds)
{
    std::set<std::string> openSessions = {"open"};
    CallSequenceMgr::Bounds bounds;
    bounds.idleLimit = std::chrono::minutes(10);
    bounds.keptRecords = 4;
    CallSequenceMgr mgr(&log, [&](const std::string& id) { return openSessions.count(id) > 0; }, bounds);
    auto now = CallSequenceMgr::Clock::now();
    mgr.setClock([&] { return now; });

    using std::chrono::minutes;
    EXPECT_EQ(mgr.getCallSequence("a"), mgr.getCallSequence("a"));
    std::weak_ptr<CallSequence> a = mgr.getCallSequence("a");
    std::shared_ptr<CallSequence> held = mgr.getCallSequence("held");
    mgr.getCallSequence("open");
    std::shared_ptr<CallSequence> running = mgr.getCallSequence("running");
    running->startCall(7, "op");

    now += minutes(1);
    std::weak_ptr<CallSequence> b = mgr.getCallSequence("b");
    EXPECT_FALSE(a.expired()) << "at the bound nothing needs to go";
    now += minutes(1);
    std::weak_ptr<CallSequence> c = mgr.getCallSequence("c");
    EXPECT_TRUE(a.expired()) << "above the bound the least recently used free record goes";
    EXPECT_FALSE(b.expired());

    now += minutes(20);
    mgr.getCallSequence("fresh");
    EXPECT_TRUE(b.expired());
    EXPECT_TRUE(c.expired());
    EXPECT_EQ(4u, mgr.size()) << "held, open, running and fresh stay";
    EXPECT_EQ(held, mgr.getCallSequence("held"));
    EXPECT_EQ(running, mgr.getCallSequence("running"));
}

// Deactivation of a closed object, with a real POA in this process.
class Dummy : public virtual POA_API::Foo {
public:
    void doFoo() override {}
};

class Deactivation : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        int argc = 1;
        static char name[] = "test";
        static char* argv[] = {name, nullptr};
        s_orb = CORBA::ORB_init(argc, argv);
        CORBA::Object_var obj = s_orb->resolve_initial_references("RootPOA");
        s_poa = PortableServer::POA::_narrow(obj);
    }
    static void TearDownTestSuite()
    {
        s_poa = PortableServer::POA::_nil();
        s_orb->destroy();
    }

    CORBA::Object_ptr activate(PortableServer::ObjectId_var& id)
    {
        Dummy* servant = new Dummy;
        id = s_poa->activate_object(servant);
        servant->_remove_ref();
        return s_poa->id_to_reference(id);
    }
    bool active(const PortableServer::ObjectId& id)
    {
        try {
            PortableServer::ServantBase* s = s_poa->id_to_servant(id);
            s->_remove_ref();
            return true;
        } catch (const PortableServer::POA::ObjectNotActive&) {
            return false;
        }
    }

    static CORBA::ORB_var s_orb;
    static PortableServer::POA_var s_poa;
    ProxyLogger log{1};
};
CORBA::ORB_var Deactivation::s_orb;
PortableServer::POA_var Deactivation::s_poa;

TEST_F(Deactivation, SequencedCloseWaitsForTheNextCall)
{
    CallSequence cs(&log);
    PortableServer::ObjectId_var id;
    CORBA::Object_var obj = activate(id);
    cs.startCall(3, "close");
    cs.storeObjForDeactivate(obj, s_poa);
    cs.recordCompletion(0, "ok");
    cs.complete();
    EXPECT_TRUE(active(id.in()));     // a retried close still reaches it
    EXPECT_TRUE(cs.checkCompletion(3, "close", nullptr));
    cs.startCall(4, "next");
    EXPECT_FALSE(active(id.in()));
}

TEST_F(Deactivation, UnsequencedCloseDeactivatesAtOnce)
{
    CallSequence cs(&log);
    PortableServer::ObjectId_var id;
    CORBA::Object_var obj = activate(id);
    cs.startCall(0, "close");
    cs.storeObjForDeactivate(obj, s_poa);
    EXPECT_FALSE(active(id.in()));
}

TEST_F(Deactivation, RecordDestructionDeactivatesWhatIsPending)
{
    PortableServer::ObjectId_var id;
    CORBA::Object_var obj = activate(id);
    {
        CallSequence cs(&log);
        cs.startCall(8, "close");
        cs.storeObjForDeactivate(obj, s_poa);
    }
    EXPECT_FALSE(active(id.in()));
}

} // namespace
