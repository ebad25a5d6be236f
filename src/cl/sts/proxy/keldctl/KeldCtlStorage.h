// keldctl's way into our storage framework: the table, one session (with
// the proxy chain in sd_proxy when one is given, so every call goes through
// the service) and the handles it opens, closed in reverse order.
#ifndef KELD_CLIENT_KELDCTLSTORAGE_H
#define KELD_CLIENT_KELDCTLSTORAGE_H

#include "sts_api.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace keldctl {

// A storage call that failed: what was being done and the storage API's
// number, with its meaning taken at once (the plug-in that knows it may be
// unloaded by the time the error is printed).  what() is the line keldctl
// prints; describe(chain) the same with a hop of the proxy chain named by
// its address.
class StorageError : public std::runtime_error {
public:
    StorageError(const std::string& doing, int number);
    int number() const { return m_number; }
    std::string describe(const std::string& chain) const;
    std::string meaning(const std::string& chain) const;   // the number's text alone

private:
    StorageError(const std::string& doing, int number, const std::string& text);
    std::string m_doing;
    int m_number;
    std::string m_text;
};

// The meaning of a storage API number, as the framework gives it while the
// plug-ins are loaded (its own numbers, the service's, each plug-in's); a
// hop that cannot be reached is named by its place and, from chain, its
// address.
std::string errorText(int number, const std::string& chain = "");
// Only that last case: the text of a hop number with the hop's address, or
// "" for another number or a hop the chain does not hold.
std::string hopText(int number, const std::string& chain);

// An image's state as its storage server reports it (imo_status, in the
// framework's numbers): only a complete one holds a whole backup.  "complete", "incomplete" (a put that
// did not finish, or one being written now), or the number.
bool isComplete(const sts_image_info_t& info);
bool isIncomplete(const sts_image_info_t& info);
std::string stateText(const sts_image_info_t& info);

// The open mode that reads an image (bit 2 would ask for writing).
const int OPEN_FOR_READING = 1;
// The number every list walk ends with.
const int END_OF_LIST = STS_ENO_MORE;

// An image as keldctl names it: "base", "base@date" or "base@date@fulldate",
// the last as `keldctl images` prints it.
struct ImageName {
    std::string base, date, fulldate;
    std::string text() const;
    bool full() const { return !date.empty() && !fulldate.empty(); }
    bool matches(const sts_image_def_t& def) const;   // the parts given match
};
ImageName parseImageName(const std::string& text);   // throws a usage error
ImageName nameOf(const sts_image_def_t& def);
sts_image_def_t imageDefinition(const ImageName& name);
// A new image's name: the base with today's date and this second's full date (UTC).
ImageName freshImageName(const std::string& base);

class Storage {
public:
    // Loads the plug-ins of $KELDV_ROOT/lib (or /usr/keldv/lib) and opens a
    // session; proxy is the chain "host[:port]#..." or "".  Plug-in log
    // lines go to standard error when verbose.
    Storage(const std::string& proxy, bool verbose);
    ~Storage();
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;

    sts_api_t* api() const { return m_api; }
    const sts_session_def_t& definition() const { return m_sd; }
    bool proxied() const { return m_sd.sd_proxy[0] != '\0'; }

    // Throws StorageError for a non-zero rc.
    static void check(int rc, const std::string& doing);

    // Every server the loaded plug-ins serve in the install root, in the
    // plug-ins' name order.
    std::vector<std::string> localServers() const;

    // Opens a server with the credential of $KELDCTL_CREDENTIAL (none when
    // unset); it stays open while this object lives.
    sts_handle_t openServer(const std::string& name);
    // Holds a handle until this object goes (or until closed with close()).
    sts_handle_t keep(sts_handle_t h);
    // Closes a kept handle now; returns the close's number.
    int close(sts_handle_t h);
    // Lets a kept handle go without closing it, where a close would do harm
    // (make a partial image complete).
    void forget(sts_handle_t h);

    sts_lsu_t lsu(sts_handle_t server, const std::string& name) const;
    std::vector<std::string> lsuNames(sts_handle_t server);
    std::vector<sts_image_def_t> images(const sts_lsu_t& lsu);
    sts_image_info_t imageInfo(const sts_lsu_t& lsu, const sts_image_def_t& def);

    // Which image a name stands for, with the dates left out.
    enum class Pick {
        Newest,           // the newest of that base name, in any state
        NewestComplete,   // the newest complete one
        Unique,           // exactly one may match
    };
    sts_image_def_t findImage(const sts_lsu_t& lsu, const std::string& name, Pick pick);

private:
    sts_api_t* m_api = nullptr;
    sts_session_def_t m_sd = {};
    std::string m_id;
    sts_handle_t m_session = nullptr;
    std::vector<sts_handle_t> m_open;   // in the order opened
};

} // namespace keldctl

#endif
