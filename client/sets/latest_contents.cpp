#include "client/sets/latest_contents.h"

#include "client/sets/catalogue.h"

namespace qrtln {

std::map<std::string, BlockContent> latest_contents(Store& store, const ServerScope& scope) {
    std::map<std::string, BlockContent> contents;
    std::vector<std::string> names = store.set_names();
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        CatalogueEntry entry = load_set(store, *name, scope);
        if (!entry.manifest)
            continue;
        for (const ManifestItem& item : entry.manifest->items)
            if (is_in_blocks(item))
                contents.emplace(item.path, BlockContent{item.object, item.map});
        bool has_all = entry.manifest->complete && entry.manifest->whole_system &&
                       (entry.manifest->level == "full" || entry.manifest->level == "copy");
        if (has_all)
            break;
    }
    return contents;
}

} // namespace qrtln
