// The service's binding to the storage framework: the table pointer, the
// counted initialisation and the one way every slot is called.
#ifndef KELD_PROXY_STSBINDING_H
#define KELD_PROXY_STSBINDING_H

#include "sts_api.h"

#include <ace/Thread_Mutex.h>
#include <atomic>

// The table handed out by the framework; null before the first successful
// sts_init and after the last sts_terminate.  Changes only under gs_stsMutex.
// Read by every call without a lock, hence atomic.
extern std::atomic<sts_api_t*> sts_api;
// Serialises sts_init, sts_terminate and nInitCount.
extern ACE_Thread_Mutex gs_stsMutex;
// Successful inits minus terminates: an alarm for an unbalanced terminate.
extern int nInitCount;

int sts_init(sts_uint64_t version, const char* dir);
int sts_terminate();
int sts_notinit();
void sts_get_next_proxy_name(const char* chain, char (&target)[512]);

// Every storage call: the slot while the table is loaded, else 2060010.
// The pointer is read once, so a terminate in between cannot null it
// under the call (the framework keeps the table answering until reloaded).
#define STS_CALL(slot, ...)                                                      \
    ([&]() -> int {                                                              \
        sts_api_t* const table_ = sts_api.load(std::memory_order_acquire);      \
        return table_ != nullptr ? table_->slot(__VA_ARGS__) : sts_notinit();    \
    }())

#endif
