// Why a hop of a proxy chain cannot be reached, as the remote plug-in finds
// it (HopProbe.h) and carries it in its numbers, and as keldctl names it.
#ifndef KELD_CLIENT_HOPCAUSE_H
#define KELD_CLIENT_HOPCAUSE_H

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

#endif
