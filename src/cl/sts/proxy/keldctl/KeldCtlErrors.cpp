// The storage API carries numbers only.  Their meanings come from our
// framework, which knows its own and the service's and asks every loaded
// plug-in for the rest; only a hop of the proxy chain is named here too, by
// the address the chain given to keldctl holds.
#include "KeldCtlStorage.h"

#include "HopAddress.h"
#include "HopCause.h"
#include "sts_plugin.h"

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

} // namespace keldctl
