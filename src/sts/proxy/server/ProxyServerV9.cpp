// keldpxy: the storage proxy service, and its own stop command.
#include "CommandLine.h"
#include "KeldvPaths.h"
#include "MasterConfig.h"
#include "Orb.h"
#include "PidFile.h"
#include "ProcessHandler.h"
#include "ProxyKeyMgr.h"
#include "ProxyLogger.h"
#include "ProxyV9SVC.h"
#include "RemoteLoggerImpl.h"
#include "ServiceNotify.h"

#include <omniORB4/CORBA.h>
#include <openssl/crypto.h>
#include "ProxyTypes.hh"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

namespace {

const char* szWho = "main";
const char* const kProgramName = "keldpxy";

// Thirty request threads move transfers of a MiB and more.  glibc would
// give them up to eight arenas per core, each keeping freed transfer
// buffers of its own between long-lived records, and the resident size of a
// service that runs for months would creep up for hours.  Four arenas level
// it off within minutes at no cost to the data path: small blocks come from
// each thread's own cache.  An arena limit set in the environment wins.
void boundMallocArenas()
{
    const char* tunables = std::getenv("GLIBC_TUNABLES");
    if (std::getenv("MALLOC_ARENA_MAX") != nullptr ||
        (tunables != nullptr && std::strstr(tunables, "arena_max") != nullptr)) {
        return;
    }
    mallopt(M_ARENA_MAX, 4);
}

// Where running instances of this install root leave their pid files.
std::string instanceDirectory()
{
    return keldvPath("keldrive/logs");
}

// A line for the operator at the terminal as well as the log.
void tellOperator(ProxyLogger* plog, sts_severity_t sev, const char* text)
{
    plog->logMsg(nullptr, szWho, sev, "%s", text);
    std::fprintf(stderr, "keldpxy: %s\n", text);
}

bool hasPlugin(const std::string& dir)
{
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return false;
    bool found = false;
    while (const dirent* entry = readdir(d)) {
        const std::string name = entry->d_name;
        if (name.size() > 3 && name.compare(name.size() - 3, 3, ".so") == 0) found = true;
    }
    closedir(d);
    return found;
}

// Tries to make a file in dir, which is what the log will do.
bool canWriteInto(const std::string& dir, std::string& why)
{
    const std::string probe = dir + "/.keldpxy-write-probe";
    const int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) {
        why = std::strerror(errno);
        return false;
    }
    close(fd);
    unlink(probe.c_str());
    return true;
}

// What would otherwise only show later, as every open failing with "fail
// to init sts" or a log that stays empty: reported once, at start.
void reportInstallProblems(ProxyLogger* plog)
{
    const std::string root = keldvRoot();
    struct stat st;
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        tellOperator(plog, STS_ESERROR,
                     ("install root " + root + " does not exist (KELDV_ROOT chooses another)").c_str());
        return;
    }
    const std::string plugins = keldvPath("lib/stsplugins");
    if (!hasPlugin(plugins)) {
        tellOperator(plog, STS_ESERROR, ("no storage plug-in in " + plugins + ": every open will fail").c_str());
    }
    const std::string logDir = keldvPath("keldrive/logs/keldpxy");
    std::string why;
    if (access(logDir.c_str(), F_OK) == 0 && !canWriteInto(logDir, why)) {
        tellOperator(plog, STS_ESERROR, ("log directory " + logDir + " cannot be written: " + why).c_str());
    }
}

void showUsage(ProxyLogger* plog)
{
    tellOperator(plog, STS_ESWARN, "Please run keldpxy [-start | -stop] [-exit n(minutes)] or no argument to start");
    tellOperator(plog, STS_ESWARN, "or keldpxy -start -ORBListenEndPoints iiop://`hostname`:10001");
}

// Signals the running services and waits a while for them to end, so that
// the operator learns of one that does not: it may still wait for its jobs,
// for up to an hour (see its log).
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
    const int waitSeconds = get_master_config_ptr()->STOP_COMMAND_WAIT_SECONDS;
    if (waitSeconds == 0) return;
    for (pid_t pid : handler.waitForEnd(std::chrono::seconds(waitSeconds))) {
        const std::string text = "proxy service " + std::to_string(pid) + " is still running " +
                                 std::to_string(waitSeconds) +
                                 " s after the stop signal; it may be waiting for its jobs "
                                 "(see its log), keldpxy -stop again ends it at once";
        tellOperator(plog, STS_ESWARN, text.c_str());
    }
}

// Runs the selected mode; returns the exit status of the common end.
int dispatch(ProxyLogger* plog, const CommandLine& cl, int& argc, char** argv)
{
    ProxyV9SVC proxy(argc, argv, plog, true, cl.bTimer, cl.interval, cl.serviceName,
                     cl.consoleMode);
    if (cl.isStart) {
        plog->logMsg(nullptr, szWho, STS_ESINFO, "start to run proxy service, interval is %d",
                     cl.interval);
        reportInstallProblems(plog);
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
    boundMallocArenas();   // before any thread
    // Settles the time zone while this is the only thread, so that the
    // localtime_r of a log line (on any thread) only reads it.
    tzset();
    // OpenSSL frees its locks at exit, while an ORB thread that has
    // decrypted a credential may still be ending: the process's end takes
    // them instead.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    // Lives to the end of the process, also past main's return: ORB
    // threads may still log while the process ends.
    static ProxyLogger* const plog = new ProxyLogger(1);
    // Under a service manager the journal is where an administrator looks
    // first: it gets the warnings and errors as well.
    setStderrEcho(ServiceNotify::underServiceManager());

    if (ProxyKeyMgr::getInstance(1024) == nullptr) {
        plog->logMsg(nullptr, szWho, STS_ESERROR, "ProxyKeyMgr::getInstance can't gen key pair");
        return -1;
    }
    std::vector<std::string> configWarnings;
    const int rc = KD_read_master_config(&configWarnings);
    if (rc != 0) {
        plog->logMsg(nullptr, szWho, STS_ESERROR, "fail to read VERBOSE setting, error code: %d", rc);
        return -1;
    }
    for (const std::string& warning : configWarnings) plog->logMsg(nullptr, szWho, STS_ESWARN, "%s", warning.c_str());
    VERBOSE = get_master_config_ptr()->VERBOSE;
    plog->logMsg(nullptr, szWho, STS_ESDEBUG, "VERBOSE setting: %d", VERBOSE);
    if (const int idle = get_master_config_ptr()->REMOTE_LOG_IDLE_SECONDS) {
        RemoteLoggerImpl::setIdleLimit(std::chrono::seconds(idle));
    }
    for (int i = 0; i < argc; ++i) {
        plog->logMsg(nullptr, szWho, STS_ESDEBUG, "argv[%d] = %s", i, argv[i]);
    }

    const CommandLine cl = parseCommandLine(argc, argv);
    if (cl.intervalClamped) {
        plog->logMsg(nullptr, szWho, STS_ESWARN,
                     "-exit asks for more than %ld minutes (a year), the idle interval is a year", kMaxIdleMinutes);
    }
    try {
        return dispatch(plog, cl, argc, argv);
    } catch (const CORBA::SystemException& e) {
        // The likeliest cause first, then what the ORB actually said.
        tellOperator(plog, STS_ESWARN,
                     "start proxy service failed, there might be another proxy service running in your host");
        tellOperator(plog, STS_ESERROR, ("the reason: " + Orb::describeFailure(e)).c_str());
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
