// LSUs: by name on their server (properties, label, find, mount, activate,
// delete), LSU lists, and the LSU objects with their storage elements and
// pools.
#include "ProxyUtil.h"
#include "RemoteHandles.h"
#include "RemoteSlots.h"

#include <algorithm>
#include <cstring>

namespace {

// The wire form of "no definition": the service opens the list with a null
// definition when the name is exactly this.
const char* const NULL_LSU_DEFINITION = "NULL_LSUDEF";

int openLsuList(sts_handle_t server, const sts_lsu_def_t* def, sts_handle_t* out)
{
    static const char* szWho = "remote::openLsuList";
    return guarded(szWho, [&] {
        ServerHandle* s = remoteHandle<ServerHandle>(server, SERVER);
        if (s == nullptr) return STSP_EBADHANDLE;
        if (out == nullptr) return STS_EINVAL_ARG;
        API::LsuDefinitionV11 lsudef;
        if (def != nullptr) {
            ZVS2CORBA(*def, &lsudef);
        } else {
            lsudef.version = 0;
            lsudef.lsn = CORBA::string_dup(NULL_LSU_DEFINITION);
            lsudef.alloc = lsudef.storage = 0;
            lsudef.flags = lsudef.saveas = 0;
            lsudef.max_transfer = lsudef.block_size = lsudef.alloc_size = 0;
            lsudef.rep_sources = lsudef.rep_targets = 0;
        }
        API::LsuList_var ref;
        const CallOutcome o = s->server->call(szWho, [&](API::UInt64 seq) {
            ref = s->server->ref->openLsuListV12(seq, lsudef);
            return 0;
        });
        if (o.code != 0) return o.code;
        return adoptChild<LsuListHandle>(LSU_LIST, s->server, ref, out);
    });
}

int openDynamicLsuList(const sts_lsu_t* lsu, sts_handle_t* out)
{
    static const char* szWho = "remote::openDynamicLsuList";
    return onLsuServer(szWho, lsu, out == nullptr, [&](ServerHandle* s, const std::string& name) {
        API::LsuList_var ref;
        const CallOutcome o = s->server->call(szWho, [&](API::UInt64 seq) {
            ref = s->server->ref->openDynamicLsuListV12(seq, name.c_str());
            return 0;
        });
        if (o.code != 0) return o.code;
        return adoptChild<LsuListHandle>(LSU_LIST, s->server, ref, out);
    });
}

// 0 with a name, or the end of the list (2060013) as a result.
int listLsu(sts_handle_t list, sts_lsu_name_t* name)
{
    static const char* szWho = "remote::listLsu";
    return guarded(szWho, [&] {
        LsuListHandle* l = remoteHandle<LsuListHandle>(list, LSU_LIST);
        if (l == nullptr) return STSP_EBADHANDLE;
        if (name == nullptr) return STS_EINVAL_ARG;
        CORBA::String_var found;
        const CallOutcome o = l->call(szWho, [&](API::UInt64 seq) { return l->ref->listLsuV12(seq, found); });
        if (o.code == 0) boundedCopy(name->sln_name, found, sizeof(name->sln_name));
        return o.code;
    });
}

int getLsuPropByName(const sts_lsu_t* lsu, sts_lsu_info_t* info)
{
    static const char* szWho = "remote::getLsuPropByName";
    return onLsuServer(szWho, lsu, info == nullptr, [&](ServerHandle* s, const std::string& name) {
        API::LsuInformationV11_var out;
        const CallOutcome o = s->server->call(szWho, [&](API::UInt64 seq) {
            return s->server->ref->getLsuPropByNameV12(seq, name.c_str(), out);
        });
        if (o.code != 0) return o.code;
        std::memset(info, 0, sizeof(*info));
        CORBA2ZVS(out.in(), info);
        return 0;
    });
}

int labelLsu(const sts_lsu_t* lsu, char* label)
{
    static const char* szWho = "remote::labelLsu";
    return onLsuServer(szWho, lsu, label == nullptr, [&](ServerHandle* s, const std::string& name) {
        char bounded[sizeof(sts_lsu_label_t)];
        boundedCopy(bounded, label, sizeof(bounded));
        return s->server->call(szWho, [&](API::UInt64 seq) {
                   return s->server->ref->labelLsuV12(seq, name.c_str(), bounded);
               }).code;
    });
}

// Not found is a result (2060013), not an error, as on the service.
int findLsu(sts_handle_t server, const sts_lsu_name_t* wanted, sts_lsu_name_t* found)
{
    static const char* szWho = "remote::findLsu";
    return guarded(szWho, [&] {
        ServerHandle* s = remoteHandle<ServerHandle>(server, SERVER);
        if (s == nullptr) return STSP_EBADHANDLE;
        if (wanted == nullptr || found == nullptr) return STS_EINVAL_ARG;
        const std::string name = fieldText(wanted->sln_name);
        CORBA::String_var answer;
        const CallOutcome o = s->server->call(szWho, [&](API::UInt64 seq) {
            return s->server->ref->findLsuV12(seq, name.c_str(), answer);
        });
        if (o.code == 0) boundedCopy(found->sln_name, answer, sizeof(found->sln_name));
        return o.code;
    });
}

int deleteLsu(const sts_lsu_t* lsu)
{
    static const char* szWho = "remote::deleteLsu";
    return onLsuServer(szWho, lsu, false, [&](ServerHandle* s, const std::string& name) {
        return s->server->call(szWho, [&](API::UInt64 seq) {
                   return s->server->ref->deleteLsuV12(seq, name.c_str());
               }).code;
    });
}

int mountLsu(const sts_lsu_t* lsu, const char* path, int mode, const char* key, sts_lsu_name_t* mounted)
{
    static const char* szWho = "remote::mountLsu";
    return onLsuServer(szWho, lsu, path == nullptr || mounted == nullptr, [&](ServerHandle* s, const std::string& name) {
        CORBA::String_var answer;
        const CallOutcome o = s->server->call(szWho, [&](API::UInt64 seq) {
            return s->server->ref->mountLsuV12(seq, name.c_str(), path, mode, key != nullptr ? key : "", answer);
        });
        if (o.code == 0) boundedCopy(mounted->sln_name, answer, sizeof(mounted->sln_name));
        return o.code;
    });
}

int unmountLsu(const sts_lsu_t* lsu, const char* key)
{
    static const char* szWho = "remote::unmountLsu";
    return onLsuServer(szWho, lsu, false, [&](ServerHandle* s, const std::string& name) {
        return s->server->call(szWho, [&](API::UInt64 seq) {
                   return s->server->ref->unmountLsuV12(seq, name.c_str(), key != nullptr ? key : "");
               }).code;
    });
}

// The service builds the session of this call from the definition sent, so
// it gets the caller's own when there is one.
int activateLsu(const sts_session_def_t* sd, const sts_lsu_t* lsu, int flag)
{
    static const char* szWho = "remote::activateLsu";
    return guarded(szWho, [&] {
        ServerHandle* s = serverOf(lsu);
        if (s == nullptr) return STSP_EBADHANDLE;
        API::SessionDefinition ssd = s->server->session->contractDefinition();
        if (sd != nullptr) ZVS2CORBA(*sd, &ssd);
        const std::string name = fieldText(lsu->stl_lsu_name.sln_name);
        return s->server->call(szWho, [&](API::UInt64 seq) {
                   return s->server->ref->activateLsuV12(seq, ssd, name.c_str(), flag);
               }).code;
    });
}

int openLsu(const sts_lsu_t* lsu, sts_handle_t* out)
{
    static const char* szWho = "remote::openLsu";
    return onLsuServer(szWho, lsu, out == nullptr, [&](ServerHandle* s, const std::string& name) {
        API::Lsu_var ref;
        const CallOutcome o = s->server->call(szWho, [&](API::UInt64 seq) {
            ref = s->server->ref->openLsuV12(seq, name.c_str());
            return 0;
        });
        if (o.code != 0) return o.code;
        return adoptChild<LsuHandle>(LSU, s->server, ref, out);
    });
}

int changeAllocation(sts_handle_t h, const sts_storel_t* storel, bool allocate)
{
    static const char* szWho = "remote::changeAllocation";
    return guarded(szWho, [&] {
        LsuHandle* l = remoteHandle<LsuHandle>(h, LSU);
        if (l == nullptr) return STSP_EBADHANDLE;
        if (storel == nullptr) return STS_EINVAL_ARG;
        API::StorageElement element;
        ZVS2CORBA(*storel, &element);
        return l->call(szWho, [&](API::UInt64 seq) {
                   return allocate ? l->ref->allocateLsuV12(seq, element) : l->ref->deallocateLsuV12(seq, element);
               }).code;
    });
}

int allocLsu(sts_handle_t h, const sts_storel_t* storel) { return changeAllocation(h, storel, true); }
int deallocLsu(sts_handle_t h, const sts_storel_t* storel) { return changeAllocation(h, storel, false); }

int addPoolLsu(sts_handle_t h, const sts_lsu_pool_t* pool)
{
    static const char* szWho = "remote::addPoolLsu";
    return guarded(szWho, [&] {
        LsuHandle* l = remoteHandle<LsuHandle>(h, LSU);
        if (l == nullptr) return STSP_EBADHANDLE;
        if (pool == nullptr) return STS_EINVAL_ARG;
        API::LSUPool member;
        ZVS2CORBA(*pool, &member);
        return l->call(szWho, [&](API::UInt64 seq) { return l->ref->addPoolLsuV12(seq, member); }).code;
    });
}

int removePoolLsu(sts_handle_t h, const sts_lsu_name_t* pool)
{
    static const char* szWho = "remote::removePoolLsu";
    return guarded(szWho, [&] {
        LsuHandle* l = remoteHandle<LsuHandle>(h, LSU);
        if (l == nullptr) return STSP_EBADHANDLE;
        if (pool == nullptr) return STS_EINVAL_ARG;
        const std::string name = fieldText(pool->sln_name);
        return l->call(szWho, [&](API::UInt64 seq) { return l->ref->removePoolLsuV12(seq, name.c_str()); }).code;
    });
}

// The service's sequences keep the length asked for; the count says how
// many entries are real.
template <typename Seq, typename C>
void copyEntries(const Seq& from, CORBA::Long count, C* to, int room)
{
    const CORBA::ULong n = std::min<CORBA::ULong>(from.length(), static_cast<CORBA::ULong>(std::max(0, std::min(count, room))));
    for (CORBA::ULong i = 0; i < n; ++i) {
        std::memset(&to[i], 0, sizeof(C));
        CORBA2ZVS(from[i], &to[i]);
    }
}

int getPoolLsu(sts_handle_t h, sts_lsu_pool_t* pools, int npool, int* retpool, int* maxpool)
{
    static const char* szWho = "remote::getPoolLsu";
    return guarded(szWho, [&] {
        LsuHandle* l = remoteHandle<LsuHandle>(h, LSU);
        if (l == nullptr) return STSP_EBADHANDLE;
        if (npool < 0 || (pools == nullptr && npool > 0) || retpool == nullptr || maxpool == nullptr) {
            return STS_EINVAL_ARG;
        }
        API::LSUPoolSeq_var seqOut;
        CORBA::Long ret = 0;
        CORBA::Long max = 0;
        const CallOutcome o = l->call(szWho, [&](API::UInt64 seq) {
            seqOut = l->ref->getPoolLsuV12(seq, npool, ret, max);
            return 0;
        });
        if (o.code != 0) return o.code;
        copyEntries(seqOut.in(), ret, pools, npool);
        *retpool = ret;
        *maxpool = max;
        return 0;
    });
}

// Storage elements of a server or of an LSU: the same slot for both.
int getStorel(sts_handle_t h, sts_storel_t* storels, int nstorel, int* retstorel, int* maxstorel)
{
    static const char* szWho = "remote::getStorel";
    return guarded(szWho, [&] {
        ServerHandle* s = remoteHandle<ServerHandle>(h, SERVER);
        LsuHandle* l = s == nullptr ? remoteHandle<LsuHandle>(h, LSU) : nullptr;
        if (s == nullptr && l == nullptr) return STSP_EBADHANDLE;
        if (nstorel < 0 || (storels == nullptr && nstorel > 0) || retstorel == nullptr || maxstorel == nullptr) {
            return STS_EINVAL_ARG;
        }
        API::StorageElementSeq_var seqOut;
        CORBA::Long ret = 0;
        CORBA::Long max = 0;
        const auto fetch = [&](API::UInt64 seq) {
            seqOut = s != nullptr ? s->server->ref->getStorelV12(seq, nstorel, ret, max)
                                  : l->ref->getStorelV12(seq, nstorel, ret, max);
            return 0;
        };
        const CallOutcome o = s != nullptr ? s->server->call(szWho, fetch) : l->call(szWho, fetch);
        if (o.code != 0) return o.code;
        copyEntries(seqOut.in(), ret, storels, nstorel);
        *retstorel = ret;
        *maxstorel = max;
        return 0;
    });
}

} // namespace

