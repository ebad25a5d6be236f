// keldctl servers, lsus, images and info.
#include "KeldCtlCommands.h"
#include "KeldCtlOutput.h"
#include "KeldCtlStorage.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace keldctl {

namespace {

std::string hex(std::uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

// The filled entries of a fixed array of names.
template <size_t N, size_t L>
std::vector<std::string> names(const char (&array)[N][L])
{
    std::vector<std::string> out;
    for (size_t i = 0; i < N && array[i][0] != '\0'; ++i) out.emplace_back(array[i], strnlen(array[i], L));
    return out;
}

std::string joined(const std::vector<std::string>& parts)
{
    std::string out;
    for (const std::string& p : parts) out += (out.empty() ? "" : ",") + p;
    return out;
}

// The host of the last hop of a chain, when it is a name and not an address.
std::string lastHopHostName(const std::string& chain)
{
    std::string hop = chain.substr(chain.rfind('#') == std::string::npos ? 0 : chain.rfind('#') + 1);
    if (hop.empty() || hop[0] == '[') return "";
    hop = hop.substr(0, hop.find(':'));
    const bool numeric = std::all_of(hop.begin(), hop.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)) || c == '.'; });
    return numeric || hop == "localhost" ? "" : hop;
}

std::string thisHostName()
{
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    return host;
}

// The servers the plug-ins serve in the install root.  Through a proxy they
// are asked at the far end, where a server named after this host may be
// named after the last hop's host instead: those names are asked too.
std::vector<std::string> candidateServers(const Storage& st, const Context& ctx)
{
    std::vector<std::string> out = st.localServers();
    const std::string here = ":" + thisHostName(), far = lastHopHostName(ctx.proxy);
    if (far.empty() || ":" + far == here) return out;
    for (size_t i = 0, local = out.size(); i < local; ++i) {
        const std::string name = out[i];
        if (name.size() <= here.size() || name.compare(name.size() - here.size(), here.size(), here) != 0) continue;
        const std::string there = name.substr(0, name.size() - here.size() + 1) + far;
        if (std::find(out.begin(), out.end(), there) == out.end()) out.push_back(there);
    }
    return out;
}

json serverJson(const sts_server_info_t& info)
{
    return json{{"server", fieldText(info.srv_server)},
                {"stream_formats", names(info.srv_sth)},
                {"interfaces", names(info.srv_interface)},
                {"flags", info.srv_flags},
                {"max_connections", info.srv_maxconnect},
                {"connections", info.srv_nconnect}};
}

json lsuJson(const sts_lsu_info_t& info)
{
    const sts_lsu_def_t& d = info.lsu_def;
    return json{{"lsu", fieldText(d.sld_name.sln_name)},
                {"server", fieldText(info.lsu_server)},
                {"label", fieldText(d.sld_label)},
                {"description", fieldText(d.sld_description)},
                {"images", info.lsu_images},
                {"used", info.lsu_used},
                {"used_physical", info.lsu_used_phys},
                {"capacity", info.lsu_capacity},
                {"capacity_physical", info.lsu_capacity_phys},
                {"max_transfer", d.sld_max_transfer},
                {"block_size", d.sld_block_size},
                {"flags", d.sld_flags}};
}

json imageJson(const sts_image_info_t& info)
{
    const sts_image_def_t& d = info.imo_def;
    return json{{"image", nameOf(d).text()},
                {"base", fieldText(d.img_basename)},
                {"date", fieldText(d.img_date)},
                {"fulldate", fieldText(d.img_fulldate)},
                {"policy", fieldText(d.img_policy)},
                {"server", fieldText(info.imo_server)},
                {"lsu", fieldText(info.imo_lsu.sln_name)},
                {"size", info.imo_size},
                {"block_size", info.imo_block_size},
                {"state", stateText(info)}};
}

sts_lsu_info_t lsuInfo(Storage& st, const sts_lsu_t& lsu)
{
    sts_lsu_info_t info;
    std::memset(&info, 0, sizeof(info));
    Storage::check(st.api()->stsa_get_lsu_prop_byname(&lsu, &info), std::string("reading LSU ") + lsu.stl_lsu_name.sln_name);
    return info;
}

