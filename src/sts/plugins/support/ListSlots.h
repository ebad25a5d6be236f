// The list slots of a storage plug-in: LSUs of a server, images of an LSU
// and of an image group.  What differs between plug-ins is how they find
// the names; the plug-in says it through P:
//   P::Server                   its server handle (kind SERVER)
//   P::BAD_ARGUMENT, P::NO_MEMORY   its numbers for a missing output and
//                               for a list that cannot be made
//   P::lsuNames(server, names)  the server's LSUs: 0 or a number
//   P::lsuImages(lsu, def, names)   the images of an LSU, of def's group
//                               when def is not null: 0 or a number
#ifndef KELD_PLUGIN_LIST_SLOTS_H
#define KELD_PLUGIN_LIST_SLOTS_H

#include "PluginHandles.h"

#include <string>
#include <utility>
#include <vector>

#pragma GCC visibility push(hidden)

namespace pluginsupport {

// A definition from a stored image name base@date@fulldate (the dates
// empty when the name has no two '@').
void imageDefFromName(const std::string& name, sts_image_def_t* def);

template <typename P>
struct LsuListSlots {
    // The server's LSUs, or only the one def names when it names one.
    static int openList(sts_handle_t server, const sts_lsu_def_t* def, sts_handle_t* out)
    {
        const typename P::Server* s = as<typename P::Server>(server, SERVER);
        if (s == nullptr || out == nullptr) return STSP_EBADHANDLE;
        std::vector<std::string> names;
        const int rc = P::lsuNames(s, names);
        if (rc != 0) return rc;
        if (def != nullptr && def->sld_name.sln_name[0] != '\0') keepOnly(def->sld_name.sln_name, names);
        return stsp_give_names(g_self, LSU_LIST, std::move(names), out, P::NO_MEMORY);
    }

    static int openDynamicList(const sts_lsu_t* lsu, sts_handle_t* out)
    {
        return lsu != nullptr ? openList(lsu->stl_server_handle, nullptr, out) : P::BAD_ARGUMENT;
    }

    static int next(sts_handle_t list, sts_lsu_name_t* out)
    {
        std::string name;
        const int rc = out != nullptr ? stsp_next_name(list, g_self, LSU_LIST, name) : P::BAD_ARGUMENT;
        if (rc == 0) copyOut(out->sln_name, name, sizeof(out->sln_name));
        return rc;
    }

    static void registerIn(sts_api_t& a)
    {
        a.stsa_open_lsu_list = openList;
        a.stsa_open_dynamic_lsu_list = openDynamicList;
        a.stsa_list_lsu = next;
    }

private:
    static void keepOnly(const std::string& wanted, std::vector<std::string>& names)
    {
        std::vector<std::string> one;
        for (const std::string& name : names) {
            if (name == wanted) one.push_back(name);
        }
        names.swap(one);
    }
};

template <typename P>
struct ImageListSlots {
    // One definition a call.
    static int openGroupList(const sts_lsu_t* lsu, const sts_image_def_t* def, int, sts_handle_t* out)
    {
        std::vector<std::string> names;
        const int rc = out != nullptr ? P::lsuImages(lsu, def, names) : P::BAD_ARGUMENT;
        return rc == 0 ? stsp_give_names(g_self, IMAGE_LIST, std::move(names), out, P::NO_MEMORY) : rc;
    }

    static int openList(const sts_lsu_t* lsu, int flags, sts_handle_t* out)
    {
        return openGroupList(lsu, nullptr, flags, out);
    }

    static int next(sts_handle_t list, sts_image_def_t* def)
    {
        std::string name;
        const int rc = def != nullptr ? stsp_next_name(list, g_self, IMAGE_LIST, name) : P::BAD_ARGUMENT;
        if (rc == 0) imageDefFromName(name, def);
        return rc;
    }

    static int groupCountByName(const sts_lsu_t* lsu, const sts_image_def_t* def, sts_uint32_t* count)
    {
        std::vector<std::string> names;
        const int rc = count != nullptr ? P::lsuImages(lsu, def, names) : P::BAD_ARGUMENT;
        if (rc == 0) *count = static_cast<sts_uint32_t>(names.size());
        return rc;
    }

    static void registerIn(sts_api_t& a)
    {
        a.stsa_open_image_list = openList;
        a.stsa_open_image_group_list = openGroupList;
        a.stsa_list_image = next;
        a.stsa_get_image_group_byname = groupCountByName;
    }
};

} // namespace pluginsupport

#pragma GCC visibility pop

#endif
