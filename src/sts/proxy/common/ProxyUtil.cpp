#include "ProxyUtil.h"

#include "BoundedCopy.h"
#include "CredentialCipher.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

// The first eight bytes of a C target: the width of a pointer, not of the
// record.
template <typename T>
void zeroHead(T* to)
{
    static_assert(sizeof(T) >= 8, "every record is at least eight bytes");
    std::memset(static_cast<void*>(to), 0, 8);
}

// LsuDefinition and LsuDefinitionV11 share every member but three.
template <typename C, typename Contract>
void lsuDefToC(const Contract& from, C* to)
{
    boundedCopy(to->sld_name.sln_name, from.lsn, sizeof(to->sld_name.sln_name));
    to->sld_alloc = static_cast<sts_lsu_alloc_type_t>(from.alloc);
    to->sld_storage = static_cast<sts_lsu_storage_type_t>(from.storage);
    boundedCopy(to->sld_description, from.description, 1024);
    boundedCopy(to->sld_config, from.config, 2048);
    to->sld_flags = from.flags;
    to->sld_saveas = from.saveas;
    to->sld_max_transfer = from.max_transfer;
    to->sld_block_size = from.block_size;
    to->sld_alloc_size = from.alloc_size;
    boundedCopy(to->sld_label, from.label, 64);
}

template <typename C, typename Contract>
void lsuDefToContract(const C& from, Contract* to)
{
    to->lsn = dupField(from.sld_name.sln_name);
    to->alloc = static_cast<CORBA::Short>(from.sld_alloc);
    to->storage = static_cast<CORBA::Short>(from.sld_storage);
    to->description = dupField(from.sld_description);
    to->config = dupField(from.sld_config);
    to->flags = from.sld_flags;
    to->saveas = from.sld_saveas;
    to->max_transfer = from.sld_max_transfer;
    to->block_size = from.sld_block_size;
    to->alloc_size = from.sld_alloc_size;
    to->label = dupField(from.sld_label);
}

template <typename C, typename Contract>
void lsuInfoToC(const Contract& from, C* to)
{
    boundedCopy(to->lsu_server, from.lsu_server, 512);
    to->lsu_capacity = from.lsu_capacity;
    to->lsu_capacity_phys = from.lsu_capacity_phys;
    to->lsu_used = from.lsu_used;
    to->lsu_used_phys = from.lsu_used_phys;
    to->lsu_images = from.lsu_images;
    CORBA2ZVS(from.lsu_def, &to->lsu_def);   // last
}

template <typename C, typename Contract>
void lsuInfoToContract(const C& from, Contract* to)
{
    to->lsu_server = dupField(from.lsu_server);
    ZVS2CORBA(from.lsu_def, &to->lsu_def);   // second
    to->lsu_capacity = from.lsu_capacity;
    to->lsu_capacity_phys = from.lsu_capacity_phys;
    to->lsu_used = from.lsu_used;
    to->lsu_used_phys = from.lsu_used_phys;
    to->lsu_images = from.lsu_images;
}

} // namespace

// The session record is filled field by field by the servants, never by a
// conversion: this stays a refusal and touches nothing.
int CORBA2ZVS(const API::SessionDefinition&, sts_session_def_v7_t*)
{
    return -1;
}

int ZVS2CORBA(const sts_session_def_v7_t& from, API::SessionDefinition* to)
{
    to->proxy = dupField(from.sd_proxy);
    to->id = CORBA::string_dup(from.sd_id != nullptr ? from.sd_id : "");
    to->flags = from.sd_flags;
    return 0;
}

// Encrypts under a peer's key exactly as a client does (CredentialCipher);
// the certificate is read no further than its 1024 bytes whatever cr_len
// claims.  A key that cannot be used leaves cert empty and gives -1.
int ZVS2CORBA(const API::Bytes_var& pubkey, const sts_cred_v7_t& from, API::Credential* to)
{
    to->len = from.cr_len;
    to->type = static_cast<API::UInt64>(from.cr_type);
    to->cert.length(0);
    const std::vector<unsigned char> key(pubkey->get_buffer(), pubkey->get_buffer() + pubkey->length());
    const auto* clear = reinterpret_cast<const unsigned char*>(from.cr_cert);
    const std::vector<unsigned char> cert(clear, clear + std::min<size_t>(from.cr_len, sizeof(from.cr_cert)));
    std::vector<unsigned char> cipher;
    if (CredentialCipher::encrypt(key, cert, cipher) != CredentialCipher::OK) return -1;
    to->cert.length(static_cast<CORBA::ULong>(cipher.size()));
    if (!cipher.empty()) std::memcpy(to->cert.get_buffer(), cipher.data(), cipher.size());
    return 0;
}

int ZVS2CORBA(const API::Bytes_var& pubkey, const sts_host_v9_t& from, API::STSHost* to)
{
    to->sh_name = dupField(from.sh_name);
    ZVS2CORBA(pubkey, from.sh_cred, &to->sh_cred);
    to->sh_iface = dupField(from.sh_iface);
    return 0;
}

