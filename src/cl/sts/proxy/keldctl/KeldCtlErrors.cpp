// The storage API carries numbers only.  Their meanings come from our
// framework, which knows its own and the service's and asks every loaded
// plug-in for the rest; only a hop of the proxy chain is named here too, by
// the address the chain given to keldctl holds.  Every failure ends here
// as one exit status and one line (or JSON object) on standard error.
#include "KeldCtlExit.h"
#include "KeldCtlOutput.h"
#include "KeldCtlPipeline.h"
#include "KeldCtlStorage.h"

#include "HopAddress.h"
#include "HopCause.h"
#include "sts_plugin.h"

#include <iostream>
#include <vector>

namespace keldctl {

std::string hopText(int number, const std::string& chain)
{
    if (number < REMOTE_EHOP || number > REMOTE_EHOP_LAST || chain.empty()) return "";
    const size_t place = static_cast<size_t>(REMOTE_EHOP_PLACE(number));
    const std::vector<std::string> hops = chainHops(chain);
    HopAddress address;
    if (place >= hops.size() || !firstHop(hops[place], address)) return "";
    return hopNumberText(number, address.text());
}

std::string errorText(int number, const std::string& chain)
{
    const std::string hop = hopText(number, chain);
    if (!hop.empty()) return hop;
    const char* text = stsm_error_text(number);
    return text != nullptr ? text : "unknown error";
}

namespace {

bool startsWith(const std::string& text, const std::string& head)
{
    return text.compare(0, head.size(), head) == 0;
}

const char* kindOf(int status)
{
    switch (status) {
    case EXIT_DONE: return "done";
    case EXIT_USAGE: return "usage";
    case EXIT_NOT_FOUND: return "not found";
    case EXIT_UNREACHABLE: return "unreachable";
    case EXIT_FAILED: return "failed";
    default: return "interrupted";
    }
}

struct Described {
    int status = EXIT_FAILED;
    std::string message;
    json details = json::object();   // what JSON mode adds to the message
};

Described describe(const std::exception_ptr& failure, const std::string& chain)
{
    try {
        std::rethrow_exception(failure);
    } catch (const Interrupted& e) {
        return {128 + e.signal(), e.what(), {{"signal", e.signal()}}};
    } catch (const StorageError& e) {
        const std::string meaning = e.meaning(chain);
        return {statusOfNumber(e.number(), meaning), e.describe(chain), {{"number", e.number()}, {"meaning", meaning}}};
    } catch (const Failure& e) {
        return {e.status(), e.what()};
    } catch (const std::exception& e) {
        return {EXIT_FAILED, e.what()};
    }
}

void printFailure(const Described& d, bool asJson)
{
    if (!asJson) {
        std::cerr << "keldctl: " << d.message << std::endl;
        return;
    }
    json error{{"error", d.message}, {"status", d.status}, {"kind", kindOf(d.status)}};
    error.update(d.details);
    std::cerr << error.dump(-1, ' ', false, json::error_handler_t::replace) << std::endl;
}

} // namespace

ExitStatus statusOfNumber(int number, const std::string& meaning)
{
    if (number == STS_ENO_MORE || number == STSP_ENOSERVER || startsWith(meaning, "no such ")) return EXIT_NOT_FOUND;
    const bool hop = number >= REMOTE_EHOP && number <= REMOTE_EHOP_LAST;
    if (hop || number == REMOTE_ELOST || meaning.find("cannot be reached") != std::string::npos) return EXIT_UNREACHABLE;
    return EXIT_FAILED;
}

int reportFailure(const std::exception_ptr& failure, bool asJson, const std::string& chain)
{
    const Described d = describe(failure, chain);
    printFailure(d, asJson);
    return d.status;
}

int reportFailure(ExitStatus status, const std::string& message, bool asJson)
{
    printFailure(Described{status, message}, asJson);
    return status;
}

} // namespace keldctl
