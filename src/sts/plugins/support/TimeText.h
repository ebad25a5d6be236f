// Times as the plug-ins' operator tools print them.
#ifndef KELD_PLUGIN_TIME_TEXT_H
#define KELD_PLUGIN_TIME_TEXT_H

#include <ctime>
#include <string>

#pragma GCC visibility push(hidden)

namespace pluginsupport {

// Seconds since the epoch as 2024-05-01T12:00:00Z, or "?" for a time that
// has no such date.
inline std::string utcText(long long seconds)
{
    const std::time_t t = static_cast<std::time_t>(seconds);
    struct tm parts;
    char text[32] = "?";
    if (gmtime_r(&t, &parts) != nullptr) std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

} // namespace pluginsupport

#pragma GCC visibility pop

#endif
