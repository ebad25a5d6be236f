// The pid files of a service's running instances.  Each instance leaves
// <dir>/<name>.<pid>.pid holding its pid and the kernel's start time of the
// process; a stop command signals only the processes whose files it finds
// there and whose start time still matches, so two install roots never stop
// each other and a pid the kernel has since reused is left alone.
#ifndef KELD_PLATFORM_PIDFILE_H
#define KELD_PLATFORM_PIDFILE_H

#include <string>
#include <sys/types.h>
#include <vector>

namespace PidFile {

// Writes the file of this process (creating dir if its parent exists) and
// removes it again when the process exits through exit(), quick_exit() or
// main's return.
// Returns false, with errno set, when the file cannot be written.
bool registerThisProcess(const std::string& dir, const std::string& name);

// The instances registered in dir that still run; the files of processes
// that have ended (a crash leaves one behind) are removed on the way.
std::vector<pid_t> liveInstances(const std::string& dir, const std::string& name);

// The kernel's start time of process pid, which tells it from a later
// process given the same pid; empty once it has ended, also while its
// parent has not yet collected it, but not while its threads still end.
std::string startTime(pid_t pid);

} // namespace PidFile

#endif
