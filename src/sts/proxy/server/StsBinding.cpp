#include "StsBinding.h"

#include "BoundedCopy.h"

#include <cstring>

std::atomic<sts_api_t*> sts_api{nullptr};
ACE_Thread_Mutex gs_stsMutex;
int nInitCount = 0;

int sts_init(sts_uint64_t version, const char* dir)
{
    if (version != STS_VERSION) return STS_EBAD_VERSION;
    if (dir == nullptr) return STS_EINVAL_ARG;
    sts_api_t* table = sts_api.load();
    const int nErr = stsm_init(STS_VERSION, dir, &table);
    sts_api.store(table, std::memory_order_release);
    return nErr;
}

int sts_terminate()
{
    const int nErr = stsm_terminate();
    if (nErr == 0) {
        sts_api = nullptr;
        return 0;
    }
    // Other users remain: the table stays valid, which is a success here.
    if (nErr == STS_EIN_USE) return 0;
    return nErr;
}

int sts_notinit()
{
    return STS_ENOT_INIT;
}

void sts_get_next_proxy_name(const char* chain, char (&target)[512])
{
    const char* hash = chain != nullptr ? std::strchr(chain, '#') : nullptr;
    if (hash != nullptr && hash[1] != '#') {
        boundedCopy(target, hash + 1, sizeof(target));
    } else {
        target[0] = '\0';
    }
}
