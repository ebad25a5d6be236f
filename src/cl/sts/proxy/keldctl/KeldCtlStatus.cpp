// keldctl status: is the service at the first hop up, which contract level
// it speaks (its manager's getString, which needs no session), and, when
// asked, what its metrics endpoint's /healthz says.  It asks the service's
// ORB directly, without the storage plug-ins, so that it answers even where
// none is installed.
#include "KeldCtlCommands.h"
#include "KeldCtlExit.h"
#include "KeldCtlOutput.h"

#include "HopAddress.h"
#include "HopCause.h"
#include "Proxy.hh"

#include <httplib.h>

#include <cerrno>
#include <iostream>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

namespace keldctl {

namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

namespace {

// Seconds a connection or an answer may take before status gives up.
const int CONNECT_SECONDS = 3;
const int ANSWER_SECONDS = 10;

struct ServiceAnswer {
    bool up = false;
    bool unreachable = false;   // rather than up and refusing
    std::string contract;   // "ZVS_VERSION=13"
    std::string problem;    // why not up
};

// Why a plain connection to the address fails, once a call did not get through.
HopCause probe(const HopAddress& address)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &found) != 0) {
        return HopCause::NoName;
    }
    HopCause cause = HopCause::Unknown;
    const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        const timeval limit{CONNECT_SECONDS, 0};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        if (connect(fd, found->ai_addr, found->ai_addrlen) != 0) {
            cause = errno == ECONNREFUSED                            ? HopCause::Refused
                    : errno == EHOSTUNREACH || errno == ENETUNREACH ? HopCause::NoRoute
                                                                    : HopCause::TimedOut;
        }
        close(fd);
    }
    freeaddrinfo(found);
    return cause;
}

ServiceAnswer askService(CORBA::ORB_ptr orb, const HopAddress& address)
{
    ServiceAnswer answer;
    try {
        CORBA::Object_var object = orb->string_to_object(address.managerLocation().c_str());
        API::StorageServerManager_var manager = API::StorageServerManager::_unchecked_narrow(object);
        CORBA::String_var text = manager->getString();
        answer.up = true;
        answer.contract = text.in();
    } catch (const CORBA::TRANSIENT&) {
        answer.unreachable = true;
    } catch (const CORBA::COMM_FAILURE&) {
        answer.unreachable = true;
    } catch (const CORBA::SystemException& e) {
        answer.problem = std::string("refused the call: CORBA::") + e._name();
    }
    if (answer.unreachable) answer.problem = "cannot be reached: " + hopCauseText(probe(address));
    return answer;
}

ServiceAnswer askService(const HopAddress& address)
{
    int argc = 0;
    const std::string connect = std::to_string(CONNECT_SECONDS * 1000), call = std::to_string(ANSWER_SECONDS * 1000);
    const char* options[][2] = {{"clientConnectTimeOutPeriod", connect.c_str()},
                                {"clientCallTimeOutPeriod", call.c_str()},
                                {nullptr, nullptr}};
    CORBA::ORB_var orb = CORBA::ORB_init(argc, nullptr, "omniORB4", options);
    const ServiceAnswer answer = askService(orb, address);
    orb->destroy();
    return answer;
}

struct Health {
    bool reached = false;
    int code = 0;
    std::string body, problem;
};

Health askHealth(const HopAddress& endpoint)
{
    httplib::Client client(endpoint.host, static_cast<int>(endpoint.port));
    client.set_connection_timeout(CONNECT_SECONDS, 0);
    client.set_read_timeout(ANSWER_SECONDS, 0);
    const httplib::Result result = client.Get("/healthz");
    Health health;
    if (!result) {
        health.problem = "cannot be reached: " + httplib::to_string(result.error());
        return health;
    }
    health.reached = true;
    health.code = result->status;
    health.body = result->body;
    while (!health.body.empty() && (health.body.back() == '\n' || health.body.back() == '\r')) health.body.pop_back();
    return health;
}

// "ZVS_VERSION=13" gives 13; -1 for a text of another form.
int contractLevel(const std::string& text)
{
    const size_t equals = text.find('=');
    if (equals == std::string::npos) return -1;
    try {
        return std::stoi(text.substr(equals + 1));
    } catch (const std::exception&) {
        return -1;
    }
}

HopAddress parseAddress(const std::string& text, const char* what, bool portRequired)
{
    HopAddress address;
    const bool hasPort = text.find(':') != std::string::npos;
    if (!firstHop(text, address) || (portRequired && !hasPort)) {
        throw usageError(std::string("bad ") + what + " \"" + text + "\": give HOST:PORT");
    }
    return address;
}

json statusJson(const HopAddress& proxy, const ServiceAnswer& service, const HopAddress* metrics, const Health& health)
{
    json out{{"proxy", proxy.text()}, {"up", service.up}};
    if (service.up) {
        out["contract"] = contractLevel(service.contract);
        out["contract_text"] = service.contract;
    } else {
        out["problem"] = service.problem;
    }
    if (metrics == nullptr) {
        out["metrics"] = "not asked";
    } else if (!health.reached) {
        out["metrics"] = json{{"endpoint", metrics->text()}, {"problem", health.problem}};
    } else {
        out["metrics"] = json{{"endpoint", metrics->text()}, {"status", health.code}, {"healthz", health.body}};
    }
    return out;
}

void printStatus(const HopAddress& proxy, const ServiceAnswer& service, const HopAddress* metrics, const Health& health)
{
    std::vector<std::pair<std::string, std::string>> fields;
    fields.emplace_back("proxy", proxy.text() + (service.up ? " up" : " down: " + service.problem));
    fields.emplace_back("contract", service.up ? std::to_string(contractLevel(service.contract)) + " (" +
                                                     service.contract + ")"
                                               : "unknown");
    std::string healthText = "not asked";
    if (metrics != nullptr) {
        healthText = metrics->text() + " /healthz " +
                     (health.reached ? std::to_string(health.code) + " " + health.body : health.problem);
    }
    fields.emplace_back("metrics", healthText);
    printFields(fields);
}

} // namespace

int showStatus(const Context& ctx, const std::string& metricsEndpoint)
{
    if (ctx.proxy.empty()) throw usageError("status asks the proxy service: give --proxy or set KELDCTL_PROXY");
    const HopAddress proxy = parseAddress(chainHops(ctx.proxy).front(), "proxy", false);
    const HopAddress metrics = metricsEndpoint.empty() ? HopAddress{} : parseAddress(metricsEndpoint, "metrics endpoint", true);
    const HopAddress* asked = metricsEndpoint.empty() ? nullptr : &metrics;

    const ServiceAnswer service = askService(proxy);
    const Health health = asked != nullptr ? askHealth(metrics) : Health{};
    if (ctx.json) {
        printJson(statusJson(proxy, service, asked, health));
    } else {
        printStatus(proxy, service, asked, health);
    }
    if (service.unreachable || (asked != nullptr && !health.reached)) return EXIT_UNREACHABLE;
    return !service.up || (asked != nullptr && health.code != 200) ? EXIT_FAILED : EXIT_DONE;
}

} // namespace keldctl
