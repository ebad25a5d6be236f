// keldpxy: the storage proxy service, and its own stop command.
#include "CommandLine.h"
#include "KeldvPaths.h"
#include "MasterConfig.h"
#include "PidFile.h"
#include "ProcessHandler.h"
#include "ProxyKeyMgr.h"
#include "ProxyLogger.h"
#include "ProxyV9SVC.h"

#include <omniORB4/CORBA.h>
#include "ProxyTypes.hh"

#include <cstdlib>
#include <cstring>

namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

namespace {

const char* szWho = "main";
const char* const kProgramName = "keldpxy";

// Where running instances of this install root leave their pid files.
std::string instanceDirectory()
{
    return keldvPath("keldrive/logs");
}

void showUsage(ProxyLogger* plog)
{
    plog->logMsg(nullptr, szWho, STS_ESWARN,
                 "Please run keldpxy [-start | -stop] [-exit n(minutes)] or no argument to start");
    plog->logMsg(nullptr, szWho, STS_ESWARN,
                 "or keldpxy -start -ORBListenEndPoints iiop://`hostname`:10001");
}

void stopRunningInstances(ProxyLogger* plog)
{
    ProxyKeyMgr::destroy();
    plog->logMsg(nullptr, szWho, STS_ESINFO, "prepare to shutdown the proxy service[s]");
    ProcessHandler handler(kProgramName);
    // Another install root's service is not ours to stop; with the default
    // root every instance on the machine is signalled, as it always was.
    if (!keldvRootIsDefault()) handler.setInstanceDirectory(instanceDirectory());
    handler.setSignalType(15);
    handler.terminate();
}

// Runs the selected mode; returns the exit status of the common end.
int dispatch(ProxyLogger* plog, const CommandLine& cl, int& argc, char** argv)
{
    ProxyV9SVC proxy(argc, argv, plog, true, cl.bTimer, cl.interval, cl.serviceName,
                     cl.consoleMode);
    if (cl.isStart) {
        plog->logMsg(nullptr, szWho, STS_ESINFO, "start to run proxy service, interval is %d",
                     cl.interval);
        PidFile::registerThisProcess(instanceDirectory(), kProgramName);
        proxy.run(true);
    } else if (cl.bCleanup) {
        plog->logMsg(nullptr, szWho, STS_ESINFO, "cleanup the left shared memory %s", cl.lsuname);
        char lsuname[sizeof(cl.lsuname)];
        std::memcpy(lsuname, cl.lsuname, sizeof(lsuname));
        proxy.cleanupOneSharedMemory(lsuname);  // the result does not change the exit status
        plog->logMsg(nullptr, szWho, STS_ESINFO, "proxy server exits");
        std::exit(0);
    } else if (cl.isStop) {
        stopRunningInstances(plog);
    } else {
        showUsage(plog);
    }
    plog->logMsg(nullptr, szWho, STS_ESINFO, "proxy service exits");
    return 0;
}

} // namespace

int main(int argc, char* argv[])
{
    // Lives to the end of the process.
    ProxyLogger* plog = new ProxyLogger(1);

    if (ProxyKeyMgr::getInstance(1024) == nullptr) {
        plog->logMsg(nullptr, szWho, STS_ESERROR, "ProxyKeyMgr::getInstance can't gen key pair");
        return -1;
    }
    const int rc = KD_read_master_config();
    if (rc != 0) {
        plog->logMsg(nullptr, szWho, STS_ESERROR, "fail to read VERBOSE setting, error code: %d", rc);
        return -1;
    }
    VERBOSE = get_master_config_ptr()->VERBOSE;
    plog->logMsg(nullptr, szWho, STS_ESDEBUG, "VERBOSE setting: %d", VERBOSE);
    for (int i = 0; i < argc; ++i) {
        plog->logMsg(nullptr, szWho, STS_ESDEBUG, "argv[%d] = %s", i, argv[i]);
    }

    const CommandLine cl = parseCommandLine(argc, argv);
    try {
        return dispatch(plog, cl, argc, argv);
    } catch (const CORBA::SystemException&) {
        // Taken to mean that the endpoint is held by another instance.
        plog->logMsg(nullptr, szWho, STS_ESWARN,
                     "start proxy service failed, there might be another proxy service running in your host");
    } catch (const API::STSError& e) {
        plog->logMsg(nullptr, szWho, STS_ESERROR,
                     "sts error on the server side errno: %d\nerror message: %s",
                     static_cast<int>(e.stsErrorNo), static_cast<const char*>(e.errorMsg));
    } catch (...) {
        plog->logMsg(nullptr, szWho, STS_ESERROR,
                     "non-CORBA and non-STS exception is caught in the main(), might OrbService");
    }
    return -1;
}
