#include "KeldvPaths.h"

#include <cstdlib>

namespace {
const char* const kDefaultRoot = "/usr/keldv";
}

std::string keldvRoot()
{
    const char* root = std::getenv("KELDV_ROOT");
    if (root == nullptr || *root == '\0') return kDefaultRoot;
    return root;
}

bool keldvRootIsDefault()
{
    const char* root = std::getenv("KELDV_ROOT");
    return root == nullptr || *root == '\0';
}

std::string keldvPath(const std::string& relative)
{
    std::string root = keldvRoot();
    if (relative.empty()) return root;
    if (root.back() == '/' || relative.front() == '/') {
        if (root.back() == '/' && relative.front() == '/') return root + relative.substr(1);
        return root + relative;
    }
    return root + "/" + relative;
}
