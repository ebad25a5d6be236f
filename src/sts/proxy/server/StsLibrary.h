// Taking and giving back one use of the storage library, as every user
// does: sts_init and sts_terminate under gs_stsMutex, with the balance kept
// in nInitCount and an alarm line when it goes negative.
#ifndef KELD_PROXY_STSLIBRARY_H
#define KELD_PROXY_STSLIBRARY_H

#include "StsBinding.h"

class ProxyLogger;

// sts_init(11, <root>/lib); a success is counted.
int initStorageLibrary();

// One more use of the library while it is up already, counted like
// initStorageLibrary's; STS_ENOT_INIT, and nothing loaded, when it is not.
int retainStorageLibrary();

// sts_terminate; logs alarmLabel ("SUPER1!WRONG" and the like, one per call
// site) at error severity when the count went below 0.  Returns the result
// of sts_terminate.
int terminateStorageLibrary(ProxyLogger* plog, const sts_session_def_t* pSd, const char* szWho,
                            const char* alarmLabel);

// Fills a session definition from the client's session: the next hop of the
// proxy chain, the id (held by the caller, see SessionId), the debug flags
// from VERBOSE, and bit 0x200 passed on only when there is a next hop.
void fillSessionDefinition(sts_session_def_t& sd, const char* proxyChain, const char* id,
                           sts_uint32_t clientFlags, sts_log_v7_t log);

#endif
