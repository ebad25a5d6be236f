// The service's public key as both managers hand it out: the DER
// RSAPublicKey of the process-wide key pair, the same bytes on every call.
#ifndef KELD_PROXY_PUBLICKEY_H
#define KELD_PROXY_PUBLICKEY_H

#include "ServantSupport.h"

API::Bytes* publicKeyBytes();

#endif
