#include "ServiceNotify.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace {

// One stop is announced once: the idle timer, a signal and a client's
// shutdown may all begin one.
std::atomic<bool> gs_stopAnnounced{false};

// A status line must stay one line of the notification.
std::string oneLine(const std::string& text)
{
    std::string line = text;
    for (char& c : line)
        if (c == '\n' || c == '\r') c = ' ';
    return line;
}

void send(const std::string& message)
{
    sd_notify(0, message.c_str());
}

// JOURNAL_STREAM ("DEVICE:INODE") is inherited by every process a service
// starts; only the one whose standard error is that stream writes to the
// journal.
bool stderrIsJournal()
{
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr) return false;
    unsigned long long device = 0, inode = 0;
    struct stat st;
    return std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 && ::fstat(STDERR_FILENO, &st) == 0 &&
           static_cast<unsigned long long>(st.st_dev) == device && static_cast<unsigned long long>(st.st_ino) == inode;
}

} // namespace

namespace ServiceNotify {

void ready(const std::string& status)
{
    send("READY=1\nSTATUS=" + oneLine(status));
}

void stopping(const std::string& status)
{
    if (gs_stopAnnounced.exchange(true)) {
        ServiceNotify::status(status);
        return;
    }
    send("STOPPING=1\nSTATUS=" + oneLine(status));
}

void status(const std::string& text)
{
    send("STATUS=" + oneLine(text));
}

bool underServiceManager()
{
    return std::getenv("NOTIFY_SOCKET") != nullptr || stderrIsJournal();
}

} // namespace ServiceNotify
