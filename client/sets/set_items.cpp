#include "client/sets/set_items.h"

#include "client/base/error.h"
#include "client/base/paths.h"
#include "client/base/text.h"

namespace qrtln {

std::vector<const ManifestItem*> items_named(const Manifest& manifest, const std::string& given,
                                             const std::string& command) {
    std::string path =
        absolute_path(given.starts_with('/') ? given : manifest.data_directory + "/" + given);
    std::vector<const ManifestItem*> items;
    if (!given.empty())
        for (const ManifestItem& item : manifest.items)
            if (is_below(item.path, path))
                items.push_back(&item);
    if (!items.empty())
        return items;
    std::string hint = base_hint(manifest, command);
    throw ClientError(ExitCode::no_such,
                      "the set " + manifest.set + " does not hold '" + for_terminal(given) + "' (" +
                          for_terminal(path) + ")",
                      hint.empty() ? "relative names are below the data directory; `qrtln show` "
                                     "lists what a set holds"
                                   : hint);
}

std::string base_hint(const Manifest& manifest, const std::string& command) {
    if (manifest.level != "diff" && manifest.level != "incr")
        return {};
    std::string base = manifest.base.empty() ? "an older full one" : manifest.base;
    std::string text = "the set " + manifest.set + " is of level " + manifest.level +
                       " and has only what it had to save; the rest is in " + for_terminal(base) +
                       ", and in the sets between";
    return manifest.base.empty() ? text
                                 : text + ": `qrtln " + command + " " + manifest.base + " …`";
}

} // namespace qrtln
