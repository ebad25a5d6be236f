// The record of sequenced calls: a new number starts clean, a retry during
// the running call waits for it, and records go when no retry can come.
#include "CallSequence.h"
#include "ProxyLogger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>

namespace {

std::atomic<int> g_sleeps{0};
CallSequence* g_endsAtThirdCheck = nullptr;   // a running call that ends while a retry waits

class Sequencing : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_sleeps = 0;
        CallSequence::setWaitSleep([](unsigned) {
            if (++g_sleeps == 3 && g_endsAtThirdCheck != nullptr) {
                g_endsAtThirdCheck->setLong1(42);
                g_endsAtThirdCheck->recordCompletion(0, "ok");
                g_endsAtThirdCheck->complete();
            }
        });
    }
    void TearDown() override { CallSequence::setWaitSleep(nullptr); }

    ProxyLogger log{1};
    CallSequence cs{&log};
};

// Replays, tossed numbers and recorded failures are seen over IIOP in the
// servant tests; what only shows here is that number 0 is never replayed
// and that a new number starts clean.
TEST_F(Sequencing, NumberZeroIsNeverReplayedAndAHigherNumberStartsClean)
{
    for (const API::UInt64 seq : {0, 0, 5}) {
        EXPECT_FALSE(cs.checkCompletion(seq, "call", nullptr));
        cs.startCall(seq, "call");
        cs.setLong1(7);
        cs.recordCompletion(0, "ok");
        cs.complete();
    }
    EXPECT_TRUE(cs.checkCompletion(5, "call", nullptr));
    // The same number for another operation is refused, not answered with
    // results that are not its own.
    EXPECT_THROW(cs.checkCompletion(5, "other", nullptr), API::STSError);
    cs.startCall(6, "next");
    CORBA::Long v = 0;
    EXPECT_FALSE(cs.getLong1(&v));
}

// The record keeps one outcome at a time, updated in place from call to
// call: a retry gets its own call's text and count, never the previous one's.
TEST_F(Sequencing, ARetryGetsTheTextAndCountOfItsOwnCallAsOutcomesAlternate)
{
    struct Outcome {
        int code;
        const char* text;
        API::UInt64 bytes;
    };
    const Outcome outcomes[] = {{0, "ok", 10},   {5, "first failure", 3}, {0, "ok", 20},
                                {0, "ok", 30},   {7, "second", 0},        {7, "second", 4},
                                {0, "", 40},     {0, "ok", 50}};
    API::UInt64 seq = 100;
    for (const Outcome& o : outcomes) {
        ++seq;
        ASSERT_FALSE(cs.checkCompletion(seq, "write", nullptr));
        cs.startCall(seq, "write");
        cs.recordCompletion(o.code, o.text, o.bytes);
        cs.complete();
        API::UInt64 bytes = 999;
        if (o.code == 0) {
            EXPECT_TRUE(cs.checkCompletion(seq, "write", &bytes));
        } else {
            try {
                cs.checkCompletion(seq, "write", &bytes);
                ADD_FAILURE() << "a recorded failure is raised again";
            } catch (const API::STSError_val& e) {
                EXPECT_EQ(o.code, e.stsErrorNo);
                EXPECT_STREQ(o.text, e.errorMsg.in());
                EXPECT_EQ(o.bytes, e.bytesReturned);
            }
        }
        EXPECT_EQ(o.bytes, bytes) << o.text;
    }
    // Without a count: the plain outcome, its text the one recorded last.
    for (const char* text : {"ok", "not open", "ok"}) {
        ++seq;
        cs.startCall(seq, "close");
        const API::STSError& recorded = cs.recordCompletion(text[0] == 'o' ? 0 : 2060014, text);
        EXPECT_STREQ(text, recorded.errorMsg.in());
        cs.complete();
    }
    // A reference recorded by one call is gone at the next.
    cs.startCall(++seq, "open");
    cs.setImagePtr(API::Image::_nil());
    cs.recordCompletion(0, "ok");
    cs.complete();
    API::Image_ptr image = API::Image::_nil();
    EXPECT_TRUE(cs.getImagePtr(image));
    cs.startCall(++seq, "other");
    EXPECT_FALSE(cs.getImagePtr(image));
}

TEST_F(Sequencing, RetryDuringTheRunningCallWaitsForItsResultAndGivesUpAfterTwentyNineChecks)
{
    cs.startCall(9, "slow");
    g_endsAtThirdCheck = &cs;
    EXPECT_TRUE(cs.checkCompletion(9, "slow", nullptr));
    g_endsAtThirdCheck = nullptr;
    CORBA::Long v = 0;
    EXPECT_TRUE(cs.getLong1(&v));
    EXPECT_EQ(42, v);

    // The next number waits for the running call as well, then starts.
    g_sleeps = 0;
    cs.startCall(10, "slow");
    g_endsAtThirdCheck = &cs;
    EXPECT_FALSE(cs.checkCompletion(11, "next", nullptr));
    g_endsAtThirdCheck = nullptr;
    EXPECT_EQ(3, g_sleeps.load());

    g_sleeps = 0;
    cs.startCall(11, "never ends");
    EXPECT_THROW(cs.checkCompletion(11, "never ends", nullptr), CORBA::TIMEOUT);
    EXPECT_EQ(29, g_sleeps.load());
    // The running call still finishes and a later retry is a hit.
    cs.recordCompletion(0, "ok");
    cs.complete();
    EXPECT_TRUE(cs.checkCompletion(11, "never ends", nullptr));
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

// A record that goes (its session's idle limit passed) deactivates the
// closed object it still held for a retry, with a real POA in this process.
// The other ways out are seen over IIOP.
class Dummy : public virtual POA_API::Foo {
public:
    void doFoo() override {}
};

TEST(Deactivation, ARecordThatGoesTakesItsPendingObjectWithIt)
{
    int argc = 0;
    CORBA::ORB_var orb = CORBA::ORB_init(argc, nullptr);
    CORBA::Object_var obj = orb->resolve_initial_references("RootPOA");
    PortableServer::POA_var poa = PortableServer::POA::_narrow(obj);
    ProxyLogger log{1};
    Dummy* servant = new Dummy;
    PortableServer::ObjectId_var id = poa->activate_object(servant);
    servant->_remove_ref();
    {
        CallSequence cs(&log);
        cs.startCall(8, "close");
        cs.storeObjForDeactivate(CORBA::Object_var(poa->id_to_reference(id)), poa);
        EXPECT_NO_THROW(poa->id_to_servant(id)->_remove_ref());
    }
    EXPECT_THROW(poa->id_to_servant(id), PortableServer::POA::ObjectNotActive);
    poa = PortableServer::POA::_nil();
    orb->destroy();
}

} // namespace
