// The event channel servant, which nothing in the service makes: built here
// with a real POA in this process, a stand-in manager and the
// failure-injecting plug-in.
#include "CallSequence.h"
#include "EventChannelImpl.h"
#include "EventChannelManagerImpl.h"
#include "FaultNumbers.h"
#include "ProxyLogger.h"
#include "ServiceClient.h"
#include "StsLibrary.h"
#include "TestPoa.h"
#include "sts_types.h"

#include <unistd.h>

using keldtest::raises;

namespace {

// A channel whose handles a test sets, as an open would have.
class OpenChannel : public EventChannelImpl {
public:
    using EventChannelImpl::EventChannelImpl;
    void adopt(sts_handle_t evch, sts_session_t ssn, bool inited, sts_uint32_t id)
    {
        m_evch = evch;
        m_ssn = ssn;
        m_bInited = inited;
        m_evcId = id;
        m_sd.sd_id = "evc-test";
        m_sd.sd_flags = 0xF;
    }
};

// Counts the channel closes it is told of.
class CountingManager : public EventChannelManagerImpl {
public:
    explicit CountingManager(ProxyLogger* plog) : EventChannelManagerImpl(CORBA::ORB::_nil(), testPoa(), plog) {}
    void decreaseCounterV12(API::UInt64) override { ++decreased; }
    int decreased = 0;
};

class EventChannel : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string link = root.path() + "/lib/stsplugins/libsts_fault.so";
        ASSERT_EQ(0, symlink(KELD_STS_FAULT_PLUGIN, link.c_str()));
    }
    OpenChannel* make(API::EventChannelManager_ptr manager, API::EventChannel_var& ref)
    {
        OpenChannel* channel = new OpenChannel(testPoa(), manager, &log);
        ref = channel->_this();
        return channel;
    }
    // Deactivation left it alive: its maker deletes it; returns the seconds that took.
    static double destroy(PortableServer::ServantBase* servant)
    {
        PortableServer::ObjectId_var id = testPoa()->servant_to_id(servant);
        testPoa()->deactivate_object(id.in());
        const auto start = std::chrono::steady_clock::now();
        delete servant;
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    bool logHas(const std::string& text) const { return root.readLog().find(text) != std::string::npos; }

    keldtest::TempRoot root{true, false};
    ProxyLogger log{1};
};

TEST_F(EventChannel, DeliversQueuedEventsByPollingRefusesTheOldFormsAndCloseNeedsAHandle)
{
    API::EventChannel_var ref;
    OpenChannel* channel = make(API::EventChannelManager::_nil(), ref);
    channel->adopt(nullptr, nullptr, false, 7);
    API::Event_var ev;
    bReceivedRequest = false;
    EXPECT_EQ(STS_ENO_EVENT, ref->getPushEventV12(1, ev));
    EXPECT_TRUE(bReceivedRequest);
    proxy_event_block_t stop = {};
    stop.ev_type = 1;
    std::snprintf(stop.ev_svn, sizeof(stop.ev_svn), "Disk:here");
    stop.ev_flags = 7;
    std::snprintf(stop.ev_pl, sizeof(stop.ev_pl), "bye");
    proxy_event_block_t normal = {};
    std::snprintf(normal.ev_pl, sizeof(normal.ev_pl), "hello");
    channel->getQueue()->push(&stop);
    channel->getQueue()->push(&normal);
    EXPECT_EQ(0, ref->getPushEventV12(2, ev));
    EXPECT_EQ(1u, ev->type);
    EXPECT_STREQ("Disk:here", ev->server);
    EXPECT_EQ(7u, ev->flags);
    EXPECT_STREQ("bye", ev->payload);
    EXPECT_EQ(0, ref->getPushEventV12(2, ev));   // no record: the same number gets the next one
    EXPECT_STREQ("hello", ev->payload);
    EXPECT_EQ(STS_ENO_EVENT, ref->getPushEventV12(3, ev));

    EXPECT_TRUE(raises(STS_ENOT_SUPPORTED, [&] { ref->getPushEvent(ev); }, "operation not supported"));
    EXPECT_THROW(ref->getEvcId(), CORBA::UNKNOWN);   // declares no exception to carry the refusal

    // Without a channel handle a close changes nothing at all.
    EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { ref->closeEvchannelV12(1); }, "event channel has not been opened"));
    EXPECT_FALSE(ref->_non_existent());
    EXPECT_GE(destroy(channel), 1.0);   // it waits for the plug-in's last event
}

TEST_F(EventChannel, CloseEndsTheChannelFromTheInsideOut)
{
    CountingManager* manager = new CountingManager(&log);
    API::EventChannelManager_var managerRef = manager->_this();
    ASSERT_EQ(0, initStorageLibrary());
    sts_session_def_t sd = {};
    sts_session_t ssn = nullptr;
    sts_handle_t first = nullptr;
    sts_handle_t second = nullptr;
    ASSERT_EQ(0, sts_api.load()->stsa_open_session(&sd, &ssn));
    ASSERT_EQ(0, sts_api.load()->stsa_open_server(ssn, "ShMem:one", nullptr, "", &first));
    ASSERT_EQ(0, sts_api.load()->stsa_open_server(ssn, "ShMem:two", nullptr, "", &second));
    const int count = gs_evcCount;

    // The plug-in refuses the channel close: nothing further happens.
    API::EventChannel_var refused;
    OpenChannel* failing = make(managerRef, refused);
    failing->adopt(first, ssn, true, 41);
    ASSERT_EQ(0, gs_EvcObjMap.bind(41, failing));
    setenv("KELD_FAULT_CLOSE", std::to_string(FAULT_EREFUSED).c_str(), 1);
    EXPECT_TRUE(raises(FAULT_EREFUSED, [&] { refused->closeEvchannelV12(1); }, "fail to close event channel handle"));
    unsetenv("KELD_FAULT_CLOSE");
    EXPECT_EQ(0, manager->decreased);
    EXPECT_EQ(count, gs_evcCount);
    gs_EvcObjMap.unbind(41);
    destroy(failing);

    // A whole close: channel, map and count, session, library use, object.
    API::EventChannel_var ref;
    OpenChannel* channel = make(managerRef, ref);
    channel->adopt(second, ssn, true, 42);
    ASSERT_EQ(0, gs_EvcObjMap.bind(42, channel));
    nInitCount = 0;   // as if the use had not been counted: the alarm, and the flow goes on
    ref->closeEvchannelV12(1);
    EXPECT_EQ(-1, nInitCount);
    EXPECT_TRUE(logHas("SUPER8!WRONG"));
    nInitCount = 0;
    EXPECT_EQ(1, manager->decreased);
    EventChannelImpl* found = nullptr;
    EXPECT_EQ(-1, gs_EvcObjMap.find(42, found));
    EXPECT_EQ(count - 1, gs_evcCount);
    EXPECT_EQ(nullptr, sts_api);   // the last use was given back
    EXPECT_TRUE(ref->_non_existent());   // deactivated at once, but not destroyed
    EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { channel->closeEvchannelV12(0); }, "event channel has not been opened"));
    destroy(channel);
    destroy(manager);
}

} // namespace
