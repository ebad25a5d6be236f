#include "PrivateFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

int openPrivateFile(const char* path, int flags, mode_t mode)
{
    const int fd = ::open(path, flags | O_CREAT | O_CLOEXEC, mode);
    if (fd < 0) return -1;
    struct stat st;
    if (::fstat(fd, &st) == 0 && (st.st_mode & 07777 & ~mode) != 0) {
        // Fails for a file of another owner, which is not ours to narrow.
        (void)::fchmod(fd, st.st_mode & mode);
    }
    return fd;
}
