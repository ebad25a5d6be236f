#include "ListSlots.h"

#include <cstring>

namespace pluginsupport {

void imageDefFromName(const std::string& name, sts_image_def_t* def)
{
    std::memset(def, 0, sizeof(*def));
    const size_t a = name.find('@');
    const size_t b = a == std::string::npos ? a : name.find('@', a + 1);
    copyOut(def->img_basename, name.substr(0, a), sizeof(def->img_basename));
    if (b != std::string::npos) {
        copyOut(def->img_date, name.substr(a + 1, b - a - 1), sizeof(def->img_date));
        copyOut(def->img_fulldate, name.substr(b + 1), sizeof(def->img_fulldate));
    }
}

} // namespace pluginsupport
