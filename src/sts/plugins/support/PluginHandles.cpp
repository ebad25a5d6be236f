#include "PluginHandles.h"

#include <cstring>

namespace pluginsupport {

stsp_plugin_t* g_self = nullptr;

void copyOut(char* dst, const std::string& src, size_t size)
{
    std::strncpy(dst, src.c_str(), size - 1);
    dst[size - 1] = '\0';
}

} // namespace pluginsupport
