// Field-by-field conversion between the storage API's C records and the
// contract's records: ZVS2CORBA fills a contract record from a C record,
// CORBA2ZVS a C record from a contract record.  Every overload returns 0, or
// a negative number for the few that can fail.
//
// Shared rules: a conversion first zeroes the first eight bytes of its C
// target and leaves other bytes as they were (a caller that needs a clean
// record clears it first); strings going to C are cut by the bounded copy;
// strings going to the contract are duplicated whole.
#ifndef KELD_PROXY_PROXYUTIL_H
#define KELD_PROXY_PROXYUTIL_H

#include "ServantSupport.h"
#include "sts_api.h"

int CORBA2ZVS(const API::SessionDefinition& from, sts_session_def_v7_t* to);
int ZVS2CORBA(const sts_session_def_v7_t& from, API::SessionDefinition* to);

// Decrypts the certificate with the service's private key.
int CORBA2ZVS(const API::Credential& from, sts_cred_v7_t* to);
// Encrypts the certificate with a peer's public key (DER RSAPublicKey).
int ZVS2CORBA(const API::Bytes_var& pubkey, const sts_cred_v7_t& from, API::Credential* to);

int CORBA2ZVS(const API::STSHost& from, sts_host_v9_t* to);
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

#endif
