#include "SentraNetParse.h"

#include "KeldvPaths.h"
#include "KeyValueFile.h"

#include <arpa/inet.h>
#include <chrono>
#include <fstream>
#include <netdb.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <vector>

namespace {

const long long kRereadAfterMs = 5 * 60 * 1000;

long long nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string numericOf(const sockaddr* sa)
{
    char text[INET6_ADDRSTRLEN] = {0};
    if (sa->sa_family == AF_INET) {
        const sockaddr_in* in4 = reinterpret_cast<const sockaddr_in*>(sa);
        inet_ntop(AF_INET, &in4->sin_addr, text, sizeof(text));
    } else if (sa->sa_family == AF_INET6) {
        const sockaddr_in6* in6 = reinterpret_cast<const sockaddr_in6*>(sa);
        if (IN6_IS_ADDR_V4MAPPED(&in6->sin6_addr)) {
            inet_ntop(AF_INET, &in6->sin6_addr.s6_addr[12], text, sizeof(text));
        } else {
            inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof(text));
        }
    }
    return text;
}

// Every address of one entry: a numeric address as it stands, a name as
// the resolver gives it today.
void addAddressesOf(const std::string& entry, std::set<std::string>& out)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(entry.c_str(), nullptr, &hints, &found) != 0) return;
    for (addrinfo* ai = found; ai != nullptr; ai = ai->ai_next) {
        const std::string text = numericOf(ai->ai_addr);
        if (!text.empty()) out.insert(text);
    }
    freeaddrinfo(found);
}

} // namespace

bool SentraNetParse::Stamp::operator==(const Stamp& o) const
{
    return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
           mtimeNs == o.mtimeNs;
}

SentraNetParse::SentraNetParse() : SentraNetParse(defaultPath()) {}

SentraNetParse::SentraNetParse(std::string path) : m_path(std::move(path)) {}

std::string SentraNetParse::defaultPath()
{
    return keldvPath("keldrive/servers");
}

std::string SentraNetParse::numericAddress(const ACE_INET_Addr& addr)
{
    return numericOf(static_cast<const sockaddr*>(addr.get_addr()));
}

SentraNetParse::Stamp SentraNetParse::stampNow() const
{
    Stamp stamp;
    struct stat st;
    if (::stat(m_path.c_str(), &st) != 0) return stamp;
    stamp.exists = true;
    stamp.dev = st.st_dev;
    stamp.ino = st.st_ino;
    stamp.size = st.st_size;
    stamp.mtimeNs = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
    return stamp;
}

std::shared_ptr<const SentraNetParse::Addresses> SentraNetParse::load() const
{
    auto addresses = std::make_shared<Addresses>();
    std::ifstream in(m_path);
    std::stringstream text;
    text << in.rdbuf();
    // The list has no names and values: each line's whole text is a list of
    // entries.  A line too long to be one ends the list where it stands.
    std::vector<KeyValueLine> lines;
    std::string tooLong;
    readKeyValueText(text.str(), KeyValueSyntax{true}, lines, tooLong);
    for (const KeyValueLine& line : lines) {
        std::istringstream words(line.text);
        std::string entry;
        while (words >> entry) addAddressesOf(entry, *addresses);
    }
    return addresses;
}

std::shared_ptr<const SentraNetParse::Addresses> SentraNetParse::current()
{
    const Stamp stamp = stampNow();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_addresses && stamp == m_stamp && nowMs() - m_loadedAtMs < kRereadAfterMs)
            return m_addresses;
    }
    // Resolving may wait on the network: other connections go on being
    // judged by the list they have.  Two threads may both read; the later wins.
    std::shared_ptr<const Addresses> fresh = load();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_addresses = fresh;
    m_stamp = stamp;
    m_loadedAtMs = nowMs();
    return fresh;
}

bool SentraNetParse::isInServerListCached(const ACE_INET_Addr& peer)
{
    const std::string address = numericAddress(peer);
    if (address.empty()) return false;
    std::shared_ptr<const Addresses> servers = current();
    return servers->count(address) != 0;
}
