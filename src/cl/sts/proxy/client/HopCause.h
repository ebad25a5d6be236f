// Why a hop of a proxy chain cannot be reached, as the remote plug-in finds
// it (HopProbe.h) and carries it in its numbers, and as keldctl names it.
#ifndef KELD_CLIENT_HOPCAUSE_H
#define KELD_CLIENT_HOPCAUSE_H

#include "RemotePlugin.h"

#include <string>

// The causes as the remote plug-in's hop numbers carry them (RemotePlugin.h).
enum class HopCause {
    Unknown = 0,        // it takes connections and keeps them, yet the call did not get through
    Refused = 1,
    TimedOut = 2,
    NoRoute = 3,
    NoName = 4,
    ClosedAtOnce = 5,
};

// What keldctl and the plug-in's log say after "cannot be reached: ".  For a
// refusal by peer admission, refusedHost names the host the hop refuses.
inline std::string hopCauseText(HopCause cause, const std::string& refusedHost = "this host")
{
    switch (cause) {
    case HopCause::Refused: return "connection refused";
    case HopCause::TimedOut: return "connection timed out";
    case HopCause::NoRoute: return "no route to host";
    case HopCause::NoName: return "host name does not resolve";
    case HopCause::ClosedAtOnce:
        return "the service closed the connection at once; peer admission may be refusing " + refusedHost;
    case HopCause::Unknown: break;
    }
    return "it takes connections, but the call did not get through";
}

// The meaning of one of the remote plug-in's hop numbers (REMOTE_EHOP ..
// REMOTE_EHOP_LAST): "proxy hop 2 (ADDRESS) cannot be reached: connection
// refused", the address only when one is given.
inline std::string hopNumberText(int number, const std::string& address = "")
{
    const int place = REMOTE_EHOP_PLACE(number);
    // Peer admission at hop N refuses the hop before it, or this host.
    const std::string refused = place == 0 ? "this host" : "proxy hop " + std::to_string(place);
    return "proxy hop " + std::to_string(place + 1) + (address.empty() ? "" : " (" + address + ")") +
           " cannot be reached: " + hopCauseText(static_cast<HopCause>(REMOTE_EHOP_CAUSE(number)), refused);
}

#endif
