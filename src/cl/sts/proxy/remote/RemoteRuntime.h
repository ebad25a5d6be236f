// What the remote plug-in holds for the whole process: its settings, its
// log, the plug-in record the framework gave it, and the ORB it calls
// through.
#ifndef KELD_CLIENT_REMOTERUNTIME_H
#define KELD_CLIENT_REMOTERUNTIME_H

#include "RemoteSettings.h"
#include "sts_plugin.h"

#include <omniORB4/CORBA.h>

#include <cstdint>

class ProxyLogger;

namespace remote {

// Called at each registration: keeps the plug-in record and reads the
// settings again (problems go to the log).
void startRuntime(const stsp_plugin_t* self);

const stsp_plugin_t* self();
const RemoteSettings& settings();
ProxyLogger& log();

// The process's ORB, started here with a message limit fit for
// max_transfer when the process has none yet; null when it cannot start.
CORBA::ORB_ptr orb();

// Why hops cannot be reached over TLS now, or "" when they can: the ORB
// this plug-in started carries its TLS identity, or the process started its
// ORB with a TLS transport of its own (a service with TLS, whose identity
// then serves towards the next hop).
std::string tlsProblem();

// Bytes of data one message may carry: max_transfer, and less when the
// ORB's own message limit is smaller.
std::uint64_t transferLimit();

// Sleeps before try attempt + 1 of a call: retry_backoff_ms, doubling with
// each try up to retry_backoff_max_ms.
void pauseBeforeTry(int attempt);

// Logs an exception that escaped a slot's own handling.
void logUnexpected(const char* who, const char* what);

// Applies the per-object settings (the call time-out) to a reference
// before it is used.
void prepare(CORBA::Object_ptr obj);

} // namespace remote

#endif
