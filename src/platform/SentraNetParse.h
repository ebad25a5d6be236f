// The servers of the product's domain, read from <root>/keldrive/servers:
// host names or numeric addresses, separated by blanks or lines; '#' starts a
// comment.  A peer is a known server when its address is one of theirs.
//
// Names are resolved when the file is read, and it is read again when it
// changes (or is removed) and every five minutes, so that both the
// operator's edits and moved names take effect without a restart.  A name
// that does not resolve is skipped until the next reading.
#ifndef KELD_PLATFORM_SENTRANETPARSE_H
#define KELD_PLATFORM_SENTRANETPARSE_H

#include <ace/INET_Addr.h>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <sys/types.h>

class SentraNetParse {
public:
    SentraNetParse();                            // the file under the install root
    explicit SentraNetParse(std::string path);
    SentraNetParse(const SentraNetParse&) = delete;
    SentraNetParse& operator=(const SentraNetParse&) = delete;

    // Safe to call from many threads; no reverse lookup of the peer is made.
    bool isInServerListCached(const ACE_INET_Addr& peer);

    static std::string defaultPath();
    // The numeric text of an address; an IPv4 address mapped into IPv6 is
    // given in its IPv4 form, so that both forms compare equal.
    static std::string numericAddress(const ACE_INET_Addr& addr);

private:
    struct Stamp {
        bool exists = false;
        dev_t dev = 0;
        ino_t ino = 0;
        off_t size = 0;
        long long mtimeNs = 0;
        bool operator==(const Stamp& o) const;
    };
    typedef std::set<std::string> Addresses;

    std::shared_ptr<const Addresses> current();
    Stamp stampNow() const;
    std::shared_ptr<const Addresses> load() const;

    const std::string m_path;
    std::mutex m_mutex;   // guards the three below, never held while reading or resolving
    Stamp m_stamp;
    long long m_loadedAtMs = 0;
    std::shared_ptr<const Addresses> m_addresses;
};

#endif
