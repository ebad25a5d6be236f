// The one entry point of libkeld_tls.so, found with dlsym by TlsTransport.
#ifndef KELD_PLATFORM_TLSMODULE_H
#define KELD_PLATFORM_TLSMODULE_H

#include <cstddef>

#define KELD_TLS_MODULE "libkeld_tls.so"
#define KELD_TLS_USE "keld_tls_use"

// Checks the files and hands them to omniORB's SSL transport.  caFile may be
// empty.  Returns 0, or -1 with the reason in error (size bytes, terminated).
extern "C" typedef int (*KeldTlsUse)(const char* certificate, const char* privateKey,
                                    const char* caFile, char* error, size_t size);

#endif
