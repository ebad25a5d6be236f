// The RADOS plug-in's LSU slots: lists, properties, labels, lookup and
// deletion, all from the server's index object.  LSUs are made by the
// operator's keldv-rados: the storage API has no call that creates one.
#include "ListSlots.h"
#include "RadosPluginParts.h"

#include <cstring>

using namespace radosstore;

namespace radosplugin {

namespace {

// How this plug-in finds the LSUs of a server, for the shared list slots.
struct LsuLists {
    using Server = radosplugin::Server;
    static constexpr int BAD_ARGUMENT = RADOS_EINVAL;
    static constexpr int NO_MEMORY = RADOS_EIO;
    static int lsuNames(const Server* s, std::vector<std::string>& names)
    {
        const int rc = radosstore::listLsus(*s->cluster, s->config.name, names);
        return rc == 0 ? 0 : failure(s->session, "listing LSUs", rc);
    }
};

int getLsuProp(const sts_lsu_t* lsu, sts_lsu_info_t* info)
{
    if (info == nullptr) return RADOS_EINVAL;
    const int checked = checkLsu(lsu);
    if (checked != 0) return checked;
    const Server* s = serverOf(lsu);
    const std::string name = lsu->stl_lsu_name.sln_name;
    LsuRecord record;
    LsuUsage usage;
    int rc = readLsu(*s->cluster, s->config.name, name, record);
    if (rc == 0) rc = lsuUsage(*s->cluster, s->config.name, name, usage);
    if (rc != 0) return failure(s->session, "reading LSU " + name, rc);
    std::memset(info, 0, sizeof(*info));
    copyOut(info->lsu_server, s->serverName, sizeof(info->lsu_server));
    copyOut(info->lsu_def.sld_name.sln_name, name, sizeof(info->lsu_def.sld_name.sln_name));
    copyOut(info->lsu_def.sld_label, record.label, sizeof(info->lsu_def.sld_label));
    info->lsu_def.sld_alloc = STS_LSU_AT_DYNAMIC;
    info->lsu_def.sld_storage = STS_LSU_ST_NONE;
    info->lsu_def.sld_max_transfer = 64u << 20;
    info->lsu_def.sld_block_size = 4096;
    info->lsu_capacity = info->lsu_capacity_phys =
        record.quota > 0 ? record.quota : capacity(*s->cluster, s->config.pool);
    info->lsu_used = info->lsu_used_phys = usage.bytes;
    info->lsu_images = usage.images;
    return 0;
}

int labelLsu(const sts_lsu_t* lsu, char* label)
{
    if (label == nullptr || std::strlen(label) >= sizeof(sts_lsu_label_t)) return RADOS_EINVAL;
    const int checked = checkLsu(lsu);
    if (checked != 0) return checked;
    const Server* s = serverOf(lsu);
    const int rc = setLsuLabel(*s->cluster, s->config.name, lsu->stl_lsu_name.sln_name, label);
    return rc == 0 ? 0 : failure(s->session, "labelling an LSU", rc);
}

// By name, or by label when no LSU has that name.
int findLsu(sts_handle_t server, const sts_lsu_name_t* wanted, sts_lsu_name_t* found)
{
    const Server* s = as<Server>(server, SERVER);
    if (s == nullptr || wanted == nullptr || found == nullptr) return RADOS_EINVAL;
    std::vector<std::string> names;
    const int rc = radosstore::listLsus(*s->cluster, s->config.name, names);
    if (rc != 0) return failure(s->session, "listing LSUs", rc);
    for (const std::string& name : names) {
        LsuRecord record;
        readLsu(*s->cluster, s->config.name, name, record);
        if (name == wanted->sln_name || (!record.label.empty() && record.label == wanted->sln_name)) {
            copyOut(found->sln_name, name, sizeof(found->sln_name));
            return 0;
        }
    }
    return STS_ENO_MORE;
}

int deleteLsu(const sts_lsu_t* lsu)
{
    const int checked = checkLsu(lsu);
    if (checked != 0) return checked;
    const Server* s = serverOf(lsu);
    const int rc = radosstore::deleteLsu(*s->cluster, s->config.name, lsu->stl_lsu_name.sln_name);
    return rc == 0 ? 0 : failure(s->session, "deleting an LSU", rc);
}

} // namespace

void registerLsuSlots(sts_api_t& a)
{
    LsuListSlots<LsuLists>::registerIn(a);
    a.stsa_get_lsu_prop_byname = getLsuProp;
    a.stsa_label_lsu = labelLsu;
    a.stsa_find_lsu = findLsu;
    a.stsa_delete_lsu = deleteLsu;
}

} // namespace radosplugin
