// The change list slots of a storage plug-in: a list of what changed
// between two snapshots, read one entry a call through fnmatch patterns,
// and its close.  A plug-in brings its entries (each with a `name`) and
// how one fills a file's attributes:
//   using Lists = ChangeLists<Change, fillAttributes>;
//   Lists::give(entries, out) in its open slot, Lists::registerIn(api).
// A closed list keeps its handle until the plug-in is unloaded, so that a
// repeated close or a late list call finds a handle to refuse instead of
// freed memory.  The cost is one small husk per list, against the object
// each list has in the service.
#ifndef KELD_PLUGIN_CHANGE_LIST_SLOTS_H
#define KELD_PLUGIN_CHANGE_LIST_SLOTS_H

#include "PluginHandles.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#pragma GCC visibility push(hidden)

namespace pluginsupport {

// True when no pattern is given or the name matches one of them.
bool passesFilter(const std::string& name, const std::vector<std::string>& patterns);

template <typename Entry, void (*Fill)(const Entry&, sts_file_attr_t*)>
class ChangeLists {
public:
    // A new list of the entries in *out, or STSP_ENOMEM.
    static int give(std::vector<Entry> entries, sts_handle_t* out)
    {
        std::unique_ptr<List> list(make<List>(CHANGE_LIST));
        if (list == nullptr) return STSP_ENOMEM;
        list->entries.swap(entries);
        *out = &list->hdr;
        std::lock_guard<std::mutex> hold(keptLock);
        kept.push_back(std::move(list));
        return 0;
    }

    static int listFile(sts_handle_t h, sts_uint32_t npaths, sts_pathname_t* filter, sts_file_attr_t* attr)
    {
        List* list = as<List>(h, CHANGE_LIST);
        if (list == nullptr) return STSP_EBADHANDLE;
        if (attr == nullptr || (filter == nullptr && npaths > 0)) return STS_EINVAL_ARG;   // missing, not bad
        std::vector<std::string> patterns;
        for (sts_uint32_t i = 0; i < npaths; ++i) patterns.emplace_back(filter[i], strnlen(filter[i], sizeof(filter[i])));
        std::lock_guard<std::mutex> hold(list->lock);
        if (list->closed) return STS_ENOT_OPEN;
        while (list->next < list->entries.size()) {
            const Entry& entry = list->entries[list->next++];
            if (!passesFilter(entry.name, patterns)) continue;
            Fill(entry, attr);
            return 0;
        }
        return STS_ENO_MORE;
    }

    // Also what stsa_close_handle does with a change list.
    static int close(sts_handle_t h)
    {
        List* list = as<List>(h, CHANGE_LIST);
        if (list == nullptr) return STSP_EBADHANDLE;
        std::lock_guard<std::mutex> hold(list->lock);
        if (list->closed) return STS_ENOT_OPEN;
        list->closed = true;
        std::vector<Entry>().swap(list->entries);
        return 0;
    }

    static void registerIn(sts_api_t& a)
    {
        a.stsa_list_file = listFile;
        a.stsa_close_snap_change_list = close;
    }

private:
    struct List {
        sts_handle_s hdr;
        std::mutex lock;   // two list calls on one handle may run at once
        std::vector<Entry> entries;
        size_t next = 0;
        bool closed = false;
    };

    static inline std::mutex keptLock;
    static inline std::vector<std::unique_ptr<List>> kept;
};

} // namespace pluginsupport

#pragma GCC visibility pop

#endif
