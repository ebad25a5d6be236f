#include "OrbArguments.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using Words = std::vector<std::string>;

// Every service test starts from the common forms; these are the others.
TEST(OrbArguments, ListenEndpointsBecomeNativeEndpointsAndTheRestPassesThrough)
{
    const Words three = {"-ORBendPoint", "giop:tcp:a:1", "-ORBendPoint", "giop:tcp:b:2", "-ORBendPoint", "giop:tcp:c:3"};
    const struct {
        Words given, expected;
    } cases[] = {
        // Option name and scheme in any case; no host means every address.
        {{"-orblistenendpoints", "IIOP://:4711"}, {"-ORBendPoint", "giop:tcp::4711"}},
        {{"-ORBListenEndPoints", "iiop://a:1;b:2", "-ORBListenEndPoints", "iiop://c:3"}, three},
        {{"-ORBListenEndPoints", "iiop://a:1 iiop://b:2;c:3"}, three},
        // Version prefix and endpoint options dropped; no port: the system picks one.
        {{"-ORBListenEndPoints", "iiop://1.2@host:99/portspan=2"}, {"-ORBendPoint", "giop:tcp:host:99"}},
        {{"-ORBListenEndPoints", "iiop://[::1]"}, {"-ORBendPoint", "giop:tcp:[::1]:"}},
        {{"-ORBListenEndPoints", "iiop://"}, {"-ORBendPoint", "giop:tcp::"}},
        {{"-ORBEndpoint", "iiop://h:7"}, {"-ORBendPoint", "giop:tcp:h:7"}},
        // Without an endpoint the default port is added; publishing opens nothing.
        {{}, {"-ORBendPoint", "giop:tcp::10001"}},
        {{"-ORBendPointPublish", "all(addr)"}, {"-ORBendPointPublish", "all(addr)", "-ORBendPoint", "giop:tcp::10001"}},
        {{"-ORBendPoint", "giop:tcp:127.0.0.1:5000", "-ORBtraceLevel", "10"},
         {"-ORBendPoint", "giop:tcp:127.0.0.1:5000", "-ORBtraceLevel", "10"}},
        {{"-ORBendPointNoPublish", "giop:unix:/tmp/x"}, {"-ORBendPointNoPublish", "giop:unix:/tmp/x"}},
    };
    for (const auto& c : cases) EXPECT_EQ(c.expected, translateOrbArguments(c.given)) << ::testing::PrintToString(c.given);
    for (const Words& bad : {Words{"-ORBListenEndPoints"}, Words{"-ORBListenEndPoints", "shmiop://"},
                             Words{"-ORBListenEndPoints", "host:1"}}) {
        EXPECT_THROW(translateOrbArguments(bad), std::invalid_argument) << bad.back();
    }
}

TEST(OrbArguments, ExtractTakesOrbWordsWithValuesAndKeepsTheRestInOrder)
{
    Words words = {"keldpxy", "-start", "-ORBListenEndPoints", "iiop://h:1", "-exit", "5", "-ORBtraceLevel"};
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    int argc = 7;
    EXPECT_EQ((Words{"-ORBListenEndPoints", "iiop://h:1", "-ORBtraceLevel"}), extractOrbArguments(argc, argv.data()));
    ASSERT_EQ(4, argc);
    EXPECT_EQ((Words{"keldpxy", "-start", "-exit", "5"}), Words(argv.begin(), argv.begin() + 4));
    EXPECT_EQ(nullptr, argv[4]);
}

} // namespace
