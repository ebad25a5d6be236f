#include "ShmemLsu.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace shmemlsu {

std::vector<std::string> listLsus()
{
    std::vector<std::string> names;
    const size_t prefixLen = std::strlen(OBJECT_PREFIX);
    if (DIR* d = opendir(SHM_DIRECTORY)) {
        while (dirent* e = readdir(d)) {
            if (std::strncmp(e->d_name, OBJECT_PREFIX, prefixLen) == 0 && e->d_name[prefixLen] != '\0') {
                names.emplace_back(e->d_name + prefixLen);
            }
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

int removeLsu(const std::string& lsu)
{
    const std::string name = objectName(lsu);
    const int fd = shm_open(name.c_str(), O_RDWR, 0);
    if (fd < 0) return errno;
    // A holder keeps the lock for as long as it uses the LSU.
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int err = errno == EWOULDBLOCK ? EBUSY : errno;
        close(fd);
        return err;
    }
    const int rc = shm_unlink(name.c_str()) == 0 ? 0 : errno;
    close(fd);
    return rc;
}

int createLsu(const std::string& lsu, long size)
{
    const int fd = shm_open(objectName(lsu).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) return errno;
    const int rc = ftruncate(fd, size) == 0 ? 0 : errno;
    close(fd);
    return rc;
}

int holdLsu(const std::string& lsu)
{
    const int fd = shm_open(objectName(lsu).c_str(), O_RDWR, 0);
    if (fd < 0) return -errno;
    if (flock(fd, LOCK_EX) != 0) {
        const int err = errno;
        close(fd);
        return -err;
    }
    return fd;
}

long lsuSize(const std::string& lsu)
{
    const int fd = shm_open(objectName(lsu).c_str(), O_RDONLY, 0);
    if (fd < 0) return -1;
    struct stat st;
    const long size = fstat(fd, &st) == 0 ? static_cast<long>(st.st_size) : -1;
    close(fd);
    return size;
}

} // namespace shmemlsu
