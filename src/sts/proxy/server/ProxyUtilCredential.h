// The conversions of the service alone: they decrypt a credential with the
// service's own private key (ProxyKeyMgr), which no client holds.  A
// certificate that cannot be decrypted, or of a type the storage API does
// not know, leaves an empty certificate, which the plug-in refuses as a
// wrong credential; the credential's form then returns -1.
#ifndef KELD_PROXY_PROXYUTILCREDENTIAL_H
#define KELD_PROXY_PROXYUTILCREDENTIAL_H

#include "ProxyUtil.h"

int CORBA2ZVS(const API::Credential& from, sts_cred_v7_t* to);
int CORBA2ZVS(const API::STSHost& from, sts_host_v9_t* to);

#endif
