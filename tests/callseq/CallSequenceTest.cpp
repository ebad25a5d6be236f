// The record of sequenced calls: a retry answers from the record and never
// runs twice, an older number is tossed, a retry during the running call
// waits for it, records go when no retry can come, and closed objects leave
// with the next call.
#include "CallSequence.h"
#include "ProxyLogger.h"
#include "ServiceClient.h"

#include <atomic>
#include <set>
#include <thread>

using keldtest::raises;
using keldtest::raisesVal;

namespace {

std::atomic<int> g_sleeps{0};

class Sequencing : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_sleeps = 0;
        CallSequence::setWaitSleep([](unsigned) {
            ++g_sleeps;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        });
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

    ProxyLogger log{1};
    CallSequence cs{&log};
    int runs = 0;
};

TEST_F(Sequencing, RetriesReplayWithoutASecondRunNewNumbersRunAndOlderOnesAreTossed)
{
    EXPECT_EQ(7, answer(0));
    EXPECT_EQ(7, answer(0));
    EXPECT_EQ(2, runs) << "number 0 runs every time";
    EXPECT_EQ(7, answer(5));
    EXPECT_EQ(7, answer(5));
    EXPECT_EQ(3, runs);
    EXPECT_TRUE(raises(2060058, [&] { answer(4); }, "out of order call sequence"));
    EXPECT_EQ(7, answer(5)) << "still answered from the record";
    EXPECT_EQ(3, runs);

    // A higher number clears the previous results.
    cs.startCall(6, "next");
    CORBA::Long v = 0;
    EXPECT_FALSE(cs.getLong1(&v));
    cs.recordCompletion(0, "ok");
    cs.complete();

    // A failure replays the same error with its byte count.
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_TRUE(raisesVal(2060099, 4096, [&] {
            API::UInt64 replayed = 0;
            runSequenced(cs, 8, "Test::failing", &replayed, [](CallSequence&) {},
                         [&](CallSequence& rec) { ++runs, failRecorded(rec, 2060099, "boom", 4096); });
        }));
    }
    EXPECT_EQ(4, runs);

    // Nothing recorded: the retry answers the unknown exception.
    const auto orb = [&] {
        runSequenced(cs, 9, "Test::orb", nullptr, [](CallSequence&) {},
                     [&](CallSequence&) { ++runs, throw CORBA::BAD_PARAM(); });
    };
    EXPECT_THROW(orb(), CORBA::BAD_PARAM);
    EXPECT_TRUE(raises(2060058, orb, "unknown exception"));
    EXPECT_EQ(5, runs);
}

TEST_F(Sequencing, RetryDuringTheRunningCallWaitsForItsResultAndGivesUpAfterTwentyNineChecks)
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

    g_sleeps = 0;
    cs.startCall(11, "never ends");
    EXPECT_THROW(cs.checkCompletion(11, "retry", nullptr), CORBA::TIMEOUT);
    EXPECT_EQ(29, g_sleeps.load());
    // The running call still finishes and a later retry is a hit.
    cs.recordCompletion(0, "ok");
    cs.complete();
    EXPECT_TRUE(cs.checkCompletion(11, "retry", nullptr));
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

TEST(Deactivation, ASequencedCloseWaitsForTheNextCallNumberZeroAndAGoneRecordDoNot)
{
    int argc = 0;
    CORBA::ORB_var orb = CORBA::ORB_init(argc, nullptr);
    CORBA::Object_var obj = orb->resolve_initial_references("RootPOA");
    PortableServer::POA_var poa = PortableServer::POA::_narrow(obj);
    ProxyLogger log{1};
    const auto activate = [&](PortableServer::ObjectId_var& id) {
        Dummy* servant = new Dummy;
        id = poa->activate_object(servant);
        servant->_remove_ref();
        return CORBA::Object_var(poa->id_to_reference(id));
    };
    const auto active = [&](const PortableServer::ObjectId& id) {
        try {
            poa->id_to_servant(id)->_remove_ref();
            return true;
        } catch (const PortableServer::POA::ObjectNotActive&) {
            return false;
        }
    };
    // A closing call stores its object: with a number it stays for a retry
    // until the next call, with 0 it goes at once, and a record that goes
    // takes what is pending with it.
    PortableServer::ObjectId_var sequenced, unsequenced, pending;
    CallSequence cs(&log);
    cs.startCall(3, "close");
    cs.storeObjForDeactivate(activate(sequenced), poa);
    cs.recordCompletion(0, "ok");
    cs.complete();
    EXPECT_TRUE(active(sequenced.in()));
    EXPECT_TRUE(cs.checkCompletion(3, "close", nullptr));
    cs.startCall(4, "next");
    EXPECT_FALSE(active(sequenced.in()));

    cs.startCall(0, "close");
    cs.storeObjForDeactivate(activate(unsequenced), poa);
    EXPECT_FALSE(active(unsequenced.in()));
    {
        CallSequence gone(&log);
        gone.startCall(8, "close");
        gone.storeObjForDeactivate(activate(pending), poa);
        EXPECT_TRUE(active(pending.in()));
    }
    EXPECT_FALSE(active(pending.in()));
    poa = PortableServer::POA::_nil();
    orb->destroy();
}

} // namespace
