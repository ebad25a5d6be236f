#include "KeldCtlStorage.h"
#include "KeldCtlExit.h"

#include "KeldvPaths.h"
#include "sts_plugin.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace keldctl {

namespace {

template <size_t N>
void copyField(char (&field)[N], const std::string& text)
{
    std::snprintf(field, N, "%s", text.c_str());
}

void logToStderr(const char* who, const char* msg, sts_severity_t sev)
{
    static const char* const names[] = {"", "info", "warning", "debug", "error", "critical"};
    const char* level = sev >= STS_ESNONE && sev <= STS_ESCRITICAL ? names[sev] : "?";
    std::fprintf(stderr, "keldctl: [%s] %s: %s\n", level, who != nullptr ? who : "", msg != nullptr ? msg : "");
}

// Unique per run, so that the service never takes this session for an
// earlier one and answers its calls from that one's records.
std::string sessionId()
{
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    return "keldctl-" + std::string(host) + "-" + std::to_string(getpid()) + "-" +
           std::to_string(static_cast<long long>(std::time(nullptr)));
}

bool olderThan(const sts_image_def_t& a, const sts_image_def_t& b)
{
    const int byDate = std::strcmp(a.img_date, b.img_date);
    return byDate != 0 ? byDate < 0 : std::strcmp(a.img_fulldate, b.img_fulldate) < 0;
}

} // namespace

StorageError::StorageError(const std::string& doing, int number) : StorageError(doing, number, errorText(number))
{
}

StorageError::StorageError(const std::string& doing, int number, const std::string& text)
    : std::runtime_error(doing + " failed: " + std::to_string(number) + " " + text),
      m_doing(doing),
      m_number(number),
      m_text(text)
{
}

std::string StorageError::describe(const std::string& chain) const
{
    return m_doing + " failed: " + std::to_string(m_number) + " " + meaning(chain);
}

std::string StorageError::meaning(const std::string& chain) const
{
    const std::string hop = hopText(m_number, chain);
    return hop.empty() ? m_text : hop;
}

bool isComplete(const sts_image_info_t& info)
{
    return info.imo_status == STSP_IMAGE_COMPLETE;
}

bool isIncomplete(const sts_image_info_t& info)
{
    return info.imo_status == STSP_IMAGE_INCOMPLETE;
}

std::string stateText(const sts_image_info_t& info)
{
    if (isComplete(info)) return "complete";
    if (isIncomplete(info)) return "incomplete";
    return std::to_string(info.imo_status);
}

std::string ImageName::text() const
{
    std::string t = base;
    if (!date.empty() || !fulldate.empty()) t += "@" + date;
    if (!fulldate.empty()) t += "@" + fulldate;
    return t;
}

bool ImageName::matches(const sts_image_def_t& def) const
{
    return base == def.img_basename && (date.empty() || date == def.img_date) &&
           (fulldate.empty() || fulldate == def.img_fulldate);
}

ImageName parseImageName(const std::string& text)
{
    ImageName n;
    const size_t first = text.find('@');
    n.base = text.substr(0, first);
    if (first != std::string::npos) {
        const size_t second = text.find('@', first + 1);
        n.date = text.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1);
        if (second != std::string::npos) n.fulldate = text.substr(second + 1);
    }
    const bool fits = n.base.size() < sizeof(sts_image_name_v7_t) && n.date.size() < sizeof(sts_date_v7_t) &&
                      n.fulldate.size() < sizeof(sts_date_v7_t);
    if (n.base.empty() || !fits || n.fulldate.find('@') != std::string::npos) {
        throw usageError("bad image name \"" + text + "\": give base, base@date or base@date@fulldate");
    }
    return n;
}

ImageName nameOf(const sts_image_def_t& def)
{
    return ImageName{def.img_basename, def.img_date, def.img_fulldate};
}

sts_image_def_t imageDefinition(const ImageName& name)
{
    sts_image_def_t def;
    std::memset(&def, 0, sizeof(def));
    def.version = 10;
    copyField(def.img_basename, name.base);
    copyField(def.img_date, name.date);
    copyField(def.img_fulldate, name.fulldate);
    return def;
}

ImageName freshImageName(const std::string& base)
{
    ImageName n = parseImageName(base);
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char day[16], second[32];
    std::strftime(day, sizeof(day), "%Y%m%d", &utc);
    std::strftime(second, sizeof(second), "%Y%m%dT%H%M%S", &utc);
    if (n.date.empty()) n.date = day;
    if (n.fulldate.empty()) n.fulldate = second;
    return n;
}

Storage::Storage(const std::string& proxy, bool verbose)
{
    if (proxy.size() >= sizeof(m_sd.sd_proxy)) throw usageError("the proxy chain is too long");
    const std::string lib = keldvPath("lib");
    check(stsm_init(STS_VERSION, lib.c_str(), &m_api), "loading the storage plug-ins of " + lib);
    m_id = sessionId();
    copyField(m_sd.sd_proxy, proxy);
    m_sd.sd_id = m_id.c_str();
    if (verbose) {
        m_sd.sd_log = logToStderr;
        m_sd.sd_flags = 0xF;
    }
    const int rc = m_api->stsa_open_session(&m_sd, &m_session);
    if (rc != 0) {
        stsm_terminate();
        m_api = nullptr;
        check(rc, "opening a session");
    }
}

