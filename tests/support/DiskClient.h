// What the tests of a service over the disk plug-in look at besides the
// wire: the plug-in's numbers, the files it lays out, and data whose every
// byte tells where it belongs.
#ifndef KELD_TESTS_DISKCLIENT_H
#define KELD_TESTS_DISKCLIENT_H

#include "DiskStore.h"
#include "ServiceClient.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace keldtest {

inline std::string fileText(const std::string& path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

inline bool exists(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// size bytes that belong at offset `at` of a stream; another seed gives
// other bytes.  A piece stored at the wrong offset, cut short or written
// twice shows.
inline API::Bytes positioned(size_t size, size_t at = 0, unsigned seed = 0)
{
    API::Bytes b(static_cast<CORBA::ULong>(size));
    b.length(static_cast<CORBA::ULong>(size));
    for (size_t i = 0; i < size; ++i) b[i] = static_cast<CORBA::Octet>(((at + i) * 7 + (at + i) / 4096 + seed) % 251);
    return b;
}

inline bool sameBytes(const CORBA::Octet* got, const API::Bytes& want)
{
    return std::equal(want.get_buffer(), want.get_buffer() + want.length(), got);
}

inline API::VolumeSpecV11 nfsVolume()
{
    API::VolumeSpecV11 v;
    v.vs_volume_type = API::STS_VOLUME_NFS;
    v.v.v_nfs(API::NfsVolumeV11());
    return v;
}

} // namespace keldtest

#endif
