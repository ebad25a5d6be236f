#include "OrbArguments.h"

#include <sstream>
#include <stdexcept>
#include <strings.h>

namespace {

const char* const kOrbPrefix = "-ORB";
const char* const kIiopScheme = "iiop://";
const char* const kSslIiopScheme = "ssliop://";
const char* const kNativeEndpoint = "-ORBendPoint";

bool equalsNoCase(const std::string& a, const char* b)
{
    return ::strcasecmp(a.c_str(), b) == 0;
}

bool startsWithNoCase(const std::string& s, const char* prefix)
{
    size_t n = std::char_traits<char>::length(prefix);
    return s.size() >= n && ::strncasecmp(s.c_str(), prefix, n) == 0;
}

// Operators type the ORB options in any case ("-orblistenendpoints").
bool isOrbWord(const char* word)
{
    return word != nullptr && startsWithNoCase(word, kOrbPrefix);
}

// Options of the ORB underneath that open a listening socket.
bool isNativeListenOption(const std::string& option)
{
    return option == "-ORBendPoint" || option == "-ORBendPointNoPublish";
}

// "1.2@host:port/opt=v" -> "host:port": the GIOP version and the per
// endpoint options of the iiop form have no counterpart and are dropped.
std::string bareAddress(const std::string& address)
{
    std::string bare = address;
    size_t at = bare.find('@');
    if (at != std::string::npos) bare.erase(0, at + 1);
    size_t slash = bare.find('/');
    if (slash != std::string::npos) bare.erase(slash);
    return bare;
}

std::string giopEndpoint(const std::string& address, const char* transport = "giop:tcp:")
{
    std::string bare = bareAddress(address);
    // "host" alone, "[v6]" alone or nothing: any port.
    size_t colon = bare.rfind(':');
    size_t bracket = bare.rfind(']');
    bool hasPort = colon != std::string::npos &&
                   (bracket == std::string::npos || colon > bracket);
    return transport + (hasPort ? bare : bare + ":");
}

bool isListenUrl(const std::string& value)
{
    return startsWithNoCase(value, kIiopScheme) || startsWithNoCase(value, kSslIiopScheme);
}

void appendEndpoints(std::vector<std::string>& out, const std::string& value)
{
    std::istringstream urls(value);
    std::string url;
    while (urls >> url)
        for (const std::string& endpoint : translateIiopUrl(url)) {
            out.push_back(kNativeEndpoint);
            out.push_back(endpoint);
        }
}

} // namespace

std::vector<std::string> extractOrbArguments(int& argc, char** argv)
{
    std::vector<std::string> orbWords;
    int kept = argc > 0 ? 1 : 0;
    for (int i = kept; i < argc; ++i) {
        if (!isOrbWord(argv[i])) {
            argv[kept++] = argv[i];
            continue;
        }
        orbWords.emplace_back(argv[i]);
        if (i + 1 < argc) orbWords.emplace_back(argv[++i]);
    }
    argc = kept;
    argv[argc] = nullptr;
    return orbWords;
}

std::vector<std::string> keepKnownOptions(const std::vector<std::string>& words,
                                          const std::function<std::string(const std::string&)>& spellingOf,
                                          std::vector<std::string>& passedOver)
{
    std::vector<std::string> kept;
    for (size_t i = 0; i + 1 < words.size(); i += 2) {
        const std::string spelling = spellingOf(words[i]);
        if (spelling.empty()) {
            passedOver.push_back(words[i] + " " + words[i + 1]);
            continue;
        }
        kept.push_back(spelling);
        kept.push_back(words[i + 1]);
    }
    return kept;
}

std::vector<std::string> translateIiopUrl(const std::string& url)
{
    // The TLS form travels over omniORB's SSL transport.
    const bool ssl = startsWithNoCase(url, kSslIiopScheme);
    if (!ssl && !startsWithNoCase(url, kIiopScheme))
        throw std::invalid_argument("listen endpoint '" + url +
                                    "' is not an iiop:// or ssliop:// address");
    const char* transport = ssl ? "giop:ssl:" : "giop:tcp:";
    std::vector<std::string> endpoints;
    std::string rest = url.substr(std::char_traits<char>::length(ssl ? kSslIiopScheme : kIiopScheme));
    std::istringstream addresses(rest);
    std::string address;
    while (std::getline(addresses, address, ';'))
        if (!address.empty()) endpoints.push_back(giopEndpoint(address, transport));
    // "iiop://" alone: every interface, a port of the system's choosing.
    if (endpoints.empty()) endpoints.push_back(giopEndpoint("", transport));
    return endpoints;
}

std::vector<std::string> translateOrbArguments(const std::vector<std::string>& orbWords)
{
    std::vector<std::string> out;
    bool listens = false;
    for (size_t i = 0; i < orbWords.size(); i += 2) {
        const std::string& option = orbWords[i];
        if (i + 1 >= orbWords.size())
            throw std::invalid_argument("ORB option " + option + " needs a value");
        const std::string& value = orbWords[i + 1];
        bool iiopForm = equalsNoCase(option, "-ORBListenEndpoints") ||
                        (equalsNoCase(option, "-ORBEndpoint") && isListenUrl(value));
        if (iiopForm) {
            appendEndpoints(out, value);
            listens = true;
            continue;
        }
        listens = listens || isNativeListenOption(option);
        out.push_back(option);
        out.push_back(value);
    }
    if (!listens) {
        out.push_back(kNativeEndpoint);
        out.push_back("giop:tcp::" + std::to_string(kDefaultOrbPort));
    }
    return out;
}
