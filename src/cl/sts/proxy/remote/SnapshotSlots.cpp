// Volumes, snapshot properties and snapshot change lists.  The service does
// not number these calls; those that change something (claiming a volume,
// taking the next file, closing a list) are sent once, since sending them
// again could claim twice, skip a file or close a handle twice.
#include "ProxyUtil.h"
#include "RemoteHandles.h"
#include "RemoteSlots.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

namespace {

int claimVolume(sts_server_handle_t server, const sts_volume_spec_t* wanted)
{
    static const char* szWho = "remote::claimVolume";
    return guarded(szWho, [&] {
        ServerHandle* s = remoteHandle<ServerHandle>(server, SERVER);
        if (s == nullptr) return STSP_EBADHANDLE;
        if (wanted == nullptr) return STS_EINVAL_ARG;
        API::VolumeSpecV11 volume;
        ZVS2CORBA(*wanted, &volume);
        RemoteServer& rs = *s->server;
        return rs.session->call(nullptr, szWho, Resend::Never, [&](API::UInt64) {
                   return rs.ref->claimVolumeV11(volume);
               }).code;
    });
}

int getSnapPropByName(const sts_lsu_t* lsu, const sts_snap_def_t* snap, sts_snap_info_t* info)
{
    static const char* szWho = "remote::getSnapPropByName";
    return onLsuServer(szWho, lsu, snap == nullptr || info == nullptr, [&](ServerHandle* s, const std::string& name) {
        API::SnapDefinitionV11 def;
        ZVS2CORBA(*snap, &def);
        API::SnapInformationV11_var out;
        RemoteServer& rs = *s->server;
        const CallOutcome o = rs.session->call(nullptr, szWho, Resend::Safe, [&](API::UInt64) {
            return rs.ref->getSnapPropByNameV11(name.c_str(), def, out);
        });
        if (o.code != 0) return o.code;
        std::memset(info, 0, sizeof(*info));
        CORBA2ZVS(out.in(), info);
        return 0;
    });
}

// Sent again after a lost reply: the service then holds one more list
// nobody walks, which costs less than a failed job.
int openSnapChangeList(const sts_lsu_t* lsu, const sts_snap_def_t* base, const sts_snap_def_t* diff,
                       const sts_volume_spec_t* volume, sts_uint32_t flag, sts_file_list_handle_t* out)
{
    static const char* szWho = "remote::openSnapChangeList";
    return onLsuServer(szWho, lsu, base == nullptr || diff == nullptr || volume == nullptr || out == nullptr, [&](ServerHandle* s, const std::string& name) {
        API::SnapDefinitionV11 baseDef;
        API::SnapDefinitionV11 diffDef;
        API::VolumeSpecV11 volumeDef;
        ZVS2CORBA(*base, &baseDef);
        ZVS2CORBA(*diff, &diffDef);
        ZVS2CORBA(*volume, &volumeDef);
        API::FileList_var ref;
        RemoteServer& rs = *s->server;
        const CallOutcome o = rs.session->call(nullptr, szWho, Resend::Safe, [&](API::UInt64) {
            ref = rs.ref->openSnapChangeListV11(name.c_str(), baseDef, diffDef, volumeDef, flag);
            return 0;
        });
        if (o.code != 0) return o.code;
        return adoptChild<FileListHandle>(FILE_LIST, s->server, ref, out);
    });
}

// The end of the list comes as the error 2060013, as from the service.
int listFile(sts_file_list_handle_t list, sts_uint32_t npaths, sts_pathname_v11_t* paths, sts_file_attr_t* attr)
{
    static const char* szWho = "remote::listFile";
    return guarded(szWho, [&] {
        FileListHandle* l = remoteHandle<FileListHandle>(list, FILE_LIST);
        if (l == nullptr) return STSP_EBADHANDLE;
        if (l->closed) return STS_ENOT_OPEN;
        if (attr == nullptr || (paths == nullptr && npaths > 0)) return STS_EINVAL_ARG;
        API::STSPathNameSeq filter;
        filter.length(npaths);
        for (sts_uint32_t i = 0; i < npaths; ++i) ZVS2CORBA(paths[i], &filter[i]);
        API::FileAttrV11_var out;
        const CallOutcome o = l->server->session->call(nullptr, szWho, Resend::Never, [&](API::UInt64) {
            return l->ref->listFileV11(npaths, filter, out);
        });
        if (o.code != 0) return o.code;
        std::memset(attr, 0, sizeof(*attr));
        CORBA2ZVS(out.in(), attr);
        return 0;
    });
}

int closeSnapChangeList(sts_file_list_handle_t list)
{
    return closeFileListHandle(list);
}

} // namespace

// A closed list keeps a small handle for the life of the process, as the
// disk plug-in does: a second close or a late list is answered "not open"
// instead of reading freed memory.  Its remote object is let go.
int closeFileListHandle(sts_handle_t h)
{
    static const char* szWho = "remote::closeSnapChangeList";
    FileListHandle* l = remoteHandle<FileListHandle>(h, FILE_LIST);
    if (l == nullptr) return STSP_EBADHANDLE;
    if (l->closed) return STS_ENOT_OPEN;
    const int nErr = guarded(szWho, [&] {
        return l->server->session->call(nullptr, szWho, Resend::Never, [&](API::UInt64) {
                   l->ref->closeSnapChangeListV11();
                   return 0;
               }).code;
    });
    l->closed = true;
    l->ref = API::FileList::_nil();
    l->server.reset();
    static std::vector<std::unique_ptr<FileListHandle>>* kept = new std::vector<std::unique_ptr<FileListHandle>>;
    static std::mutex keptLock;
    std::lock_guard<std::mutex> lock(keptLock);
    kept->emplace_back(l);
    return nErr;
}

void fillSnapshotSlots(sts_api_t& a)
{
    a.stsa_claim_volume = claimVolume;
    a.stsa_get_snap_prop_byname = getSnapPropByName;
    a.stsa_open_snap_change_list = openSnapChangeList;
    a.stsa_list_file = listFile;
    a.stsa_close_snap_change_list = closeSnapChangeList;
}
