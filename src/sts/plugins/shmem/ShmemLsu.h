// LSUs of the "ShMem:" storage server are POSIX shared-memory objects named
// "/keldv_shmem_lsu.<lsu name>" (visible as /dev/shm/keldv_shmem_lsu.<name>).
// A process that uses an LSU holds an flock on the object; while it does,
// the LSU cannot be deleted.
#ifndef KELD_SHMEM_LSU_H
#define KELD_SHMEM_LSU_H

#include <string>
#include <vector>

namespace shmemlsu {

const char* const OBJECT_PREFIX = "keldv_shmem_lsu.";
const char* const SHM_DIRECTORY = "/dev/shm";

inline std::string objectName(const std::string& lsu)
{
    return std::string("/") + OBJECT_PREFIX + lsu;
}

// Names of all LSUs, in name order so that a list does not depend on the
// file system.
std::vector<std::string> listLsus();

// 0; ENOENT when there is no such LSU; EBUSY while a holder has it.
int removeLsu(const std::string& lsu);
// 0 or errno.
int createLsu(const std::string& lsu, long size);
// Opens the LSU and takes its lock; returns the descriptor or -errno.
int holdLsu(const std::string& lsu);
// Size in bytes, or -1.
long lsuSize(const std::string& lsu);

} // namespace shmemlsu

#endif
