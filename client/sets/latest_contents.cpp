#include "client/sets/latest_contents.h"

#include "client/sets/catalogue.h"

namespace qrtln {

std::map<std::string, LatestContent> latest_contents(Store& store, const ServerScope& scope) {
    std::map<std::string, LatestContent> contents;
    std::vector<std::string> names = store.set_names();
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        CatalogueEntry entry = load_set(store, *name, scope);
        if (!entry.manifest)
            continue;
        for (const ManifestItem& item : entry.manifest->items)
            if (is_in_blocks(item) || item.inode != 0)
                contents.emplace(item.path, LatestContent{{item.object, item.map},
                                                          item.size,
                                                          item.stored_size,
                                                          item.mtime_ns,
                                                          item.ctime_ns,
                                                          item.inode});
        bool has_all = entry.manifest->complete && entry.manifest->whole_system &&
                       (entry.manifest->level == "full" || entry.manifest->level == "copy");
        if (has_all)
            break;
    }
    return contents;
}

} // namespace qrtln
