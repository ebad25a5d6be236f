// What the service tells the service manager that started it: ready once its
// endpoints listen and its objects are bound, stopping when a stop begins,
// and a status line with what it waits for meanwhile.  Every call is a no-op
// when the process was not started by a service manager (NOTIFY_SOCKET
// unset), so the same binary runs by hand, from scripts and under systemd.
#ifndef KELD_PLATFORM_SERVICENOTIFY_H
#define KELD_PLATFORM_SERVICENOTIFY_H

#include <string>

namespace ServiceNotify {

// READY=1 with the status line.
void ready(const std::string& status);
// STOPPING=1 with the status line; later calls only change the status.
void stopping(const std::string& status);
// A new status line ("stopping: waiting for 2 jobs").
void status(const std::string& text);

// True when the service manager started this process (NOTIFY_SOCKET) or its
// standard error is the journal's stream: warnings and errors belong on
// standard error too.
bool underServiceManager();

} // namespace ServiceNotify

#endif
