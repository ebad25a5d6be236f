// Field-by-field conversion between the storage API's C records and the
// contract's records: ZVS2CORBA fills a contract record from a C record,
// CORBA2ZVS a C record from a contract record.  Every overload returns 0, or
// a negative number for the few that can fail.
//
// Shared rules: a conversion first zeroes the first eight bytes of its C
// target and leaves other bytes as they were (a caller that needs a clean
// record clears it first); strings going to C are cut by the bounded copy;
// strings going to the contract are duplicated whole.
//
// Shared by the service and by the client side (the remote storage
// plug-in), which convert the same records in opposite directions.  The two
// forms that decrypt a credential use the service's private key and belong
// to the service (ProxyUtilCredential.h); a client only encrypts.
#ifndef KELD_PROXY_PROXYUTIL_H
#define KELD_PROXY_PROXYUTIL_H

#include "BoundedCopy.h"
#include "ContractNames.h"
#include "sts_api.h"

#include <cstring>

int CORBA2ZVS(const API::SessionDefinition& from, sts_session_def_v7_t* to);
int ZVS2CORBA(const sts_session_def_v7_t& from, API::SessionDefinition* to);

// Encrypts the certificate with a peer's public key (DER RSAPublicKey).
int ZVS2CORBA(const API::Bytes_var& pubkey, const sts_cred_v7_t& from, API::Credential* to);
int ZVS2CORBA(const API::Bytes_var& pubkey, const sts_host_v9_t& from, API::STSHost* to);

int CORBA2ZVS(const API::ServerInformation& from, sts_server_info_v8_t* to);
int ZVS2CORBA(const sts_server_info_v8_t& from, API::ServerInformation* to);

int CORBA2ZVS(const API::LsuDefinition& from, sts_lsu_def_v9_t* to);
int ZVS2CORBA(const sts_lsu_def_v9_t& from, API::LsuDefinition* to);
int CORBA2ZVS(const API::LsuDefinitionV11& from, sts_lsu_def_v11_t* to);
int ZVS2CORBA(const sts_lsu_def_v11_t& from, API::LsuDefinitionV11* to);

int CORBA2ZVS(const API::LsuInformation& from, sts_lsu_info_v9_t* to);
int ZVS2CORBA(const sts_lsu_info_v9_t& from, API::LsuInformation* to);
int CORBA2ZVS(const API::LsuInformationV11& from, sts_lsu_info_v11_t* to);
int ZVS2CORBA(const sts_lsu_info_v11_t& from, API::LsuInformationV11* to);

int CORBA2ZVS(const API::LSUPool& from, sts_lsu_pool_v9_t* to);
int ZVS2CORBA(const sts_lsu_pool_v9_t& from, API::LSUPool* to);
int CORBA2ZVS(const API::StorageElement& from, sts_storel_v9_t* to);
int ZVS2CORBA(const sts_storel_v9_t& from, API::StorageElement* to);
int CORBA2ZVS(const API::StorelInformation& from, sts_storel_info_v9_t* to);
int ZVS2CORBA(const sts_storel_info_v9_t& from, API::StorelInformation* to);

// Image, snapshot, volume, file and control records.
int CORBA2ZVS(const API::ImageDefinitionV10& from, sts_image_def_v10_t* to);
int ZVS2CORBA(const sts_image_def_v10_t& from, API::ImageDefinitionV10* to);
int CORBA2ZVS(const API::ImageDefinitionV13& from, sts_image_def_v10_t* to);
int ZVS2CORBA(const sts_image_def_v10_t& from, API::ImageDefinitionV13* to);
int CORBA2ZVS(const API::ImageInformationV10& from, sts_image_info_v10_t* to);
int ZVS2CORBA(const sts_image_info_v10_t& from, API::ImageInformationV10* to);
int CORBA2ZVS(const API::ImageInformationV13& from, sts_image_info_v10_t* to);
int ZVS2CORBA(const sts_image_info_v10_t& from, API::ImageInformationV13* to);
int CORBA2ZVS(const API::AioResult& from, sts_aioresult_v11_t* to);
int ZVS2CORBA(const sts_aioresult_v11_t& from, API::AioResult* to);
int CORBA2ZVS(const API::FileAttrV11& from, sts_file_attr_v11_t* to);
int ZVS2CORBA(const sts_file_attr_v11_t& from, API::FileAttrV11* to);
int CORBA2ZVS(const API::STSPathName& from, char (*to)[1024]);
int ZVS2CORBA(const char (&from)[1024], API::STSPathName* to);
int CORBA2ZVS(const API::SnapDefinitionV11& from, sts_snap_def_v11_t* to);
int ZVS2CORBA(const sts_snap_def_v11_t& from, API::SnapDefinitionV11* to);
int CORBA2ZVS(const API::SnapInformationV11& from, sts_snap_info_v11_t* to);
int ZVS2CORBA(const sts_snap_info_v11_t& from, API::SnapInformationV11* to);
int CORBA2ZVS(const API::VolumeSpecV11& from, sts_volume_spec_v11_t* to);
int ZVS2CORBA(const sts_volume_spec_v11_t& from, API::VolumeSpecV11* to);
int CORBA2ZVS(const API::RestoreCntl& from, sts_ioctl_restore_cntl_v9_t* to);
int ZVS2CORBA(const sts_ioctl_restore_cntl_v9_t* from, API::RestoreCntl* to);
int CORBA2ZVS(const API::FscpConfig& from, sts_ioctl_fscp_config_v9_t* to);
int ZVS2CORBA(const sts_ioctl_fscp_config_v9_t* from, API::FscpConfig* to);
int CORBA2ZVS(const API::FscpInfo& from, sts_ioctl_fscp_info_v9_t* to);
int ZVS2CORBA(const sts_ioctl_fscp_info_v9_t* from, API::FscpInfo* to);
int CORBA2ZVS(const API::MediaState& from, sts_ioctl_set_media_state_v9_t* to);
int ZVS2CORBA(const sts_ioctl_set_media_state_v9_t& from, API::MediaState* to);
int CORBA2ZVS(const API::DdupStatsInfo& from, sts_ioctl_ddup_stats_info_v9_t* to);

// A contract string from a fixed C field.  It never reads past the field,
// even when a plug-in filled it to the last byte without a terminator.
template <size_t N>
char* dupField(const char (&field)[N])
{
    const size_t n = strnlen(field, N);
    char* s = CORBA::string_alloc(static_cast<CORBA::ULong>(n));
    std::memcpy(s, field, n);
    s[n] = '\0';
    return s;
}

// The bounded copy of a contract string into a C field, used by both units.
template <size_t N>
void toC(char (&field)[N], const char* text, size_t size = N)
{
    boundedCopy(field, text, size);
}

#endif
