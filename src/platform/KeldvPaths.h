// Paths below the install root: "/usr/keldv", or $KELDV_ROOT when set.
#ifndef KELD_PLATFORM_KELDVPATHS_H
#define KELD_PLATFORM_KELDVPATHS_H

#include <string>

std::string keldvRoot();
// True when KELDV_ROOT does not choose another root.
bool keldvRootIsDefault();
// keldvPath("lib") -> "<root>/lib"
std::string keldvPath(const std::string& relative);

#endif
