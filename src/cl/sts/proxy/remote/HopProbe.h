// Why a hop cannot be reached.  The ORB says only that a connection failed
// or that a reply never came; a plain TCP connection to the hop, made once a
// call has been given up, tells the cause apart: nothing listens there, no
// answer, no route, a name that does not resolve, or a service that takes
// the connection and closes it at once (what peer admission does to a host
// it refuses, before any request is read).
#ifndef KELD_CLIENT_HOPPROBE_H
#define KELD_CLIENT_HOPPROBE_H

#include "HopAddress.h"
#include "HopCause.h"

#include <chrono>

// Connects to the hop, waiting at most connectLimit, and then watches the
// connection for closeWatch without sending anything.
HopCause probeHop(const HopAddress& hop, std::chrono::milliseconds connectLimit = std::chrono::seconds(3),
                  std::chrono::milliseconds closeWatch = std::chrono::seconds(1));

#endif
