// Why a hop cannot be reached.  The ORB says only that a connection failed
// or that a reply never came; a plain TCP connection to the hop, made once a
// call has been given up, tells the cause apart: nothing listens there, no
// answer, no route, a name that does not resolve, or a service that takes
// the connection and closes it at once (what peer admission does to a host
// it refuses, before any request is read).
#ifndef KELD_CLIENT_HOPPROBE_H
#define KELD_CLIENT_HOPPROBE_H

#include "HopAddress.h"

#include <chrono>
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

// Connects to the hop, waiting at most connectLimit, and then watches the
// connection for closeWatch without sending anything.
HopCause probeHop(const HopAddress& hop, std::chrono::milliseconds connectLimit = std::chrono::seconds(3),
                  std::chrono::milliseconds closeWatch = std::chrono::seconds(1));

#endif
