// Files of the install root that only the service's own user, and at most
// its group, may read: the log carries whatever the calls carried, the pid
// files say what to signal, and the client database decides who may
// connect.  Each is created with its mode by open(2) itself, so that there
// is no moment in which it is wider (the umask may narrow it further, never
// widen it); a file an older version made wider is narrowed when it is
// opened again.
#ifndef KELD_PLATFORM_PRIVATEFILE_H
#define KELD_PLATFORM_PRIVATEFILE_H

#include <sys/types.h>

// Owner reads and writes, the group reads: log and pid files.
constexpr mode_t kGroupReadableFileMode = 0640;
// Owner only: the client database.
constexpr mode_t kOwnerOnlyFileMode = 0600;

// open(2) of path with flags, O_CREAT and O_CLOEXEC, created with mode; the
// descriptor, or -1 with errno set.
int openPrivateFile(const char* path, int flags, mode_t mode);

#endif
