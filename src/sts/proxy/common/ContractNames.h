// Short names of the contract's module, for the service and its clients.
#ifndef KELD_PROXY_CONTRACTNAMES_H
#define KELD_PROXY_CONTRACTNAMES_H

#include "ProxyTypes.hh"

namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;
namespace POA_API = POA_Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

#endif
