#include "StsLibrary.h"

#include "KeldvPaths.h"
#include "ProxyLogger.h"
#include "ProxyV9SVC.h"

#include <ace/Guard_T.h>
#include <string>

int initStorageLibrary()
{
    const std::string dir = keldvPath("lib");
    ACE_Guard<ACE_Thread_Mutex> guard(gs_stsMutex);
    const int nErr = sts_init(STS_VERSION, dir.c_str());
    if (nErr == 0) ++nInitCount;
    return nErr;
}

int retainStorageLibrary()
{
    const std::string dir = keldvPath("lib");
    ACE_Guard<ACE_Thread_Mutex> guard(gs_stsMutex);
    if (nInitCount < 1) return STS_ENOT_INIT;
    const int nErr = sts_init(STS_VERSION, dir.c_str());
    if (nErr == 0) ++nInitCount;
    return nErr;
}

int terminateStorageLibrary(ProxyLogger* plog, const sts_session_def_t* pSd, const char* szWho,
                            const char* alarmLabel)
{
    ACE_Guard<ACE_Thread_Mutex> guard(gs_stsMutex);
    const int nErr = sts_terminate();
    if (--nInitCount < 0) plog->logMsg(pSd, szWho, STS_ESERROR, "%s", alarmLabel);
    return nErr;
}

void fillSessionDefinition(sts_session_def_t& sd, const char* proxyChain, const char* id,
                           sts_uint32_t clientFlags, sts_log_v7_t log)
{
    sts_get_next_proxy_name(proxyChain, sd.sd_proxy);
    sd.sd_id = id;
    sd.sd_connectFailedPTR = nullptr;
    sd.sd_log = log;
    sts_set_debug_flags(&sd.sd_flags, VERBOSE);
    if (sd.sd_proxy[0] != '\0' && (clientFlags & 0x200) != 0) sd.sd_flags |= 0x200;
}

