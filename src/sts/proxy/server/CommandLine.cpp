#include "CommandLine.h"

#include "BoundedCopy.h"

#include <ace/Arg_Shifter.h>
#include <algorithm>
#include <cstdlib>

namespace {

bool matches(ACE_Arg_Shifter& shifter, const char* option)
{
    return shifter.cur_arg_strncasecmp(option) == 0;
}

// Minutes as atoi reads them, in seconds; beyond a year it is a year.
int idleSeconds(const char* minutesText, bool& clamped)
{
    const long long minutes = std::strtoll(minutesText, nullptr, 10);
    clamped = minutes > kMaxIdleMinutes || minutes < -kMaxIdleMinutes;
    const long long bounded = minutes > 0 ? std::min<long long>(minutes, kMaxIdleMinutes)
                                          : std::max<long long>(minutes, -kMaxIdleMinutes);
    return static_cast<int>(bounded * 60);
}

} // namespace

CommandLine parseCommandLine(int& argc, char** argv)
{
    CommandLine cl;
    boundedCopy(cl.serviceName, "ProxyV9SVC", sizeof(cl.serviceName));

    ACE_Arg_Shifter shifter(argc, argv);
    // Only the program's own name: same as -start.
    if (shifter.is_anything_left() == 1 && !shifter.is_option_next()) cl.isStart = true;

    while (shifter.is_anything_left()) {
        // Plain tests, not an else-chain: after get_the_parameter the later
        // comparisons run on the value word, which the closing ignore_arg
        // then steps over.
        if (shifter.is_option_next()) {
            if (matches(shifter, "-start")) cl.isStart = true;
            if (matches(shifter, "-stop")) cl.isStop = true;
            if (matches(shifter, "-cleanup")) {
                cl.bCleanup = true;
                boundedCopy(cl.lsuname, shifter.get_the_parameter("-cleanup"), sizeof(cl.lsuname));
            }
            if (matches(shifter, "-terminate")) cl.isStop = true;
            if (matches(shifter, "-installservice")) cl.install = true;
            if (matches(shifter, "-removeservice")) cl.remove = true;
            if (matches(shifter, "-exit")) {
                cl.bTimer = true;
                const char* value = shifter.get_the_parameter("-exit");
                if (value != nullptr) cl.interval = idleSeconds(value, cl.intervalClamped);
            }
            if (matches(shifter, "-servicename")) {
                boundedCopy(cl.serviceName, shifter.get_the_parameter("-servicename"),
                            sizeof(cl.serviceName));
                cl.consoleMode = true;
            }
        }
        shifter.ignore_arg(1);
    }
    return cl;
}