// Prints a JSON object as aligned fields, skipping what is empty.
void printObject(const json& object)
{
    std::vector<std::pair<std::string, std::string>> fields;
    for (auto it = object.begin(); it != object.end(); ++it) {
        std::string value = it->is_string() ? it->get<std::string>() : it->dump();
        if (it->is_array()) value = joined(it->get<std::vector<std::string>>());
        if (!value.empty()) fields.emplace_back(it.key(), value);
    }
    printFields(fields);
}

} // namespace

int listServers(const Context& ctx, const std::vector<std::string>& requested)
{
    Storage st(ctx.proxy, ctx.verbose);
    const std::vector<std::string> candidates = requested.empty() ? candidateServers(st, ctx) : requested;
    json all = json::array();
    Table table({"SERVER", "FORMAT", "INTERFACE", "CONNECTIONS", "FLAGS"}, {false, false, false, true, true});
    for (const std::string& name : candidates) {
        sts_server_info_t info;
        std::memset(&info, 0, sizeof(info));
        const int rc = st.api()->stsa_get_server_prop_byname(&st.definition(), name.c_str(), &info);
        if (rc != 0) {
            // Asked for by name: the answer matters.  Guessed: a miss is no news.
            if (!requested.empty()) Storage::check(rc, "reading server " + name);
            if (ctx.verbose) std::fprintf(stderr, "keldctl: %s: %d %s\n", name.c_str(), rc, errorText(rc).c_str());
            continue;
        }
        all.push_back(serverJson(info));
        table.add({fieldText(info.srv_server), joined(names(info.srv_sth)), joined(names(info.srv_interface)),
                   std::to_string(info.srv_nconnect) + "/" + std::to_string(info.srv_maxconnect), hex(info.srv_flags)});
    }
    if (ctx.json) {
        printJson(all);
    } else {
        table.print();
    }
    return 0;
}

int listLsus(const Context& ctx, const std::string& server)
{
    Storage st(ctx.proxy, ctx.verbose);
    const sts_handle_t h = st.openServer(server);
    json all = json::array();
    Table table({"LSU", "IMAGES", "USED", "CAPACITY", "LABEL", "DESCRIPTION"}, {false, true, true, true});
    for (const std::string& name : st.lsuNames(h)) {
        const sts_lsu_info_t info = lsuInfo(st, st.lsu(h, name));
        all.push_back(lsuJson(info));
        table.add({name, std::to_string(info.lsu_images), humanBytes(info.lsu_used), humanBytes(info.lsu_capacity),
                   fieldText(info.lsu_def.sld_label), fieldText(info.lsu_def.sld_description)});
    }
    if (ctx.json) {
        printJson(all);
    } else {
        table.print();
    }
    return 0;
}

int listImages(const Context& ctx, const std::string& server, const std::string& lsuName)
{
    Storage st(ctx.proxy, ctx.verbose);
    const sts_lsu_t lsu = st.lsu(st.openServer(server), lsuName);
    json all = json::array();
    Table table({"IMAGE", "SIZE", "STATE"}, {false, true, false});
    for (const sts_image_def_t& def : st.images(lsu)) {
        const sts_image_info_t info = st.imageInfo(lsu, def);
        all.push_back(imageJson(info));
        table.add({nameOf(def).text(), humanBytes(info.imo_size), stateText(info)});
    }
    if (ctx.json) {
        printJson(all);
    } else {
        table.print();
    }
    return 0;
}

int showInfo(const Context& ctx, const std::string& server, const std::string& lsuName, const std::string& image)
{
    Storage st(ctx.proxy, ctx.verbose);
    const sts_handle_t h = st.openServer(server);
    json object;
    if (lsuName.empty()) {
        sts_server_info_t info;
        std::memset(&info, 0, sizeof(info));
        Storage::check(st.api()->stsa_get_server_prop(h, &info), "reading server " + server);
        object = serverJson(info);
        object["lsus"] = st.lsuNames(h);
    } else if (image.empty()) {
        object = lsuJson(lsuInfo(st, st.lsu(h, lsuName)));
    } else {
        const sts_lsu_t lsu = st.lsu(h, lsuName);
        object = imageJson(st.imageInfo(lsu, st.findImage(lsu, image, Storage::Pick::Newest)));
    }
    if (ctx.json) {
        printJson(object);
    } else {
        printObject(object);
    }
    return 0;
}

} // namespace keldctl
