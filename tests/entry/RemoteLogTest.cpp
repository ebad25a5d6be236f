// The remote log as clients that stop reading meet it, over IIOP: an unread
// mailbox keeps the newest lines within its bounds and says how many went,
// and one nobody polls closes, its client is told so, and the others go on.
#include "ServiceClient.h"
#include "sts_types.h"

#include <sstream>

using namespace keldtest;
using namespace std::chrono_literals;

namespace {

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line + "\n");
    return lines;
}

class RemoteLog : public ServiceFixture {};

TEST_F(RemoteLog, AnUnreadMailboxKeepsTheNewestLinesAndSaysHowManyWentInTheirPlace)
{
    startWithFaultPlugin({}, "VERBOSE = 6\n");
    API::RemoteLogger_var unread = ssm->openRmtLoggerV12(1, session("reader"));
    drain(unread);   // from here on it holds what the log file gets
    const size_t before = linesOf(root.readLog()).size();

    faultControl("KELD_FAULT_LOG_LINES=12000\n");
    API::StorageServer_var server = openFault(1, "flood");
    const std::vector<std::string> log = linesOf(root.readLog());
    const std::vector<std::string> got = drain(unread);
    ASSERT_EQ(10001u, got.size());
    EXPECT_EQ(std::to_string(log.size() - before - 10000) + " lines dropped: the mailbox was not read\n", got[0]);
    EXPECT_TRUE(std::equal(got.begin() + 1, got.end(), log.end() - 10000)) << "the newest, as written";

    faultControl("");
    server->closeServerV12(1);
    const std::vector<std::string> after = drain(unread);
    ASSERT_FALSE(after.empty());
    EXPECT_EQ(std::string::npos, after[0].find("dropped")) << "read in time, nothing went";
}

TEST_F(RemoteLog, AMailboxNobodyPollsClosesItsClientIsToldAndTheOthersGoOn)
{
    startWithFaultPlugin({}, "VERBOSE = 6\nREMOTE_LOG_IDLE_SECONDS = 3\n");
    API::RemoteLogger_var gone = ssm->openRmtLoggerV12(1, session("gone"));      // logger 1
    API::RemoteLogger_var reader = ssm->openRmtLoggerV12(1, session("reader"));  // logger 2
    // Calls go on writing lines; the reader polls, the other one's client has gone.
    std::string read;
    API::UInt64 seq = 0;
    const auto call = [&] {
        API::ServerInformation_var info;
        EXPECT_THROW(ssm->getServerPropByNameV12(++seq, session("q"), "Nobody:x", info), API::STSError);
    };
    ASSERT_TRUE(waitFor([&] {
        call();
        for (const std::string& line : drain(reader)) read += line;
        return logHas("remote logger 1 closed: not read for 3 seconds");
    }, 30s));
    EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { drain(gone); }, "remote logger closed: not read for 3 seconds"));
    call();
    for (const std::string& line : drain(reader)) read += line;
    EXPECT_NE(std::string::npos, read.find("remote logger 1 closed: not read for 3 seconds"));
    EXPECT_NE(std::string::npos, read.find("sts_get_server_prop_byname failed"));

    // Its client may still close it, which ends the object; the map takes
    // new mailboxes as before, and the close was logged once.
    ssm->closeRmtLoggerV12(0, session("gone"), gone);
    EXPECT_TRUE(gone->_non_existent());
    API::RemoteLogger_var fresh = ssm->openRmtLoggerV12(1, session("fresh"));
    call();
    EXPECT_FALSE(drain(fresh).empty());
    EXPECT_EQ(1u, logCount("closed: not read for"));
}

} // namespace