// Children close through their server while it is open, so that the
// service lets the object go at the server's next call; afterwards through
// themselves.
int closeLsuHandle(sts_handle_t h)
{
    static const char* szWho = "remote::closeLsu";
    LsuHandle* l = remoteHandle<LsuHandle>(h, LSU);
    if (l == nullptr) return STSP_EBADHANDLE;
    const int nErr = guarded(szWho, [&] {
        RemoteServer& s = *l->server;
        if (s.open) return s.call(szWho, [&](API::UInt64 seq) { return s.ref->closeLsuV12(seq, l->ref); }).code;
        return l->call(szWho, [&](API::UInt64 seq) { return l->ref->closeLsuV12(seq); }).code;
    });
    delete l;
    return nErr;
}

int closeLsuListHandle(sts_handle_t h)
{
    static const char* szWho = "remote::closeLsuList";
    LsuListHandle* l = remoteHandle<LsuListHandle>(h, LSU_LIST);
    if (l == nullptr) return STSP_EBADHANDLE;
    const int nErr = guarded(szWho, [&] {
        RemoteServer& s = *l->server;
        return s.open ? s.call(szWho, [&](API::UInt64 seq) {
                             s.ref->closeLsuListV12(seq, l->ref);
                             return 0;
                         }).code
                      : l->call(szWho, [&](API::UInt64 seq) {
                             l->ref->closeLsuListV12(seq);
                             return 0;
                         }).code;
    });
    delete l;
    return nErr;
}

void fillLsuSlots(sts_api_t& a)
{
    a.stsa_open_lsu_list = openLsuList;
    a.stsa_open_dynamic_lsu_list = openDynamicLsuList;
    a.stsa_list_lsu = listLsu;
    a.stsa_get_lsu_prop_byname = getLsuPropByName;
    a.stsa_label_lsu = labelLsu;
    a.stsa_find_lsu = findLsu;
    a.stsa_delete_lsu = deleteLsu;
    a.stsa_mount_lsu = mountLsu;
    a.stsa_unmount_lsu = unmountLsu;
    a.stsa_activate_lsu = activateLsu;
    a.stsa_open_lsu = openLsu;
    a.stsa_alloc_lsu = allocLsu;
    a.stsa_dealloc_lsu = deallocLsu;
    a.stsa_add_pool_lsu = addPoolLsu;
    a.stsa_remove_pool_lsu = removePoolLsu;
    a.stsa_get_pool_lsu = getPoolLsu;
    a.stsa_get_storel = getStorel;
}
