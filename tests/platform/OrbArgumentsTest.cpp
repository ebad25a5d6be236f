#include "OrbArguments.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using Words = std::vector<std::string>;

TEST(TranslateOrbArguments, ListenEndpointBecomesNativeEndpoint)
{
    EXPECT_EQ((Words{"-ORBendPoint", "giop:tcp:myhost:10001"}),
              translateOrbArguments({"-ORBListenEndPoints", "iiop://myhost:10001"}));
    EXPECT_EQ((Words{"-ORBendPoint", "giop:tcp::4711"}),
              translateOrbArguments({"-ORBListenEndpoints", "iiop://:4711"}));
    // The option name is matched without regard to case, the scheme too.
    EXPECT_EQ((Words{"-ORBendPoint", "giop:tcp:h:1"}),
              translateOrbArguments({"-orblistenendpoints", "IIOP://h:1"}));
}

TEST(TranslateOrbArguments, SeveralEndpointsEachGetTheirOwnOption)
{
    Words expected = {"-ORBendPoint", "giop:tcp:a:1", "-ORBendPoint", "giop:tcp:b:2",
                      "-ORBendPoint", "giop:tcp:c:3"};
    EXPECT_EQ(expected, translateOrbArguments({"-ORBListenEndPoints", "iiop://a:1;b:2",
                                               "-ORBListenEndPoints", "iiop://c:3"}));
    EXPECT_EQ(expected, translateOrbArguments({"-ORBListenEndPoints",
                                               "iiop://a:1 iiop://b:2;c:3"}));
    // A TLS endpoint beside a plain one.
    EXPECT_EQ((Words{"-ORBendPoint", "giop:tcp:a:1", "-ORBendPoint", "giop:ssl:a:2"}),
              translateOrbArguments({"-ORBListenEndPoints", "iiop://a:1 SSLIOP://a:2"}));
}

TEST(TranslateOrbArguments, VersionPrefixAndEndpointOptionsAreDropped)
{
    EXPECT_EQ((Words{"-ORBendPoint", "giop:tcp:host:99"}),
              translateOrbArguments({"-ORBListenEndPoints", "iiop://1.2@host:99/portspan=2"}));
    EXPECT_EQ((Words{"-ORBendPoint", "giop:tcp:[::1]:99"}),
              translateOrbArguments({"-ORBListenEndPoints", "iiop://[::1]:99"}));
    // No port: the system picks one.
    EXPECT_EQ((Words{"-ORBendPoint", "giop:tcp:[::1]:"}),
              translateOrbArguments({"-ORBListenEndPoints", "iiop://[::1]"}));
    EXPECT_EQ((Words{"-ORBendPoint", "giop:tcp::"}),
              translateOrbArguments({"-ORBListenEndPoints", "iiop://"}));
}

TEST(TranslateOrbArguments, WithoutEndpointTheDefaultPortIsAdded)
{
    EXPECT_EQ((Words{"-ORBendPoint", "giop:tcp::10001"}), translateOrbArguments({}));
    EXPECT_EQ((Words{"-ORBtraceLevel", "5", "-ORBendPoint", "giop:tcp::10001"}),
              translateOrbArguments({"-ORBtraceLevel", "5"}));
}

TEST(TranslateOrbArguments, NativeOptionsPassThroughAndCountAsEndpoint)
{
    Words native = {"-ORBendPoint", "giop:tcp:127.0.0.1:5000", "-ORBtraceLevel", "10"};
    EXPECT_EQ(native, translateOrbArguments(native));
    Words noPublish = {"-ORBendPointNoPublish", "giop:unix:/tmp/x"};
    EXPECT_EQ(noPublish, translateOrbArguments(noPublish));
    // Publishing an address opens nothing: the default endpoint still comes.
    EXPECT_EQ((Words{"-ORBendPointPublish", "all(addr)", "-ORBendPoint", "giop:tcp::10001"}),
              translateOrbArguments({"-ORBendPointPublish", "all(addr)"}));
    // The older iiop spelling of -ORBEndpoint is translated too.
    EXPECT_EQ((Words{"-ORBendPoint", "giop:tcp:h:7"}),
              translateOrbArguments({"-ORBEndpoint", "iiop://h:7"}));
}

TEST(TranslateOrbArguments, MalformedInputIsRefused)
{
    EXPECT_THROW(translateOrbArguments({"-ORBListenEndPoints"}), std::invalid_argument);
    EXPECT_THROW(translateOrbArguments({"-ORBListenEndPoints", "shmiop://"}),
                 std::invalid_argument);
    EXPECT_THROW(translateOrbArguments({"-ORBListenEndPoints", "host:1"}),
                 std::invalid_argument);
}

TEST(ExtractOrbArguments, TakesOrbWordsWithValuesAndKeepsTheRestInOrder)
{
    char prog[] = "keldpxy", start[] = "-start", listen[] = "-ORBListenEndPoints",
         url[] = "iiop://h:1", exitOpt[] = "-exit", five[] = "5", trace[] = "-ORBtraceLevel";
    char* argv[] = {prog, start, listen, url, exitOpt, five, trace, nullptr};
    int argc = 7;
    Words orb = extractOrbArguments(argc, argv);
    EXPECT_EQ((Words{"-ORBListenEndPoints", "iiop://h:1", "-ORBtraceLevel"}), orb);
    ASSERT_EQ(4, argc);
    EXPECT_STREQ("keldpxy", argv[0]);
    EXPECT_STREQ("-start", argv[1]);
    EXPECT_STREQ("-exit", argv[2]);
    EXPECT_STREQ("5", argv[3]);
    EXPECT_EQ(nullptr, argv[4]);
}

} // namespace
