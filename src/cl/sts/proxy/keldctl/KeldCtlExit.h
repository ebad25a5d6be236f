// How keldctl ends: the exit statuses scripts may rely on, and the one place
// that turns any failure into one of them and into the line (or the JSON
// object) on standard error.
#ifndef KELD_CLIENT_KELDCTLEXIT_H
#define KELD_CLIENT_KELDCTLEXIT_H

#include <exception>
#include <stdexcept>
#include <string>

namespace keldctl {

enum ExitStatus {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,          // a command line that cannot be used
    EXIT_NOT_FOUND = 3,      // the server, LSU or image does not exist
    EXIT_UNREACHABLE = 4,    // the proxy, a hop of its chain, or the storage behind a server cannot be reached
    EXIT_INTERRUPTED = 130,  // Ctrl-C; 128 + the signal's number for another one
};

// A failure that knows its exit status.
class Failure : public std::runtime_error {
public:
    Failure(ExitStatus status, const std::string& what) : std::runtime_error(what), m_status(status) {}
    ExitStatus status() const { return m_status; }

private:
    ExitStatus m_status;
};

// A command line that parses yet cannot be used ("put -" without an image).
inline Failure usageError(const std::string& what)
{
    return Failure(EXIT_USAGE, what);
}

// What a storage API number means for the exit status: not found,
// unreachable, or failed.  The plug-ins' own numbers are judged by the
// meaning they give them, so that keldctl needs no list of theirs.
ExitStatus statusOfNumber(int number, const std::string& meaning);

// Prints the failure on standard error, as one line or, in JSON mode, as
// one JSON object, and gives the exit status.  chain names the hops of a
// hop number.
int reportFailure(const std::exception_ptr& failure, bool json, const std::string& chain);
// The same for a line keldctl writes itself (a command line it cannot use).
int reportFailure(ExitStatus status, const std::string& message, bool json);

} // namespace keldctl

#endif