// Stream formats and interface names are copied with 32, whatever their
// slot's width: a long format spills into the next slot, which its own copy
// then overwrites.
int CORBA2ZVS(const API::ServerInformation& from, sts_server_info_v8_t* to)
{
    zeroHead(to);
    boundedCopy(to->srv_server, from.srv_server, 512);
    for (int i = 0; i < 32; ++i) boundedCopy(to->srv_sth[i], from.srv_sth[i].sformat, 32);
    to->srv_flags = from.srv_flags;
    to->srv_maxconnect = from.srv_maxconnect;
    to->srv_nconnect = from.srv_nconnect;
    for (int i = 0; i < 65; ++i) to->srv_cap[i] = from.srv_cap[i];
    for (int i = 0; i < 32; ++i) boundedCopy(to->srv_interface[i], from.srv_interface[i].iface, 32);
    for (int i = 0; i < 8; ++i) to->srv_cred[i] = static_cast<sts_cred_type_v7_t>(from.srv_cred[i]);
    boundedCopy(to->srv_ndmp_host, from.srv_ndmp_host, 512);
    return 0;
}

int ZVS2CORBA(const sts_server_info_v8_t& from, API::ServerInformation* to)
{
    to->srv_server = dupField(from.srv_server);
    for (int i = 0; i < 32; ++i) to->srv_sth[i].sformat = dupField(from.srv_sth[i]);
    to->srv_flags = from.srv_flags;
    to->srv_maxconnect = from.srv_maxconnect;
    to->srv_nconnect = from.srv_nconnect;
    for (int i = 0; i < 65; ++i) to->srv_cap[i] = from.srv_cap[i];
    for (int i = 0; i < 32; ++i) to->srv_interface[i].iface = dupField(from.srv_interface[i]);
    for (int i = 0; i < 8; ++i) to->srv_cred[i] = static_cast<API::UInt32>(from.srv_cred[i]);
    to->srv_ndmp_host = dupField(from.srv_ndmp_host);
    return 0;
}

int CORBA2ZVS(const API::LsuDefinition& from, sts_lsu_def_v9_t* to)
{
    zeroHead(to);
    lsuDefToC(from, to);
    return 0;
}

int ZVS2CORBA(const sts_lsu_def_v9_t& from, API::LsuDefinition* to)
{
    lsuDefToContract(from, to);
    return 0;
}

// version is never carried: the zeroed head leaves it 0 on both sides.
int CORBA2ZVS(const API::LsuDefinitionV11& from, sts_lsu_def_v11_t* to)
{
    zeroHead(to);
    lsuDefToC(from, to);
    to->sld_rep_sources = from.rep_sources;
    to->sld_rep_targets = from.rep_targets;
    return 0;
}

int ZVS2CORBA(const sts_lsu_def_v11_t& from, API::LsuDefinitionV11* to)
{
    to->version = 0;
    lsuDefToContract(from, to);
    to->rep_sources = from.sld_rep_sources;
    to->rep_targets = from.sld_rep_targets;
    return 0;
}

int CORBA2ZVS(const API::LsuInformation& from, sts_lsu_info_v9_t* to)
{
    zeroHead(to);
    lsuInfoToC(from, to);
    return 0;
}

int ZVS2CORBA(const sts_lsu_info_v9_t& from, API::LsuInformation* to)
{
    lsuInfoToContract(from, to);
    return 0;
}

int CORBA2ZVS(const API::LsuInformationV11& from, sts_lsu_info_v11_t* to)
{
    zeroHead(to);
    to->version = from.version;
    lsuInfoToC(from, to);
    return 0;
}

int ZVS2CORBA(const sts_lsu_info_v11_t& from, API::LsuInformationV11* to)
{
    to->version = from.version;
    lsuInfoToContract(from, to);
    return 0;
}

int CORBA2ZVS(const API::LSUPool& from, sts_lsu_pool_v9_t* to)
{
    zeroHead(to);
    boundedCopy(to->lp_name.sln_name, from.lp_name, 1024);
    to->lp_priority = from.lp_priority;
    return 0;
}

int ZVS2CORBA(const sts_lsu_pool_v9_t& from, API::LSUPool* to)
{
    to->lp_name = dupField(from.lp_name.sln_name);
    to->lp_priority = from.lp_priority;
    return 0;
}

int CORBA2ZVS(const API::StorageElement& from, sts_storel_v9_t* to)
{
    zeroHead(to);
    boundedCopy(to->ste_devname, from.ste_devname, 1024);
    boundedCopy(to->ste_config, from.ste_config, 2048);
    to->ste_off = from.ste_off;
    to->ste_length = from.ste_length;
    return 0;
}

int ZVS2CORBA(const sts_storel_v9_t& from, API::StorageElement* to)
{
    to->ste_devname = dupField(from.ste_devname);
    to->ste_config = dupField(from.ste_config);
    to->ste_off = from.ste_off;
    to->ste_length = from.ste_length;
    return 0;
}

int CORBA2ZVS(const API::StorelInformation& from, sts_storel_info_v9_t* to)
{
    zeroHead(to);
    CORBA2ZVS(from.sti_storel, &to->sti_storel);
    boundedCopy(to->sti_owner.sln_name, from.sti_owner, 1024);
    boundedCopy(to->sti_assignee.sln_name, from.sti_assignee, 1024);
    return 0;
}

int ZVS2CORBA(const sts_storel_info_v9_t& from, API::StorelInformation* to)
{
    ZVS2CORBA(from.sti_storel, &to->sti_storel);
    to->sti_owner = dupField(from.sti_owner.sln_name);
    to->sti_assignee = dupField(from.sti_assignee.sln_name);
    return 0;
}
