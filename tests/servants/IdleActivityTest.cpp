// Which client calls keep an idle service alive: the servants are called in
// this process, then the idle timer ticks once.  A call that does work
// counts, sequenced or not, even when it fails; a refused form and a poll
// of the remote log do not.
#include "FileListImpl.h"
#include "ProxyLogger.h"
#include "ProxyV9SVC.h"
#include "RemoteLoggerImpl.h"
#include "ServiceClient.h"
#include "StorageServerImpl.h"
#include "TestPoa.h"

#include <functional>

namespace {

class IdleActivity : public ::testing::Test {
protected:
    void TearDown() override
    {
        bReceivedRequest = false;
        bTimeout = false;
    }
    // Whether the idle timer, ticking after the call alone, lets the
    // service go on.
    bool keepsServiceAlive(const std::function<void()>& call)
    {
        bReceivedRequest = false;
        bTimeout = false;
        try {
            call();
        } catch (const API::STSError&) {
            // a failed call is still a call
        }
        svc.handle_timeout(ACE_Time_Value::zero, nullptr);
        return !bTimeout;
    }

    keldtest::TempRoot root{true, false};
    ProxyLogger log{1};
    char name[8] = "keldpxy";
    char* argv[2] = {name, nullptr};
    ProxyV9SVC svc{1, argv, &log, true, false, 60, "ProxyV9SVC", false};
};

TEST_F(IdleActivity, UnsequencedClosesCountButRefusedFormsAndLogPollsDoNot)
{
    // A server that was never opened and a list without a handle: each
    // close below is answered with an error, after the call was counted.
    auto* server = new StorageServerImpl(testPoa(), &log, nullptr, nullptr);
    const PortableServer::ServantBase_var serverOwner = server;
    sts_session_def_t sd = {};
    sd.sd_id = "idle-session";
    auto* list = new FileListImpl(testPoa(), ServerLink{}, &log, sd);
    const PortableServer::ServantBase_var listOwner = list;
    API::FileList_var listRef = list->_this();
    auto* logger = new RemoteLoggerImpl(&log);
    const PortableServer::ServantBase_var loggerOwner = logger;

    EXPECT_TRUE(keepsServiceAlive([&] { server->closeSnapChangeListV11(listRef); }));
    EXPECT_TRUE(keepsServiceAlive([&] { logger->closeRmtLoggerV12(0); }));
    EXPECT_TRUE(keepsServiceAlive([&] {
        API::Bytes_var message;
        server->setServerConfigV12(0, API::Bytes(), message, 0);
    }));
    EXPECT_FALSE(keepsServiceAlive([&] { server->closeServer(); }));
    EXPECT_FALSE(keepsServiceAlive([&] {
        API::SessionDefinition_var sdOut;
        CORBA::String_var line;
        logger->getRemoteLogV12(0, sdOut, line);
    }));

    PortableServer::ObjectId_var id = testPoa()->reference_to_id(listRef);
    testPoa()->deactivate_object(id.in());
}

} // namespace