Storage::~Storage()
{
    if (m_api == nullptr) return;
    for (auto it = m_open.rbegin(); it != m_open.rend(); ++it) m_api->stsa_close_handle(*it, 0);
    m_api->stsa_close_handle(m_session, 0);
    stsm_terminate();
}

void Storage::check(int rc, const std::string& doing)
{
    if (rc != 0) throw StorageError(doing, rc);
}

std::vector<std::string> Storage::localServers() const
{
    std::vector<std::string> names;
    auto collect = [](const char* name, void* out) { static_cast<std::vector<std::string>*>(out)->emplace_back(name); };
    const std::string root = keldvRoot();
    check(stsm_list_servers(root.c_str(), collect, &names), "listing the servers of " + root);
    return names;
}

sts_handle_t Storage::openServer(const std::string& name)
{
    sts_cred_t cred;
    std::memset(&cred, 0, sizeof(cred));
    if (const char* secret = std::getenv("KELDCTL_CREDENTIAL")) {
        copyField(cred.cr_cert, secret);
        cred.cr_len = static_cast<sts_uint32_t>(std::strlen(cred.cr_cert));
    }
    sts_handle_t h = nullptr;
    check(m_api->stsa_open_server(m_session, name.c_str(), &cred, "", &h), "opening server " + name);
    return keep(h);
}

sts_handle_t Storage::keep(sts_handle_t h)
{
    m_open.push_back(h);
    return h;
}

int Storage::close(sts_handle_t h)
{
    const auto it = std::find(m_open.begin(), m_open.end(), h);
    if (it == m_open.end()) return 0;
    m_open.erase(it);
    return m_api->stsa_close_handle(h, 0);
}

void Storage::forget(sts_handle_t h)
{
    m_open.erase(std::remove(m_open.begin(), m_open.end(), h), m_open.end());
    // Never closed, but kept where the process can still reach it until it
    // exits: a handle let go of is a leak, not a decision.
    static auto* const forgotten = new std::vector<sts_handle_t>;
    forgotten->push_back(h);
}

sts_lsu_t Storage::lsu(sts_handle_t server, const std::string& name) const
{
    if (name.empty() || name.size() >= sizeof(sts_lsu_name_t)) throw usageError("bad LSU name \"" + name + "\"");
    sts_lsu_t l;
    std::memset(&l, 0, sizeof(l));
    l.stl_server_handle = server;
    copyField(l.stl_lsu_name.sln_name, name);
    return l;
}

std::vector<std::string> Storage::lsuNames(sts_handle_t server)
{
    sts_lsu_def_t all;
    std::memset(&all, 0, sizeof(all));
    sts_handle_t list = nullptr;
    check(m_api->stsa_open_lsu_list(server, &all, &list), "opening the LSU list");
    keep(list);
    std::vector<std::string> names;
    sts_lsu_name_t name;
    int rc = 0;
    while ((rc = m_api->stsa_list_lsu(list, &name)) == 0) names.emplace_back(name.sln_name);
    close(list);
    if (rc != END_OF_LIST) check(rc, "listing LSUs");
    return names;
}

std::vector<sts_image_def_t> Storage::images(const sts_lsu_t& lsu)
{
    sts_handle_t list = nullptr;
    check(m_api->stsa_open_image_list(&lsu, 0, &list), std::string("opening the image list of ") + lsu.stl_lsu_name.sln_name);
    keep(list);
    std::vector<sts_image_def_t> defs;
    sts_image_def_t def;
    int rc = 0;
    while ((rc = m_api->stsa_list_image(list, &def)) == 0) defs.push_back(def);
    close(list);
    if (rc != END_OF_LIST) check(rc, "listing images");
    return defs;
}

sts_image_info_t Storage::imageInfo(const sts_lsu_t& lsu, const sts_image_def_t& def)
{
    sts_image_info_t info;
    std::memset(&info, 0, sizeof(info));
    check(m_api->stsa_get_image_prop_byname(&lsu, &def, &info), "reading image " + nameOf(def).text());
    return info;
}

sts_image_def_t Storage::findImage(const sts_lsu_t& lsu, const std::string& text, Pick pick)
{
    const ImageName wanted = parseImageName(text);
    std::vector<sts_image_def_t> found;
    for (const sts_image_def_t& def : images(lsu)) {
        if (wanted.matches(def)) found.push_back(def);
    }
    if (found.empty()) throw StorageError("finding image " + text, STS_ENO_MORE);
    if (pick == Pick::Unique && found.size() > 1) {
        throw std::runtime_error(std::to_string(found.size()) + " images are named " + text +
                                 "; give it as base@date@fulldate (see keldctl images)");
    }
    std::sort(found.begin(), found.end(), olderThan);
    if (pick != Pick::NewestComplete) return found.back();
    for (auto it = found.rbegin(); it != found.rend(); ++it) {
        if (isComplete(imageInfo(lsu, *it))) return *it;
    }
    throw std::runtime_error("none of the " + std::to_string(found.size()) + " images named " + text +
                             " is complete (keldctl images shows their state)");
}

} // namespace keldctl
