#include "ChangeListSlots.h"

#include <fnmatch.h>

namespace pluginsupport {

bool passesFilter(const std::string& name, const std::vector<std::string>& patterns)
{
    if (patterns.empty()) return true;
    for (const std::string& pattern : patterns) {
        if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0) return true;
    }
    return false;
}

} // namespace pluginsupport
